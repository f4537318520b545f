// Starting and ending the programs of a lab.

#include "lab/lab.h"

#include "files.h"
#include "lab/clock.h"
#include "lab_paths.h"
#include "process.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>

namespace {

using std::chrono::milliseconds;

constexpr const char* PROGRAMS[] = {"ptzd", "cet", "ubusd"}; // in the order in which they are ended
constexpr milliseconds END_TIMEOUT{5000};
constexpr milliseconds PTZD_END_TIMEOUT{10000};

// Of the bus's statuses.
constexpr int NO_SUCH_METHOD = 3;
constexpr int NO_SUCH_OBJECT = 4;

std::string pidFileOf(const std::string& folder, const std::string& program)
{
    return folder + "/pid/" + program;
}

std::string logFileOf(const std::string& folder, const std::string& program)
{
    return folder + "/log/" + program + ".log";
}

uint32_t tiltCalibrations(const LabState& state)
{
    return state.axes[LAB_TILT].served[LAB_SET_POSITION].load();
}

} // namespace

bool LabPrograms::start(const std::string& name, const std::vector<std::string>& command)
{
    if (!base_.state)
        return base_.fail("there is no lab in " + base_.folder());
    if (isRunning(name))
        return base_.fail(name + " of the lab in " + base_.folder() + " runs already");
    ProgramStart start;
    start.command = command;
    start.environment = base_.environment();
    start.logFile = logFileOf(base_.folder(), name);
    start.pidFile = pidFileOf(base_.folder(), name);
    start.endWithParent = !base_.options.outlive;
    std::string reason;
    const pid_t pid = startProcess(start, reason);
    if (pid == 0)
        return base_.fail(reason);
    children_[name] = pid;
    return true;
}

bool LabPrograms::awaitAnswer(const std::string& name, const std::function<bool()>& answers)
{
    bool answered = false;
    const auto look = [&] {
        answered = answers();
        return answered || !isRunning(name);
    };
    waitUntil(look, base_.options.startTimeout);
    return answered || base_.fail(name + " does not answer:\n" + tailOf(readFile(logFileOf(base_.folder(), name)), 10));
}

/// Sends a signal, unless it is 0, and waits for the program's end; its wait status, or nothing when it goes on.
std::optional<int> LabPrograms::end(const std::string& name, int signal, milliseconds timeout)
{
    const std::string pidFile = pidFileOf(base_.folder(), name);
    const pid_t living = livingProcess(pidFile, base_.folder());
    const auto child = children_.find(name);
    const pid_t ours = child == children_.end() ? 0 : child->second;
    std::optional<int> status = 0;
    // Ours may have ended long ago, and another command may have started the one that runs now.
    for (const pid_t pid : {ours, living == ours ? 0 : living}) {
        if (pid == 0)
            continue;
        if (signal != 0)
            sendSignal(pid, signal);
        status = awaitEnd(pid, base_.folder(), timeout);
        if (!status)
            return std::nullopt;
    }
    children_.erase(name);
    unlink(pidFile.c_str());
    return status;
}

bool LabPrograms::stop(const std::string& name)
{
    return end(name, SIGTERM, END_TIMEOUT) || end(name, SIGKILL, END_TIMEOUT) ||
           base_.fail(name + " of the lab in " + base_.folder() + " does not end");
}

bool LabPrograms::stopAll()
{
    if (!std::all_of(std::begin(PROGRAMS), std::end(PROGRAMS), [this](const char* program) { return stop(program); }))
        return false;
    unlink(base_.busSocket().c_str()); // a bus that was killed leaves it behind
    return true;
}

pid_t LabPrograms::pidOf(const std::string& name) const
{
    return livingProcess(pidFileOf(base_.folder(), name), base_.folder());
}

bool LabPrograms::isRunning(const std::string& program) const
{
    return pidOf(program) != 0;
}

bool LabPrograms::startBus()
{
    return start("ubusd", {LAB_UBUSD, "-s", LAB_BUS_SOCKET}) &&
           awaitAnswer("ubusd", [this] { return base_.invoke("none", "none").status == NO_SUCH_OBJECT; });
}

bool LabPrograms::stopBus()
{
    return stop("ubusd");
}

bool LabPrograms::startCet()
{
    if (!start("cet", {LAB_CET}))
        return false;
    if (!isRunning("ubusd"))
        return true; // it registers once there is a bus
    return awaitAnswer("cet", [this] { return base_.invoke("CET", "none").status == NO_SUCH_METHOD; });
}

bool LabPrograms::stopCet()
{
    return stop("cet");
}

bool LabPrograms::startPtzd()
{
    const std::string program = base_.options.ptzd.empty() ? LAB_PTZD : base_.options.ptzd;
    if (program.empty())
        return base_.fail("no daemon was built with this lab; name one");
    if (base_.state)
        tiltCalibrationsBefore_ = tiltCalibrations(*base_.state);
    if (!start("ptzd", {program}))
        return false;
    return !base_.options.waitCalibrated || waitReady(calibrationTime() + base_.options.startTimeout);
}

std::optional<int> LabPrograms::killPtzd(int signal)
{
    return isRunning("ptzd") || children_.contains("ptzd") ? end("ptzd", signal, PTZD_END_TIMEOUT) : std::nullopt;
}

std::optional<int> LabPrograms::waitPtzd(milliseconds timeout)
{
    return isRunning("ptzd") || children_.contains("ptzd") ? end("ptzd", 0, timeout) : std::nullopt;
}

pid_t LabPrograms::ptzdPid() const
{
    return pidOf("ptzd");
}

bool LabPrograms::isReady()
{
    // A daemon that has only just started may not have marked its calibration yet, so see the tilt's begin first.
    return base_.state && tiltCalibrations(*base_.state) != tiltCalibrationsBefore_ &&
           base_.call("checkMotorStatus") == R"({"err_code":0})";
}

bool LabPrograms::waitReady(milliseconds timeout)
{
    const auto tail = [this] { return tailOf(readFile(logFileOf(base_.folder(), "ptzd")), 15); };
    // Decided by one look: a daemon that seemed to have ended and is there in the next look is not ready for that.
    bool ready = false;
    bool ended = false;
    const auto look = [&] {
        ready = isReady();
        ended = !ready && !isRunning("ptzd");
        return ready || ended;
    };
    waitUntil(look, timeout);
    if (ended)
        return base_.fail("the daemon has ended; its log ends with:\n" + tail());
    return ready ||
           base_.fail("the daemon is not calibrated after " + std::to_string(timeout.count() / 1000) +
                      " s (checkMotorStatus: " + base_.call("checkMotorStatus") + "); its log ends with:\n" + tail());
}

milliseconds LabPrograms::calibrationTime() const
{
    int64_t labMs = 0;
    for (const LabAxisRecord& record : base_.state->axes) {
        const LabAxis& axis = record.slots[record.current.load() & 1];
        labMs += 3 * int64_t{axis.totalSteps} * 1000 / std::max<int64_t>(int64_t{axis.maxSpeed} * axis.factor, 1);
    }
    return milliseconds(labMs * CLOCK_SPEED_ONE / readClock(*base_.state).speedMilli);
}
