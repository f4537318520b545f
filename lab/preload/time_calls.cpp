// Sleeps and the wall clock, in lab time. CLOCK_MONOTONIC and every wait for something else than time stay real.

#include "context.h"
#include "lab_sleep.h"

#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace {

constexpr int64_t FAR_AWAY_SECONDS = 4'000'000'000;

/// At the ordinary speed a nap this short goes straight to the kernel: it is over before a change of the clock that
/// comes meanwhile makes a difference.
constexpr int64_t NAP_NS = 250 * NS_PER_MS;

/// The lab's state if its wall clock differs from the machine's, else null.
const LabState* stateWithOwnWall()
{
    const LabState* state = labState();
    return state && !readClock(*state).wallIsReal ? state : nullptr;
}

// The C library's clock_gettime, found before the program begins and not at the first call: a sanitizer asks for the
// time in the middle of an allocation, where a lookup, which may allocate, must not be. Until then the kernel is asked.
constinit std::atomic<void*> gClockGettime{nullptr};

[[gnu::constructor]] void findClockGettime()
{
    (void)nextDefinition(gClockGettime, "clock_gettime");
}

#ifdef SYS_clock_gettime64
constexpr long CLOCK_CALL = sizeof(time_t) > sizeof(long) ? SYS_clock_gettime64 : SYS_clock_gettime;
#else
constexpr long CLOCK_CALL = SYS_clock_gettime;
#endif

int machineClock(clockid_t clock, timespec* now)
{
    void* found = gClockGettime.load();
    return found ? reinterpret_cast<decltype(&::clock_gettime)>(found)(clock, now)
                 : static_cast<int>(syscall(CLOCK_CALL, clock, now));
}

bool isWall(clockid_t clock)
{
    return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
}

bool isValid(const timespec& time)
{
    return time.tv_sec >= 0 && time.tv_nsec >= 0 && time.tv_nsec < NS_PER_SECOND;
}

/// Sleeps `ns` of lab time. 0, or EINTR with what is left in `*left`.
int sleepFor(LabState& state, int64_t ns, int64_t* left)
{
    const int64_t until = labNow(state) + ns;
    const int result = sleepUntil(state, until);
    *left = std::max<int64_t>(until - labNow(state), 0);
    return result;
}

/// The lab's state if a sleep of `ns` must follow the lab clock, else null.
LabState* stateForSleep(int64_t ns)
{
    LabState* state = labState();
    if (state && ns <= NAP_NS && readClock(*state).speedMilli == CLOCK_SPEED_ONE)
        return nullptr;
    return state;
}

int sleepRelative(LabState& state, const timespec* wanted, timespec* remaining)
{
    int64_t left = 0;
    const int result = sleepFor(state, nanoseconds(*wanted), &left);
    if (result == EINTR && remaining)
        *remaining = asTimespec(left);
    return result;
}

/// What TZ ends with in a lab's programs, in both of its spellings.
constexpr const char* ZONE_FILE = "/./" LAB_ZONE_FILE;
constexpr const char* ZONE_FILE_AGAIN = "///" LAB_ZONE_FILE;

/// Has the C library read the lab's zone again if its file is another than at the last call. The library remembers the
/// zone by the text of TZ, so the file is named in turn in one of two ways.
void followZoneFile()
{
    static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    static struct stat known;
    char* zone = labFolder() ? getenv("TZ") : nullptr;
    const size_t length = zone ? strlen(zone) : 0;
    const size_t tail = strlen(ZONE_FILE);
    if (length <= tail ||
        (strcmp(zone + length - tail, ZONE_FILE) != 0 && strcmp(zone + length - tail, ZONE_FILE_AGAIN) != 0))
        return;
    struct stat now {};
    if (stat(zone + strspn(zone, ":"), &now) != 0)
        return;
    pthread_mutex_lock(&lock);
    if (now.st_ino != known.st_ino || now.st_mtim.tv_sec != known.st_mtim.tv_sec ||
        now.st_mtim.tv_nsec != known.st_mtim.tv_nsec) {
        known = now;
        char& spelling = zone[length - tail + 1];
        spelling = spelling == '.' ? '/' : '.';
    }
    pthread_mutex_unlock(&lock);
}

} // namespace

