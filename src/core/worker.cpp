#include "core/worker.h"

#include "core/timer.h"

#include <pthread.h>
#include <time.h>

#include <atomic>

namespace {

constinit std::atomic<int32_t> workerCount{0};
constinit std::atomic<bool> stopping{false};

} // namespace

int32_t workerStart(void* (*routine)(void*), void* argument)
{
    // Counted here, not on the new thread: the shutdown must not overlook one that has not run yet.
    workerCount.fetch_add(1);
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, routine, argument) != 0) {
        workerCount.fetch_sub(1);
        return -1;
    }
    pthread_detach(thread);
    return 0;
}

WorkerScope::WorkerScope(WorkerEntry entry) : entered_(true)
{
    if (entry == WorkerEntry::Join)
        workerCount.fetch_add(1);
    // Counted first, looked second: either workersStop waits for this thread, or the thread sees that it stops.
    entered_ = !stopping.load();
}

WorkerScope::~WorkerScope()
{
    workerCount.fetch_sub(1);
}

bool workersStopping()
{
    return stopping.load();
}

bool workersStop(int32_t timeoutMs)
{
    stopping.store(true);
    const int64_t deadline = monotonicMs() + timeoutMs;
    while (workerCount.load() != 0) {
        if (monotonicMs() >= deadline)
            return false;
        const timespec pause{0, 2 * NS_PER_MS};
        nanosleep(&pause, nullptr);
    }
    return true;
}
