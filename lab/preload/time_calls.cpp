// Sleeps and the wall clock, in lab time. CLOCK_MONOTONIC and every wait for something else than time stay real.

#include "context.h"
#include "lab/clock.h"
#include "lab/state_file.h"

#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace {

bool isWall(clockid_t clock)
{
    return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
}

/// Has the C library read the lab's zone again if its file is another than at the last call. The library remembers the
/// zone by the text of TZ, so the file is named in turn in one of two ways.
void followZoneFile()
{
    static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    static struct stat known;
    // ":", the folder, "/./" or "///", and the file below the folder
    const char* folder = labFolder();
    char* zone = folder ? getenv("TZ") : nullptr;
    const size_t length = folder ? strlen(folder) : 0;
    if (!zone || zone[0] != ':' || strncmp(zone + 1, folder, length) != 0 || strlen(zone + 1 + length) < 3 ||
        strcmp(zone + length + 4, LAB_ZONE_FILE) != 0)
        return;
    struct stat now {};
    if (stat(zone + 1, &now) != 0)
        return;
    const LabLock hold(lock);
    if (now.st_ino != known.st_ino || now.st_mtim.tv_sec != known.st_mtim.tv_sec ||
        now.st_mtim.tv_nsec != known.st_mtim.tv_nsec) {
        known = now;
        char& spelling = zone[length + 2];
        spelling = spelling == '.' ? '/' : '.';
    }
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {

int clock_gettime(clockid_t clock, timespec* now) C_NOEXCEPT
{
    const LabState* state = isWall(clock) ? labState() : nullptr;
    if (!state)
        return machineClock(clock, now);
    *now = asTimespec(wallNow(*state));
    return 0;
}

int gettimeofday(timeval* now, void*) C_NOEXCEPT
{
    timespec wall{};
    const int result = clock_gettime(CLOCK_REALTIME, &wall);
    *now = {wall.tv_sec, wall.tv_nsec / 1000};
    return result;
}

time_t time(time_t* result) C_NOEXCEPT
{
    timespec wall{};
    clock_gettime(CLOCK_REALTIME, &wall);
    if (result)
        *result = wall.tv_sec;
    return wall.tv_sec;
}

void tzset() C_NOEXCEPT
{
    followZoneFile();
    NEXT(tzset)();
}

int clock_nanosleep(clockid_t clock, int flags, const timespec* wanted, timespec* remaining)
{
    const bool absolute = (flags & TIMER_ABSTIME) != 0;
    const bool ours = isValid(*wanted) && (isWall(clock) || (clock == CLOCK_MONOTONIC && !absolute));
    LabState* state = ours ? labState() : nullptr;
    if (!state)
        return NEXT(clock_nanosleep)(clock, flags, wanted, remaining);
    const int64_t until = labNow(*state) + nanoseconds(*wanted) - (absolute ? wallNow(*state) : 0);
    const int result = sleepUntil(*state, until);
    if (result == EINTR && !absolute && remaining)
        *remaining = asTimespec(std::max<int64_t>(until - labNow(*state), 0));
    return result;
}

int nanosleep(const timespec* wanted, timespec* remaining)
{
    const int result = clock_nanosleep(CLOCK_MONOTONIC, 0, wanted, remaining);
    if (result == 0)
        return 0;
    errno = result;
    return -1;
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
