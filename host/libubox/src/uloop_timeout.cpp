#include "ubox.h"
#include "uloop_parts.h"

#include <algorithm>
#include <climits>
#include <ctime>

namespace {

constexpr int64_t US_PER_MS = 1000;
constexpr int64_t US_PER_S = 1000000;

// Pending timeouts, the next one first, equal times in the order of their arming.
list_head pendingList = LIST_HEAD_INIT(pendingList);

int64_t nowUs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * US_PER_S + now.tv_nsec / 1000;
}

int64_t timeUs(const uloop_timeout* timeout)
{
    return timeout->time.tv_sec * US_PER_S + timeout->time.tv_usec;
}

uloop_timeout* firstPending()
{
    return list_empty(&pendingList) ? nullptr : list_first_entry(&pendingList, uloop_timeout, list);
}

// Whole milliseconds, so that a timeout is due when less than one is left: waiting for the rest would not sleep.
int64_t remainingMs(const uloop_timeout* timeout, int64_t now)
{
    return (timeUs(timeout) - now) / US_PER_MS;
}

} // namespace

void timeoutsRunDue()
{
    // One look at the clock for all, so that a callback that always arms itself for now cannot hold up the loop.
    int64_t now = nowUs();
    for (uloop_timeout* first = firstPending(); first && remainingMs(first, now) <= 0; first = firstPending()) {
        uloop_timeout_cancel(first);
        if (first->cb)
            first->cb(first); // which may arm it again, or free it
    }
}

int timeoutsWait(int limit)
{
    uloop_timeout* first = firstPending();
    if (!first)
        return limit;
    int64_t wait = std::clamp(remainingMs(first, nowUs()), int64_t{0}, int64_t{limit < 0 ? INT_MAX : limit});
    return static_cast<int>(wait);
}

void timeoutsCancelAll()
{
    while (uloop_timeout* first = firstPending())
        uloop_timeout_cancel(first);
}

int uloop_timeout_add(uloop_timeout* timeout)
{
    if (timeout->pending)
        return -1;
    list_head* before = pendingList.prev;
    while (before != &pendingList && timeUs(list_entry(before, uloop_timeout, list)) > timeUs(timeout))
        before = before->prev;
    list_add(&timeout->list, before);
    timeout->pending = true;
    return 0;
}

int uloop_timeout_set(uloop_timeout* timeout, int ms)
{
    uloop_timeout_cancel(timeout);
    int64_t due = std::max(nowUs() + ms * US_PER_MS, int64_t{0});
    timeout->time.tv_sec = static_cast<time_t>(due / US_PER_S);
    timeout->time.tv_usec = static_cast<suseconds_t>(due % US_PER_S);
    return uloop_timeout_add(timeout);
}

int uloop_timeout_cancel(uloop_timeout* timeout)
{
    if (!timeout->pending)
        return -1;
    list_del(&timeout->list);
    timeout->pending = false;
    return 0;
}
