// Commands that start, end and show the programs of a lab.

#include "commands.h"

#include "lab/clock.h"
#include "lab_paths.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

bool allRun(const Lab& lab)
{
    return lab.programs.isRunning("ubusd") && lab.programs.isRunning("cet") && lab.programs.isRunning("ptzd");
}

std::string faultText(const LabFaults& faults)
{
    std::string text;
    for (uint32_t request = 0; request < LAB_REQUEST_COUNT; ++request) {
        const LabFault& fault = faults.requests[request];
        const std::string name = LAB_REQUEST_NAMES[request];
        if (fault.failures != 0)
            text += ", " + name + " fails " +
                    (fault.failures < 0 ? "for ever" : std::to_string(fault.failures) + " more times") + " (" +
                    strerror(fault.error) + ")";
        if (fault.delayMs != 0)
            text += ", " + name + " answers " + std::to_string(fault.delayMs) + " ms late";
    }
    if (faults.stuckRunning)
        text += ", reports running for ever";
    if (faults.capaReplaced)
        text += ", reports range " + std::to_string(faults.capability[0]) + ", max_speed " +
                std::to_string(faults.capability[1]) + ", total_steps " + std::to_string(faults.capability[2]);
    return text.empty() ? "" : text.substr(2);
}

std::string ptzdState(Lab& lab)
{
    const std::string reply = lab.call("checkMotorStatus");
    if (reply == R"({"err_code":0})")
        return "calibrated";
    return reply.starts_with("status") ? "does not answer" : "calibrating";
}

const char* cetText(Lab& lab)
{
    switch (lab.cet.answer()) {
    case CET_OK:
        return "answers";
    case CET_LATE:
        return "answers late";
    case CET_WRONG:
        return "answers err_code 5";
    case CET_NO_CODE:
        return "answers without err_code";
    case CET_SILENT:
        return "never answers";
    }
    return "";
}

/// One program of the lab that a command stops, starts or starts anew.
struct Switch {
    bool (LabPrograms::*start)();
    bool (LabPrograms::*stop)();
};

int throwSwitch(Lab& lab, const Switch& program, const std::string& action)
{
    if (action != "start" && !(lab.programs.*program.stop)())
        return failed(lab.error());
    if (action != "stop" && !(lab.programs.*program.start)())
        return failed(lab.error());
    return 0;
}

} // namespace

void printAxis(Lab& lab, LabAxisId axis)
{
    const LabAxisSetting setting = lab.motors.setting(axis);
    const LabAxisNow now = lab.motors.now(axis);
    printf("%-5s at %d (step %d of %d, shaft at %d), %s, speed %d of %d\n", axisName(axis),
           coordinateOf(setting, now.count), now.count, setting.total_steps, now.shaft, now.running ? "turns" : "rests",
           now.speed, setting.max_speed);
    const std::string faults = faultText(lab.motors.faults(axis));
    if (!faults.empty())
        printf("      faults: %s\n", faults.c_str());
    if (!lab.motors.hasNode(axis))
        printf("      /dev/%s is missing\n", axis == LAB_PAN ? "x-motor" : "y-motor");
}

int upCommand(const Command& self, Arguments arguments)
{
    LabOptions options;
    std::string problem;
    if (!takeStartOptions(arguments, options, problem))
        return wrongUse(self, problem);
    options.outlive = true;
    const std::string folder = arguments.empty() ? "" : " " + arguments[0];
    Lab lab(labFolderFor(arguments, 0));
    const WorkLock lock(lab.folder());
    if (!lock.held())
        return 1;
    if (allRun(lab) && lab.attach() && lab.programs.isReady()) {
        printf("a head is up in %s already\n", lab.folder().c_str());
        return 0;
    }
    if (!lab.up(options))
        return failed(lab.error() + "\nwhat was started goes on; " + typed("lab down") + folder + " ends it");
    printf("a head is up in %s\n", lab.folder().c_str());
    return 0;
}

int downCommand(const Command& self, Arguments arguments)
{
    if (arguments.size() > 1)
        return wrongUse(self, "more than one folder");
    Lab lab(labFolderFor(arguments, 0));
    if (!attached(lab))
        return 1;
    const WorkLock lock(lab.folder());
    if (!lock.held())
        return 1;
    const bool anything =
        lab.programs.isRunning("ubusd") || lab.programs.isRunning("cet") || lab.programs.isRunning("ptzd");
    if (!lab.down())
        return failed(lab.error());
    printf(anything ? "the head in %s is down\n" : "no head is up in %s\n", lab.folder().c_str());
    return 0;
}

