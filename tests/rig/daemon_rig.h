// The daemon in one process, without threads, clock, devices or bus: motors, timers, workers, notifications and the log
// are fakes, the configuration store is the real one in a folder in memory. The motors are two drivers behind open(2)
// and ioctl(2), so that the daemon's own adapter is tested too. Unit tests and fuzzers share it.
#pragma once

#include "core/motion.h"
#include "core/timer.h"
#include "motor/motor_device.h"
#include "rig/files.h"

#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

struct FakeRequest {
    AxisIndex axis;
    unsigned long number;
    int32_t speed; // words of a MotorCommand; 0 for requests without one
    int32_t steps;
};

struct FakeMotor {
    MotorStatus status[AXIS_COUNT]{};
    MotorCapability capability[AXIS_COUNT]{};
    std::vector<FakeRequest> requests;
    std::map<std::pair<AxisIndex, unsigned long>, bool> failing;
    std::function<void(const FakeRequest&)> onRequest; // runs before the request is answered

    void fail(AxisIndex axis, unsigned long number)
    {
        failing[{axis, number}] = true;
    }
    /// The requests of one kind, in order.
    [[nodiscard]] std::vector<FakeRequest> sent(unsigned long number) const;
};

extern FakeMotor fakeMotor;

using FakeTimer = std::pair<int64_t, int64_t>;          // first expiry, 0 while not armed, and interval in ns
using FakeNotification = std::pair<int32_t, int32_t>;   // state, origin
using FakeReport = std::pair<std::string, std::string>; // function, text

struct Fakes {
    std::map<const DaemonTimer*, FakeTimer> timers;
    std::function<void()> beforeTimerStart;
    std::function<void()> afterTimerStart;
    std::vector<FakeNotification> notifications;
    std::function<void()> onNotification;
    std::vector<std::string> motions;          // to subscribers, as JSON
    std::vector<FakeReport> reports;           // errors only
    std::deque<std::function<void()>> workers; // started and not run yet
    bool workersFail = false;
    int turnsLeft = 1'000'000; // sleeps and questions after which a worker is asked to end
    int sleeps = 0;
    std::function<void()> onSleep; // runs in place of a sleep
    time_t now = 0;                // the wall clock, and how far each look at it takes it on
    time_t timeStride = 0;
    std::function<void()> loop;      // runs once in place of the event loop
    int failingChange = 0;           // the n-th change of the store from now on fails
    bool commitLosesPackage = false; // a commit fails and unloads its package
    std::string reply;               // of the last call, as compact JSON; two answers to one call show
    int replies = 0;
    std::optional<int32_t> code; // of the last reply

    [[nodiscard]] bool armed(const DaemonTimer& timer)
    {
        return timers[&timer].first != 0;
    }
    /// Runs the worker that was started first.
    void runWorker();
};

extern Fakes fakes;

/// Packages by name with the text of their files.
using Settings = std::map<std::string, std::string>;

namespace rig {

/// A section of a package's file.
[[nodiscard]] std::string section(const std::string& type, const std::string& name,
                                  const std::vector<std::pair<std::string, std::string>>& options);

/// Puts packages into the store; those left out become what the daemon is delivered with.
void provide(const Settings& settings);

/// A package's file as it is stored, and its replacement by others.
[[nodiscard]] std::string stored(const std::string& package);
void store(const std::string& package, const std::string& text);

/// From now on nothing can be written, until settings are provided again.
void spoilStore();

/// A daemon at rest that has loaded nothing, with nothing armed, nothing reported and healthy motors: pan 300 units in
/// 3000 steps, tilt 122 units in 1220 steps, max_speed 8, both in the middle, at rest.
void reset();

/// Starts the daemon on settings, runs `inside` in the place of its event loop, and ends it.
/// @return what PtzdInit returned; -1 also when it never got to the loop.
int32_t run(const Settings& settings, const std::function<void()>& inside);

/// Calls a method with a message's attributes or a JSON object, and checks that it answers exactly once, with a whole
/// blobmsg. The reply is in `fakes` then.
/// @return its code; 0 for a reply without one.
int32_t call(const std::string& method, Bytes attributes);
int32_t call(const std::string& method, const std::string& json = "{}");
[[nodiscard]] unsigned methodCount();
[[nodiscard]] std::string methodName(unsigned method);

/// The attributes of a JSON object. Empty, without a value, when the text is none.
[[nodiscard]] std::optional<std::vector<uint8_t>> messageOf(const std::string& json);

/// The daemon's four timers.
[[nodiscard]] DaemonTimer& timerAt(unsigned index);

} // namespace rig
