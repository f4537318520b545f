// Worker threads: counted, so that the shutdown can wait for them.
#pragma once

#include <stdint.h>

/// Starts `routine` on a detached thread. The routine must begin with a WorkerScope that adopts it.
/// @return 0, or -1 when the thread cannot be created (the argument stays the caller's). Thread: main. No lock.
[[nodiscard]] int32_t workerStart(void* (*routine)(void*), void* argument);

enum class WorkerEntry {
    Join,  // a thread that the system made, for a timer's expiry
    Adopt, // a thread of workerStart, counted since then
};

/// Counts the calling thread among the workers for the length of a scope.
class WorkerScope {
public:
    explicit WorkerScope(WorkerEntry entry = WorkerEntry::Join);
    ~WorkerScope();
    WorkerScope(const WorkerScope&) = delete;
    WorkerScope& operator=(const WorkerScope&) = delete;

    /// False when the daemon is ending: the thread must touch nothing and return.
    [[nodiscard]] bool entered() const
    {
        return entered_;
    }

private:
    bool entered_;
};

/// True once the daemon asks its workers to end; long work looks at it between its steps. Any thread; no lock.
[[nodiscard]] bool workersStopping();

/// Asks all workers to end and waits for them at most `timeoutMs` milliseconds.
/// @return true when none is left; false when one is still inside a driver: then nothing it uses may be freed.
/// Thread: main. Hold no lock.
[[nodiscard]] bool workersStop(int32_t timeoutMs);