int64_t nanoseconds(const timespec& time)
{
    return std::min<int64_t>(time.tv_sec, FAR_AWAY_SECONDS) * NS_PER_SECOND + time.tv_nsec;
}

timespec asTimespec(int64_t ns)
{
    timespec result{};
    result.tv_sec = static_cast<time_t>(ns / NS_PER_SECOND);
    result.tv_nsec = static_cast<long>(ns % NS_PER_SECOND);
    return result;
}

int64_t wallNow(const LabState& state)
{
    const LabClock clock = readClock(state);
    if (!clock.wallIsReal)
        return wallTimeAt(clock, monotonicNs());
    timespec now{};
    machineClock(CLOCK_REALTIME, &now);
    return nanoseconds(now);
}

#pragma GCC visibility push(default)
extern "C" {

int clock_gettime(clockid_t clock, timespec* now) C_NOEXCEPT
{
    const LabState* state = isWall(clock) ? stateWithOwnWall() : nullptr;
    if (!state)
        return machineClock(clock, now);
    *now = asTimespec(wallNow(*state));
    return 0;
}

int gettimeofday(timeval* now, void* zone) C_NOEXCEPT
{
    const LabState* state = stateWithOwnWall();
    const int result = NEXT(gettimeofday)(now, zone);
    if (result != 0 || !state)
        return result;
    const timespec wall = asTimespec(wallNow(*state));
    now->tv_sec = wall.tv_sec;
    now->tv_usec = wall.tv_nsec / 1000;
    return 0;
}

time_t time(time_t* result) C_NOEXCEPT
{
    const LabState* state = stateWithOwnWall();
    if (!state)
        return NEXT(time)(result);
    const time_t now = asTimespec(wallNow(*state)).tv_sec;
    if (result)
        *result = now;
    return now;
}

int timespec_get(timespec* now, int base) C_NOEXCEPT
{
    const LabState* state = base == TIME_UTC ? stateWithOwnWall() : nullptr;
    if (!state)
        return NEXT(timespec_get)(now, base);
    *now = asTimespec(wallNow(*state));
    return base;
}

void tzset() C_NOEXCEPT
{
    followZoneFile();
    NEXT(tzset)();
}

tm* localtime(const time_t* seconds) C_NOEXCEPT
{
    followZoneFile();
    return NEXT(localtime)(seconds);
}

int nanosleep(const timespec* wanted, timespec* remaining)
{
    LabState* state = isValid(*wanted) ? stateForSleep(nanoseconds(*wanted)) : nullptr;
    if (!state)
        return NEXT(nanosleep)(wanted, remaining);
    const int result = sleepRelative(*state, wanted, remaining);
    if (result == 0)
        return 0;
    errno = result;
    return -1;
}

int clock_nanosleep(clockid_t clock, int flags, const timespec* wanted, timespec* remaining)
{
    const bool absolute = (flags & TIMER_ABSTIME) != 0;
    const bool ours = isValid(*wanted) && (isWall(clock) || (clock == CLOCK_MONOTONIC && !absolute));
    LabState* state = ours ? stateForSleep(absolute ? INT64_MAX : nanoseconds(*wanted)) : nullptr;
    if (!state)
        return NEXT(clock_nanosleep)(clock, flags, wanted, remaining);
    if (!absolute)
        return sleepRelative(*state, wanted, remaining);
    int64_t left = 0;
    return sleepFor(*state, nanoseconds(*wanted) - wallNow(*state), &left);
}

int usleep(useconds_t us)
{
    const timespec wanted = asTimespec(int64_t{us} * 1000);
    return nanosleep(&wanted, nullptr);
}

unsigned sleep(unsigned seconds)
{
    const timespec wanted = asTimespec(int64_t{seconds} * NS_PER_SECOND);
    timespec left{};
    if (nanosleep(&wanted, &left) == 0)
        return 0;
    return static_cast<unsigned>(left.tv_sec + (left.tv_nsec >= NS_PER_SECOND / 2 ? 1 : 0));
}

} // extern "C"
#pragma GCC visibility pop
