#pragma once
// The lab clock: time that runs at a speed of its own and a wall clock that can be set, both shared by all processes of
// a lab. Lab time starts at 0 with the lab and never jumps; the wall clock is the machine's until somebody touches it.
// Reading takes no lock and may happen on any thread; changing needs LabState::lock.

#include "lab/lab_state.h"

#include <ctime>

inline constexpr int64_t NS_PER_SECOND = 1'000'000'000;
inline constexpr int64_t NS_PER_MS = 1'000'000;
inline constexpr int64_t CLOCK_SPEED_ONE = 1000;
inline constexpr int64_t CLOCK_SPEED_MAX = 100'000 * CLOCK_SPEED_ONE;

/// One consistent reading of the clock.
LabClock readClock(const LabState& state);

/// Makes a changed clock the current one and lets everybody who waits for lab time work out his moment anew.
void publishClock(LabState& state, const LabClock& clock);

/// Whether a call that takes a time takes this one.
inline bool isValid(const timespec& time)
{
    return time.tv_sec >= 0 && time.tv_nsec >= 0 && time.tv_nsec < NS_PER_SECOND;
}

/// A timespec in ns; times beyond some hundred years count as that.
int64_t nanoseconds(const timespec& time);
timespec asTimespec(int64_t ns);

/// clock_gettime of the machine, also in a program for which the preloaded library answers that call.
int machineClock(clockid_t clock, timespec* now);

/// CLOCK_MONOTONIC in ns, which no lab ever changes.
int64_t monotonicNs();

/// Lab time at a moment of CLOCK_MONOTONIC.
int64_t labTimeAt(const LabClock& clock, int64_t realNs);

/// Lab time now.
int64_t labNow(const LabState& state);

/// The wall clock in ns since 1970, also while it is the machine's.
int64_t wallNow(const LabState& state);

/// The moment of CLOCK_MONOTONIC at which lab time reaches `labNs` if the clock keeps its speed, rounded up; for what
/// lies before the clock's latest change the moment of that change.
int64_t realTimeOf(const LabClock& clock, int64_t labNs);

/// Changes the speed, in thousandths, limited to 1..CLOCK_SPEED_MAX; lab time and wall clock go on from where they are.
void setClockSpeed(LabState& state, int64_t speedMilli);

/// Sets the wall clock, in ns since 1970; lab time is not touched.
void setWallClock(LabState& state, int64_t wallNs);

/// Back to the machine's time: speed 1 and the machine's wall clock.
void resetClock(LabState& state);

/// Counts a word up and wakes everybody who waits on it, in all processes.
void bumpAndWake(std::atomic<uint32_t>& word);

/// Sleeps until `word` differs from `seen` or CLOCK_MONOTONIC reaches `realNs` (INT64_MAX: no limit). Returns 0, or
/// EINTR when a signal handler ran. May return early for no reason.
int waitWord(std::atomic<uint32_t>& word, uint32_t seen, int64_t realNs);

/// Sleeps until lab time reaches `labNs`, whatever happens to the clock's speed meanwhile. Returns 0, or EINTR.
int sleepUntil(LabState& state, int64_t labNs);
