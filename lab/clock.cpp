#include "lab/clock.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <climits>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// The calls that take this C library's timespec: on 32-bit processors the old ones take seconds of 32 bits.
#ifdef SYS_futex_time64
constexpr bool LONG_TIME = sizeof(time_t) > sizeof(long);
constexpr long FUTEX_CALL = LONG_TIME ? SYS_futex_time64 : SYS_futex;
constexpr long CLOCK_CALL = LONG_TIME ? SYS_clock_gettime64 : SYS_clock_gettime;
#else
constexpr long FUTEX_CALL = SYS_futex;
constexpr long CLOCK_CALL = SYS_clock_gettime;
#endif

using Words = std::array<uint32_t, std::size(LabClockSlot{}.words)>;

constexpr int64_t FAR_AWAY_SECONDS = 4'000'000'000;

/// value * multiply / divide without an overflow on the way, for factors of a clock's speed.
int64_t scaled(int64_t value, int64_t multiply, int64_t divide)
{
    return value / divide * multiply + value % divide * multiply / divide;
}

LabClock clockFromNowOn(const LabState& state)
{
    LabClock clock = readClock(state);
    const int64_t now = monotonicNs();
    clock.labNs = labTimeAt(clock, now);
    clock.realNs = now;
    return clock;
}

} // namespace

void publishClock(LabState& state, const LabClock& clock)
{
    const uint32_t next = state.clockChanges.load() + 1;
    const auto words = std::bit_cast<Words>(clock);
    for (size_t i = 0; i < words.size(); ++i)
        state.clock[next & 1].words[i].store(words[i]);
    state.clockChanges.store(next);
    bumpAndWake(state.wake);
    for (LabAxisRecord& axis : state.axes)
        bumpAndWake(axis.wake);
}

LabClock readClock(const LabState& state)
{
    for (;;) {
        const uint32_t seen = state.clockChanges.load();
        Words words{};
        for (size_t i = 0; i < words.size(); ++i)
            words[i] = state.clock[seen & 1].words[i].load();
        if (state.clockChanges.load() == seen)
            return std::bit_cast<LabClock>(words);
    }
}

int64_t nanoseconds(const timespec& time)
{
    return std::min<int64_t>(time.tv_sec, FAR_AWAY_SECONDS) * NS_PER_SECOND + time.tv_nsec;
}

timespec asTimespec(int64_t ns)
{
    return {static_cast<time_t>(ns / NS_PER_SECOND), static_cast<long>(ns % NS_PER_SECOND)};
}

int machineClock(clockid_t clock, timespec* now)
{
    // The kernel: a sanitizer asks for the time in the middle of an allocation, where the C library's call cannot be
    // looked up.
    return static_cast<int>(syscall(CLOCK_CALL, clock, now));
}

int64_t monotonicNs()
{
    timespec now{};
    machineClock(CLOCK_MONOTONIC, &now);
    return nanoseconds(now);
}

int64_t labTimeAt(const LabClock& clock, int64_t realNs)
{
    return clock.labNs + scaled(realNs - clock.realNs, clock.speedMilli, CLOCK_SPEED_ONE);
}

int64_t labNow(const LabState& state)
{
    const LabClock clock = readClock(state);
    return labTimeAt(clock, monotonicNs());
}

int64_t wallNow(const LabState& state)
{
    const LabClock clock = readClock(state);
    if (!clock.wallIsReal)
        return labTimeAt(clock, monotonicNs()) + clock.wallNs;
    timespec now{};
    machineClock(CLOCK_REALTIME, &now);
    return nanoseconds(now);
}

int64_t realTimeOf(const LabClock& clock, int64_t labNs)
{
    const int64_t ahead = labNs - clock.labNs;
    if (ahead <= 0)
        return clock.realNs;
    const int64_t whole = ahead / clock.speedMilli;
    if (whole >= (INT64_MAX - clock.realNs) / CLOCK_SPEED_ONE)
        return INT64_MAX;
    const int64_t rest = ahead % clock.speedMilli;
    // Rounded up: a wait must not end before its time.
    return clock.realNs + whole * CLOCK_SPEED_ONE + (rest * CLOCK_SPEED_ONE + clock.speedMilli - 1) / clock.speedMilli;
}

void setClockSpeed(LabState& state, int64_t speedMilli)
{
    LabClock clock = clockFromNowOn(state);
    clock.speedMilli = std::clamp<int64_t>(speedMilli, 1, CLOCK_SPEED_MAX);
    if (clock.wallIsReal) {
        clock.wallNs = wallNow(state) - clock.labNs;
        clock.wallIsReal = 0;
    }
    publishClock(state, clock);
}

void setWallClock(LabState& state, int64_t wallNs)
{
    LabClock clock = clockFromNowOn(state);
    clock.wallIsReal = 0;
    clock.wallNs = wallNs - clock.labNs;
    publishClock(state, clock);
}

void resetClock(LabState& state)
{
    LabClock clock = clockFromNowOn(state);
    clock.speedMilli = CLOCK_SPEED_ONE;
    clock.wallIsReal = 1;
    publishClock(state, clock);
}

void bumpAndWake(std::atomic<uint32_t>& word)
{
    word.fetch_add(1);
    syscall(FUTEX_CALL, &word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

int waitWord(std::atomic<uint32_t>& word, uint32_t seen, int64_t realNs)
{
    const timespec until = asTimespec(realNs);
    // The bit-set form takes a moment of CLOCK_MONOTONIC, so that a late start of the wait costs nothing.
    const long result = syscall(FUTEX_CALL, &word, FUTEX_WAIT_BITSET, seen, realNs == INT64_MAX ? nullptr : &until,
                                nullptr, FUTEX_BITSET_MATCH_ANY);
    return result < 0 && errno == EINTR ? EINTR : 0;
}

int sleepUntil(LabState& state, int64_t labNs)
{
    for (;;) {
        const uint32_t seen = state.wake.load();
        const LabClock clock = readClock(state);
        if (labTimeAt(clock, monotonicNs()) >= labNs)
            return 0;
        if (waitWord(state.wake, seen, realTimeOf(clock, labNs)) == EINTR)
            return EINTR;
    }
}
