// POSIX timers that notify by a new thread, in lab time, on nothing but pthread_create.
//
// One dispatcher thread, started by the first timer that is armed, sleeps until the next expiry and starts a thread for
// each. The C library's own would serve neither the lab clock nor ThreadSanitizer, which cannot follow its threads.
// Every other kind of timer, and all of them with PTZD_LAB_GLIBC_TIMERS=1, goes to the C library.

#include "context.h"
#include "lab/clock.h"
#include "lab/state_file.h"

#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <cerrno>

namespace {

constexpr int TIMER_MAX = 64;
constexpr int64_t UNARMED = INT64_MAX;

/// Callbacks of one timer that may run at a time. A callback that takes long in real time while the clock runs fast
/// would else have thousands of threads waiting; expiries beyond are lost.
constexpr int CALLBACK_MAX = 32;

struct LabTimer {
    bool used;
    clockid_t clock;
    void (*callback)(sigval);
    sigval argument;
    size_t stackSize; // 0: the default
    int64_t nextNs;   // lab time of the next expiry, or UNARMED
    int64_t periodNs; // 0: expires once
    int running;
};

pthread_mutex_t gLock = PTHREAD_MUTEX_INITIALIZER; // guards everything below
LabTimer gTimers[TIMER_MAX];
bool gDispatcherRuns;

/// A timer's slot is not used anew while a callback runs, so callback and argument stay.
void* runExpiry(void* record)
{
    auto& timer = *static_cast<LabTimer*>(record);
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
    timer.callback(timer.argument);
    const LabLock hold(gLock);
    --timer.running;
    return nullptr;
}

bool startThread(void* (*routine)(void*), void* argument, size_t stackSize)
{
    pthread_attr_t attributes;
    pthread_t thread{};
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    if (stackSize != 0)
        pthread_attr_setstacksize(&attributes, stackSize);
    const int result = pthread_create(&thread, &attributes, routine, argument);
    pthread_attr_destroy(&attributes);
    return result == 0;
}

/// Starts the callback of a timer that is due. Needs gLock.
void expire(LabTimer& timer)
{
    if (timer.running < CALLBACK_MAX && startThread(runExpiry, &timer, timer.stackSize))
        ++timer.running;
}

/// Expires what is due and returns the lab time of the next expiry, UNARMED if none is armed. Expiries of one timer
/// that were missed are one, as with a timer of the kernel. Needs gLock.
int64_t expireDue(int64_t nowNs)
{
    int64_t next = UNARMED;
    for (LabTimer& timer : gTimers) {
        if (!timer.used || timer.nextNs == UNARMED)
            continue;
        if (timer.nextNs <= nowNs) {
            expire(timer);
            if (timer.periodNs == 0) {
                timer.nextNs = UNARMED;
                continue;
            }
            timer.nextNs += ((nowNs - timer.nextNs) / timer.periodNs + 1) * timer.periodNs;
        }
        next = std::min(next, timer.nextNs);
    }
    return next;
}

void* dispatch(void*)
{
    LabState& state = *labState();
    for (;;) {
        const uint32_t seen = state.wake.load();
        const LabClock clock = readClock(state);
        int64_t next = UNARMED;
        {
            const LabLock hold(gLock);
            next = expireDue(labTimeAt(clock, monotonicNs()));
        }
        waitWord(state.wake, seen, next == UNARMED ? INT64_MAX : realTimeOf(clock, next));
    }
    return nullptr;
}

/// Needs gLock. The dispatcher takes no signals: they belong to the program's own threads.
bool ensureDispatcher()
{
    if (gDispatcherRuns)
        return true;
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    gDispatcherRuns = startThread(dispatch, nullptr, 0);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return gDispatcherRuns;
}

bool ownsTimer(timer_t id)
{
    const auto address = reinterpret_cast<uintptr_t>(id);
    return address >= reinterpret_cast<uintptr_t>(gTimers) &&
           address < reinterpret_cast<uintptr_t>(gTimers + TIMER_MAX);
}

int fail(int error)
{
    errno = error;
    return -1;
}

bool wantsLabTimer(clockid_t clock, const sigevent* event)
{
    if (!event || event->sigev_notify != SIGEV_THREAD || (clock != CLOCK_REALTIME && clock != CLOCK_MONOTONIC))
        return false;
    const char* passOn = getenv("PTZD_LAB_GLIBC_TIMERS");
    return !(passOn && strcmp(passOn, "1") == 0) && labState() != nullptr;
}

/// Lab time of an expiry given as a timer call gives it.
int64_t expiryNs(const LabState& state, const LabTimer& timer, int flags, const timespec& value)
{
    const int64_t now = labNow(state);
    if ((flags & TIMER_ABSTIME) == 0)
        return now + nanoseconds(value);
    if (timer.clock == CLOCK_REALTIME)
        return now + nanoseconds(value) - wallNow(state);
    return labTimeAt(readClock(state), nanoseconds(value));
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {

int timer_create(clockid_t clock, sigevent* event, timer_t* id) C_NOEXCEPT
{
    if (!wantsLabTimer(clock, event))
        return NEXT(timer_create)(clock, event, id);
    size_t stackSize = 0;
    if (event->sigev_notify_attributes)
        pthread_attr_getstacksize(event->sigev_notify_attributes, &stackSize);
    const LabLock hold(gLock);
    LabTimer* timer =
        std::find_if(gTimers, gTimers + TIMER_MAX, [](const LabTimer& t) { return !t.used && t.running == 0; });
    if (timer == gTimers + TIMER_MAX)
        return fail(EAGAIN);
    *timer = {true, clock, event->sigev_notify_function, event->sigev_value, stackSize, UNARMED, 0, 0};
    *id = timer;
    labState()->timersCreated.fetch_add(1);
    return 0;
}

int timer_settime(timer_t id, int flags, const itimerspec* value, itimerspec* old) C_NOEXCEPT
{
    if (!ownsTimer(id))
        return NEXT(timer_settime)(id, flags, value, old);
    LabState& state = *labState();
    auto& timer = *static_cast<LabTimer*>(id);
    {
        const LabLock hold(gLock);
        if (!timer.used || old || !isValid(value->it_value) || !isValid(value->it_interval))
            return fail(EINVAL);
        timer.nextNs = UNARMED;
        if (nanoseconds(value->it_value) == 0)
            return 0;
        if (!ensureDispatcher())
            return fail(EAGAIN);
        timer.periodNs = nanoseconds(value->it_interval);
        timer.nextNs = expiryNs(state, timer, flags, value->it_value);
    }
    bumpAndWake(state.wake);
    return 0;
}

int timer_delete(timer_t id) C_NOEXCEPT
{
    if (!ownsTimer(id))
        return NEXT(timer_delete)(id);
    auto& timer = *static_cast<LabTimer*>(id);
    const LabLock hold(gLock);
    if (!timer.used)
        return fail(EINVAL);
    timer.used = false;
    return 0;
}

} // extern "C"
#pragma GCC visibility pop