int statusCommand(const Command& self, Arguments arguments)
{
    if (arguments.size() > 1)
        return wrongUse(self, "more than one folder");
    Lab lab(labFolderFor(arguments, 0));
    if (!attached(lab))
        return 1;
    printf("lab   %s\n", lab.folder().c_str());
    printf("time  %s, speed %g\n", lab.clock.wall().c_str(), lab.clock.speed());
    printf("bus   %s\n", lab.programs.isRunning("ubusd") ? "runs" : "does not run");
    printf("CET   %s\n", lab.programs.isRunning("cet") ? cetText(lab) : "does not run");
    printf("ptzd  %s\n", lab.programs.isRunning("ptzd") ? ptzdState(lab).c_str() : "does not run");
    printAxis(lab, LAB_PAN);
    printAxis(lab, LAB_TILT);
    return allRun(lab) ? 0 : 1;
}

int ptzdCommand(const Command& self, Arguments arguments)
{
    const std::string action = arguments.empty() ? "" : arguments[0];
    if (arguments.size() > 1)
        return wrongUse(self, "too many arguments");
    if (action != "" && action != "kill" && action != "stop" && action != "start" && action != "restart" &&
        action != "log")
        return wrongUse(self, "there is no action " + action);
    Lab lab(labFolderFor({}, 0));
    if (!attached(lab))
        return 1;
    if (action == "log") {
        fputs(lab.records.ptzdLog().c_str(), stdout);
        return 0;
    }
    if (action == "") {
        printf("ptzd  %s\n", lab.programs.isRunning("ptzd") ? ptzdState(lab).c_str() : "does not run");
        return 0;
    }
    const WorkLock lock(lab.folder());
    if (!lock.held())
        return 1;
    const bool runs = lab.programs.isRunning("ptzd");
    if (!runs && (action == "kill" || action == "stop"))
        return failed("ptzd does not run in " + lab.folder());
    if (runs && action != "start" && !lab.programs.killPtzd(action == "kill" ? SIGKILL : SIGTERM))
        return failed("ptzd does not end");
    if ((action == "start" || action == "restart") && !lab.programs.startPtzd())
        return failed(lab.error());
    return 0;
}

int busCommand(const Command& self, Arguments arguments)
{
    const std::string action = arguments.empty() ? "" : arguments[0];
    if (arguments.size() > 1)
        return wrongUse(self, "too many arguments");
    if (action != "" && action != "stop" && action != "start" && action != "restart")
        return wrongUse(self, "there is no action " + action);
    Lab lab(labFolderFor({}, 0));
    if (!attached(lab))
        return 1;
    if (action == "") {
        printf("bus   %s\n", lab.programs.isRunning("ubusd") ? "runs" : "does not run");
        return 0;
    }
    const WorkLock lock(lab.folder());
    return lock.held() ? throwSwitch(lab, {&LabPrograms::startBus, &LabPrograms::stopBus}, action) : 1;
}

int cetCommand(const Command& self, Arguments arguments)
{
    const std::string action = arguments.empty() ? "" : arguments[0];
    int64_t delayMs = 0;
    if (arguments.size() > (action == "late" ? 2u : 1u))
        return wrongUse(self, "too many arguments");
    if (action == "late" && (arguments.size() < 2 || !parseNumber(arguments[1], 0, 3'600'000, delayMs)))
        return wrongUse(self, "late needs a time in ms");
    constexpr const char* MODES[] = {"ok", "late", "wrong", "nocode", "silent"}; // as LabCetMode
    int32_t mode = 0;
    while (mode < static_cast<int32_t>(std::size(MODES)) && action != MODES[mode])
        ++mode;
    const bool isMode = mode < static_cast<int32_t>(std::size(MODES));
    if (!isMode && action != "" && action != "stop" && action != "start")
        return wrongUse(self, "there is no answer or action " + action);
    Lab lab(labFolderFor({}, 0));
    if (!attached(lab))
        return 1;
    if (action == "") {
        printf("CET   %s\n", lab.programs.isRunning("cet") ? cetText(lab) : "does not run");
        return 0;
    }
    if (isMode) {
        lab.cet.setAnswer(static_cast<LabCetMode>(mode), static_cast<int32_t>(delayMs));
        return 0;
    }
    const WorkLock lock(lab.folder());
    return lock.held() ? throwSwitch(lab, {&LabPrograms::startCet, &LabPrograms::stopCet}, action) : 1;
}

int execCommand(const Command& self, Arguments arguments)
{
    if (!arguments.empty() && arguments[0] == "--")
        arguments.erase(arguments.begin());
    if (arguments.empty())
        return wrongUse(self, "which command?");
    Lab lab(labFolderFor({}, 0));
    if (!attached(lab))
        return 1;
    arguments = labCommand(arguments);
    std::vector<std::string> environment = lab.environment();
    std::vector<char*> command;
    std::vector<char*> variables;
    for (std::string& text : arguments)
        command.push_back(text.data());
    for (std::string& text : environment)
        variables.push_back(text.data());
    command.push_back(nullptr);
    variables.push_back(nullptr);
    execvpe(command[0], command.data(), variables.data());
    failed(arguments[0] + ": " + strerror(errno));
    return errno == ENOENT ? 127 : 126;
}
