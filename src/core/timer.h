// POSIX interval timers that call back on a thread of their own.
#pragma once

#include <stdint.h>
#include <time.h>

inline constexpr int64_t NS_PER_SECOND = 1'000'000'000;
inline constexpr int64_t NS_PER_MS = 1'000'000;

/// Milliseconds on a clock that is never set. Any thread; no lock.
[[nodiscard]] inline int64_t monotonicMs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (now.tv_sec * NS_PER_SECOND + now.tv_nsec) / NS_PER_MS;
}

/// One timer. The callback runs at every expiry, on a new thread each time: expiries of one timer may overlap.
struct DaemonTimer {
    timer_t id; // -1 before timerCreate
    void (*callback)(void* argument);
    void* argument;
};

/// The daemon's timers, set up by main. A timer may be armed and disarmed by any thread.
struct Timers {
    DaemonTimer saveStepsTimer;
    DaemonTimer statusPollTimer;
    DaemonTimer usrMoveStopTimer;
    DaemonTimer scanMoveStopTimer;
};

/// A timer that is not created yet.
[[nodiscard]] DaemonTimer timerRecord(void (*callback)(void*), void* argument);

/// Creates the timer on the real-time clock, unarmed. The record must stay where it is from then on.
/// @return 0; -1 when the record or its callback is missing or creation fails (printed on standard error).
/// Thread: main, before any expiry. No lock.
[[nodiscard]] int32_t timerCreate(DaemonTimer* timer);

/// Arms or re-arms the timer relative to now.
/// @param firstNs, intervalNs  nanoseconds, not negative; an interval of 0 expires once
/// @return 0; -1 when the record is missing or arming fails (printed on standard error).
/// Any thread; no lock.
int32_t timerStart(DaemonTimer* timer, int64_t firstNs, int64_t intervalNs);

/// Disarms the timer; an expiry under delivery may still run once. @return as timerStart. Any thread; no lock.
int32_t timerStop(DaemonTimer* timer);

/// Deletes the timer. @return 0; -1 when the record is missing or deletion fails. Any thread; no lock.
int32_t timerDelete(DaemonTimer* timer);
