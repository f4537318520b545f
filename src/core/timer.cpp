#include "core/timer.h"

#include "core/worker.h"

#include <signal.h>
#include <stdio.h>

namespace {

void timerExpired(sigval expired)
{
    WorkerScope scope;
    if (!scope.entered())
        return; // the daemon is ending: what the callback needs may be gone
    const auto* timer = static_cast<const DaemonTimer*>(expired.sival_ptr);
    timer->callback(timer->argument);
}

int32_t setTime(const DaemonTimer* timer, int64_t firstNs, int64_t intervalNs)
{
    if (!timer)
        return -1;
    itimerspec spec{};
    spec.it_value.tv_sec = static_cast<time_t>(firstNs / NS_PER_SECOND);
    spec.it_value.tv_nsec = static_cast<long>(firstNs % NS_PER_SECOND);
    spec.it_interval.tv_sec = static_cast<time_t>(intervalNs / NS_PER_SECOND);
    spec.it_interval.tv_nsec = static_cast<long>(intervalNs % NS_PER_SECOND);
    if (timer_settime(timer->id, 0, &spec, nullptr) != 0) {
        perror("timer_settime failed:");
        return -1;
    }
    return 0;
}

} // namespace

DaemonTimer timerRecord(void (*callback)(void*), void* argument)
{
    // NOLINTNEXTLINE(performance-no-int-to-ptr): there is no other value for a timer that does not exist
    return {reinterpret_cast<timer_t>(-1), callback, argument};
}

int32_t timerCreate(DaemonTimer* timer)
{
    if (!timer || !timer->callback)
        return -1;
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD;
    event.sigev_notify_function = timerExpired;
    event.sigev_value.sival_ptr = timer;
    if (timer_create(CLOCK_REALTIME, &event, &timer->id) != 0) {
        perror("timer_create failed:");
        return -1;
    }
    return 0;
}

int32_t timerStart(DaemonTimer* timer, int64_t firstNs, int64_t intervalNs)
{
    return setTime(timer, firstNs, intervalNs);
}

int32_t timerStop(DaemonTimer* timer)
{
    return setTime(timer, 0, 0);
}

int32_t timerDelete(DaemonTimer* timer)
{
    if (!timer)
        return -1;
    if (timer_delete(timer->id) != 0) {
        perror("timer_delete failed:");
        return -1;
    }
    return 0;
}
