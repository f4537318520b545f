// What stands around the daemon's modules in their unit tests: timers that record how they are armed, notifications
// that are only counted, reports that are kept, and workers that run when the test says so.
#pragma once

#include "core/motion.h"
#include "core/timer.h"

#include <functional>
#include <map>
#include <string>
#include <vector>

struct FakeTimer {
    int64_t firstNs = 0; // 0 while not armed
    int64_t intervalNs = 0;
};

struct FakeNotification {
    int32_t state;
    int32_t origin;

    bool operator==(const FakeNotification&) const = default;
};

struct FakeReport {
    std::string function;
    std::string text;

    bool operator==(const FakeReport&) const = default;
};

struct FakeSurroundings {
    std::map<const DaemonTimer*, FakeTimer> timers;
    std::vector<FakeNotification> notifications;
    std::function<void()> beforeTimerStart;
    std::function<void()> beforeTimerStop;
    std::function<void()> afterTimerStart;
    std::vector<FakeReport> reports; // level 5 only
    std::function<void()> onSleep;   // runs in place of a sleep
    int sleeps = 0;
    bool threadCreationFails = false;
    void* (*worker)(void*) = nullptr; // started and not run yet
    void* workerArgument = nullptr;
    bool stopping = false;

    [[nodiscard]] bool armed(const DaemonTimer& timer)
    {
        return timers[&timer].firstNs != 0;
    }
    /// Runs the worker that was started.
    void runWorker()
    {
        worker(workerArgument);
        worker = nullptr;
    }
};

extern FakeSurroundings fakes;

/// A daemon at rest with nothing armed, nothing reported and healthy motors.
void resetDaemon();
