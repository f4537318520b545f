#include "lab/clock.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// The call that takes this C library's timespec: on 32-bit processors the old one takes seconds of 32 bits.
#ifdef SYS_futex_time64
constexpr long FUTEX_CALL = sizeof(time_t) > sizeof(long) ? SYS_futex_time64 : SYS_futex;
#else
constexpr long FUTEX_CALL = SYS_futex;
#endif

/// value * multiply / divide without an overflow on the way, for factors of a clock's speed.
int64_t scaled(int64_t value, int64_t multiply, int64_t divide)
{
    return value / divide * multiply + value % divide * multiply / divide;
}

/// Makes a changed clock the current one and lets everybody who waits for lab time work out his moment anew.
void publish(LabState& state, const LabClock& clock)
{
    const uint32_t next = state.clockChanges.load() + 1;
    LabClockSlot& slot = state.clock[next & 1];
    slot.realNs.store(clock.realNs);
    slot.labNs.store(clock.labNs);
    slot.speedMilli.store(clock.speedMilli);
    slot.wallNs.store(clock.wallNs);
    slot.wallIsReal.store(clock.wallIsReal ? 1 : 0);
    state.clockChanges.store(next);
    bumpAndWake(state.wake);
    for (LabAxisRecord& axis : state.axes)
        bumpAndWake(axis.wake);
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

LabClock readClock(const LabState& state)
{
    for (;;) {
        const uint32_t seen = state.clockChanges.load();
        const LabClockSlot& slot = state.clock[seen & 1];
        const LabClock clock{
            .realNs = slot.realNs.load(),
            .labNs = slot.labNs.load(),
            .speedMilli = slot.speedMilli.load(),
            .wallNs = slot.wallNs.load(),
            .wallIsReal = slot.wallIsReal.load() != 0,
        };
        if (state.clockChanges.load() == seen)
            return clock;
    }
}

int64_t monotonicNs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * NS_PER_SECOND + now.tv_nsec;
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

int64_t realTimeOf(const LabClock& clock, int64_t labNs)
{
    const int64_t ahead = labNs - clock.labNs;
    if (ahead <= 0)
        return clock.realNs;
    const int64_t whole = ahead / clock.speedMilli;
    if (whole >= (INT64_MAX - clock.realNs) / CLOCK_SPEED_ONE)
        return INT64_MAX;
    const int64_t rest = ahead % clock.speedMilli;
    // Rounded up: whoever waits until then must not find that it is not yet time.
    return clock.realNs + whole * CLOCK_SPEED_ONE + (rest * CLOCK_SPEED_ONE + clock.speedMilli - 1) / clock.speedMilli;
}

int64_t wallTimeAt(const LabClock& clock, int64_t realNs)
{
    return labTimeAt(clock, realNs) + clock.wallNs;
}

void setClockSpeed(LabState& state, int64_t speedMilli, int64_t machineWallNs)
{
    LabClock clock = clockFromNowOn(state);
    clock.speedMilli = std::clamp<int64_t>(speedMilli, 1, CLOCK_SPEED_MAX);
    if (clock.wallIsReal) {
        clock.wallIsReal = false;
        clock.wallNs = machineWallNs - clock.labNs;
    }
    publish(state, clock);
}

void setWallClock(LabState& state, int64_t wallNs)
{
    LabClock clock = clockFromNowOn(state);
    clock.wallIsReal = false;
    clock.wallNs = wallNs - clock.labNs;
    publish(state, clock);
}

void resetClock(LabState& state)
{
    LabClock clock = clockFromNowOn(state);
    clock.speedMilli = CLOCK_SPEED_ONE;
    clock.wallIsReal = true;
    publish(state, clock);
}

void bumpAndWake(std::atomic<uint32_t>& word)
{
    word.fetch_add(1);
    syscall(FUTEX_CALL, &word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

int waitWord(std::atomic<uint32_t>& word, uint32_t seen, int64_t realNs)
{
    timespec until{};
    until.tv_sec = static_cast<time_t>(realNs / NS_PER_SECOND);
    until.tv_nsec = static_cast<long>(realNs % NS_PER_SECOND);
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
