#include "lab/lab.h"

#include "bus_call.h"
#include "files.h"
#include "lab/clock.h"
#include "lab_paths.h"
#include "process.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sstream>

namespace {

using std::chrono::milliseconds;

constexpr const char* PROGRAMS[] = {"ptzd", "cet", "ubusd"}; // in the order in which they are ended
constexpr milliseconds END_PATIENCE{5000};

std::string freshFolder()
{
    const char* parent = getenv("TMPDIR");
    std::string name = std::string(parent && *parent ? parent : "/tmp") + "/ptzd-lab-XXXXXX";
    return mkdtemp(name.data()) ? name : "";
}

/// An absolute path without symbolic links, as far as the path exists.
std::string absolutePath(const std::string& path)
{
    std::error_code problem;
    const auto absolute = std::filesystem::weakly_canonical(std::filesystem::absolute(path, problem), problem);
    std::string text = problem ? path : absolute.string();
    while (text.size() > 1 && text.back() == '/')
        text.pop_back();
    return text;
}

/// Where a path of the camera lies in the lab; the preloaded library maps the same way.
std::string inLab(const std::string& folder, const std::string& path)
{
    return folder + (path.starts_with("/run/") ? "/var" : "") + path;
}

std::string pidFileOf(const std::string& folder, const std::string& program)
{
    return folder + "/pid/" + program;
}

} // namespace

Lab::Lab(const std::string& folder)
    : folder_(folder.empty() ? freshFolder() : absolutePath(folder)), temporary_(folder.empty())
{
}

Lab::~Lab()
{
    if (!options_.outlive && !children_.empty())
        down();
    if (state_)
        munmap(state_, sizeof(LabState));
    std::error_code ignored;
    if (temporary_ && !folder_.empty() && !getenv("PTZD_LAB_KEEP"))
        std::filesystem::remove_all(folder_, ignored);
}

bool Lab::fail(const std::string& reason)
{
    error_ = reason;
    return false;
}

bool Lab::up(const LabOptions& options)
{
    if (folder_.empty())
        return fail("cannot create a temporary folder");
    if (!endAll() || !prepare(options))
        return false;
    if (options_.startBus && !startBus())
        return false;
    if (options_.startCet && !startCet())
        return false;
    return !options_.startPtzd || startPtzd();
}

bool Lab::attach()
{
    if (state_)
        munmap(state_, sizeof(LabState));
    state_ = mapLabState(folder_.c_str());
    if (!state_) {
        if (errno == EPROTO)
            return fail("the lab in " + folder_ + " is of another version; start it anew");
        return fail("there is no lab in " + folder_);
    }
    options_ = LabOptions{};
    options_.outlive = true;
    std::istringstream start(readFile(folder_ + "/start"));
    std::getline(start, options_.ptzd);
    for (std::string line; std::getline(start, line);)
        options_.environment.push_back(line);
    return true;
}

bool Lab::down()
{
    return endAll();
}

bool Lab::endAll()
{
    for (const char* program : PROGRAMS) {
        if (!endInAnyCase(program))
            return false;
    }
    unlink(inLab(folder_, LAB_BUS_SOCKET).c_str()); // a bus that was killed leaves it behind
    return true;
}

bool Lab::endInAnyCase(const std::string& name)
{
    return endProgram(name, SIGTERM, END_PATIENCE) || endProgram(name, SIGKILL, END_PATIENCE) ||
           fail(name + " of the lab in " + folder_ + " does not end");
}

std::optional<int> Lab::endProgram(const std::string& name, int signal, milliseconds patience)
{
    const std::string pidFile = pidFileOf(folder_, name);
    const pid_t living = livingProcess(pidFile, folder_);
    const auto child = children_.find(name);
    const pid_t ours = child == children_.end() ? 0 : child->second;
    std::optional<int> status = 0;
    // Ours may have ended long ago, and another command may have started the one that runs now.
    for (const pid_t pid : {ours, living == ours ? 0 : living}) {
        if (pid == 0)
            continue;
        if (signal != 0)
            sendSignal(pid, signal);
        status = awaitEnd(pid, folder_, patience);
        if (!status)
            return std::nullopt;
    }
    children_.erase(name);
    unlink(pidFile.c_str());
    return status;
}

std::vector<std::string> Lab::environment() const
{
    std::vector<std::string> result;
    const auto set = [&result](const std::string& variable) {
        const std::string name = variable.substr(0, variable.find('=') + 1);
        std::erase_if(result, [&name](const std::string& other) { return other.starts_with(name); });
        result.push_back(variable);
    };
    for (char** variable = environ; *variable; ++variable)
        result.emplace_back(*variable);
    set("PTZD_LAB=" + folder_);
    set("MSGLOG_FILE=" + folder_ + "/log/msglog");
    if (!getenv("TZ"))
        set("TZ=:" + folder_ + "/./" + LAB_ZONE_FILE); // the preloaded library respells it when the file changes
    // The loader splits LD_PRELOAD at blanks, but takes a bare name from LD_LIBRARY_PATH, which it splits at colons
    // only.
    const std::filesystem::path library = LAB_PRELOAD;
    const bool blanks = library.string().find(' ') != std::string::npos;
    const char* others = getenv("LD_PRELOAD");
    const char* folders = getenv("LD_LIBRARY_PATH");
    set("LD_PRELOAD=" + (blanks ? library.filename() : library).string() + (others ? std::string(":") + others : ""));
    if (blanks)
        set("LD_LIBRARY_PATH=" + library.parent_path().string() + (folders ? std::string(":") + folders : ""));
    for (const std::string& variable : options_.environment)
        set(variable);
    return result;
}

