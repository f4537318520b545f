// What stands around the motor code in its unit tests: timers that record how they are armed, notifications that are
// only counted, reports that are kept, a configuration store in memory, and workers that run when the test says so.
#pragma once

#include "core/context.h"
#include "ubus/bus_door.h"

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

struct FakeReply {
    std::string field;
    int32_t code;

    bool operator==(const FakeReply&) const = default;
};

struct FakeSurroundings {
    std::map<const DaemonTimer*, FakeTimer> timers;
    std::vector<FakeNotification> notifications;
    std::function<void()> duringNotification;
    std::function<void()> beforeTimerStart;
    std::function<void()> beforeTimerStop;
    std::function<void()> afterTimerStart;
    std::vector<FakeReport> reports;            // level 5 only
    std::map<std::string, std::string> options; // "section.option" of package ptzd or others
    bool settingFails = false;
    bool commitFails = false;
    int commits = 0;
    std::vector<int32_t> reloads; // packages
    int transactions = 0;         // open now
    std::vector<FakeReply> replies;
    std::function<void()> onSleep; // runs in place of a sleep
    int sleeps = 0;
    bool threadCreationFails = false;
    void* (*worker)(void*) = nullptr; // started and not run yet
    void* workerArgument = nullptr;
    bool stopping = false;

    [[nodiscard]] bool armed(const DaemonTimer& timer)
    {
        return timers[&timer].firstNs != 0;
    }
    /// What a handler answers to a call with these arguments, all of them texts.
    int32_t call(UbusHandler* handler, const std::map<std::string, std::string>& arguments = {});
    /// Runs the worker that was started.
    void runWorker()
    {
        worker(workerArgument);
        worker = nullptr;
    }
};

extern FakeSurroundings fakes;

/// A daemon at rest with nothing armed, nothing reported, healthy motors and an empty store.
void resetDaemon();