bool Lab::startProgram(const std::string& name, const std::vector<std::string>& command)
{
    if (!state_)
        return fail("there is no lab in " + folder_);
    if (isRunning(name))
        return fail(name + " of the lab in " + folder_ + " runs already");
    ProgramStart start;
    start.command = command;
    start.environment = environment();
    start.logFile = folder_ + "/log/" + name + ".log";
    start.pidFile = pidFileOf(folder_, name);
    start.endWithParent = !options_.outlive;
    std::string reason;
    const pid_t pid = startProcess(start, reason);
    if (pid == 0)
        return fail(reason);
    children_[name] = pid;
    return true;
}

bool Lab::isRunning(const std::string& program) const
{
    return livingProcess(pidFileOf(folder_, program), folder_) != 0;
}

bool Lab::startBus()
{
    const std::string socket = inLab(folder_, LAB_BUS_SOCKET);
    if (!startProgram("ubusd", {LAB_UBUSD, "-s", LAB_BUS_SOCKET}))
        return false;
    const auto done = [&] { return busAnswers(socket) || !isRunning("ubusd"); };
    if (waitUntil(done, options_.patience) && busAnswers(socket))
        return true;
    return fail("the bus does not answer:\n" + tailOf(readFile(folder_ + "/log/ubusd.log"), 10));
}

bool Lab::stopBus()
{
    return endInAnyCase("ubusd");
}

bool Lab::startCet()
{
    if (!startProgram("cet", {LAB_CET}))
        return false;
    if (!isRunning("ubusd"))
        return true; // it registers once there is a bus
    bool listed = false;
    const auto look = [&] {
        listed = invoke("CET", "none").status == 3; // no such method: it is there
        return listed || !isRunning("cet");
    };
    if (waitUntil(look, options_.patience) && listed)
        return true;
    return fail("CET does not answer:\n" + tailOf(readFile(folder_ + "/log/cet.log"), 10));
}

bool Lab::stopCet()
{
    return endInAnyCase("cet");
}

bool Lab::startPtzd()
{
    const std::string program = options_.ptzd.empty() ? LAB_PTZD : options_.ptzd;
    if (program.empty())
        return fail("no daemon was built with this lab; name one");
    if (state_)
        tiltCalibrationsBefore_ = served(LAB_TILT, LAB_SET_POSITION);
    if (!startProgram("ptzd", {program}))
        return false;
    return !options_.waitCalibrated || waitReady(calibrationTime() + options_.patience);
}

std::optional<int> Lab::killPtzd(int signal)
{
    return isRunning("ptzd") || children_.contains("ptzd") ? endProgram("ptzd", signal, milliseconds(10000))
                                                           : std::nullopt;
}

std::optional<int> Lab::waitPtzd(milliseconds timeout)
{
    return isRunning("ptzd") || children_.contains("ptzd") ? endProgram("ptzd", 0, timeout) : std::nullopt;
}

pid_t Lab::ptzdPid() const
{
    return livingProcess(pidFileOf(folder_, "ptzd"), folder_);
}

bool Lab::isReady()
{
    // A daemon that has only just started may not have marked its calibration yet, so see the tilt's begin first.
    return state_ && served(LAB_TILT, LAB_SET_POSITION) != tiltCalibrationsBefore_ &&
           call("checkMotorStatus") == R"({"err_code":0})";
}

bool Lab::waitReady(milliseconds timeout)
{
    const auto tail = [this] { return tailOf(ptzdLog(), 15); };
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
        return fail("the daemon has ended; its log ends with:\n" + tail());
    return ready || fail("the daemon is not calibrated after " + std::to_string(timeout.count() / 1000) +
                         " s (checkMotorStatus: " + call("checkMotorStatus") + "); its log ends with:\n" + tail());
}

milliseconds Lab::calibrationTime() const
{
    int64_t ms = 0;
    for (const LabAxisRecord& record : state_->axes) {
        const LabAxis& axis = record.slots[record.current.load() & 1];
        ms += 3 * int64_t{axis.totalSteps} * 1000 / std::max<int64_t>(int64_t{axis.maxSpeed} * axis.factor, 1);
    }
    return milliseconds(static_cast<int64_t>(static_cast<double>(ms) / speed()));
}

LabReply Lab::invoke(const std::string& object, const std::string& method, const std::string& json,
                     milliseconds timeout) const
{
    return callOnBus(inLab(folder_, LAB_BUS_SOCKET), object, method, json, timeout);
}

std::string Lab::call(const std::string& method, const std::string& json) const
{
    const LabReply reply = invoke("ptzd", method, json);
    return reply.status == 0 ? reply.text : "status " + std::to_string(reply.status);
}

int Lab::run(const std::vector<std::string>& command, std::string& output)
{
    return runCommand(labCommand(command), environment(), output);
}

std::optional<std::string> Lab::uciGet(const std::string& tuple)
{
    std::string value;
    if (run({"uci", "-q", "get", tuple}, value) != 0)
        return std::nullopt;
    if (!value.empty() && value.back() == '\n')
        value.pop_back();
    return value;
}

bool Lab::uciSet(const std::string& tuple, const std::string& value)
{
    std::string ignored;
    if (run({"uci", "set", tuple + "=" + value}, ignored) != 0 ||
        run({"uci", "commit", tuple.substr(0, tuple.find('.'))}, ignored) != 0)
        return fail("uci cannot set " + tuple);
    return true;
}
