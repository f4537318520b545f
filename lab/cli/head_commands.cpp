// Commands that start, end and show the programs of a lab.

#include "commands.h"

#include "lab/core/process.h"
#include "lab_paths.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr const char* PROGRAMS[] = {"ubusd", "cet", "ptzd"};

auto runningPrograms(const Lab& lab)
{
    return std::count_if(std::begin(PROGRAMS), std::end(PROGRAMS),
                         [&](const char* name) { return lab.programs.isRunning(name); });
}

bool allRun(const Lab& lab)
{
    return runningPrograms(lab) == std::ssize(PROGRAMS);
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

/// What `cet` takes and shows, in the order of LabCetMode.
constexpr struct {
    const char* word;
    const char* text;
} CET_MODES[] = {{"ok", "answers"},
                 {"late", "answers late"},
                 {"wrong", "answers err_code 5"},
                 {"nocode", "answers without err_code"},
                 {"silent", "never answers"}};

/// An action of one word, or none.
std::string actionIn(const Arguments& arguments, std::initializer_list<const char*> actions, std::string& problem)
{
    const std::string action = arguments.empty() ? "" : arguments[0];
    if (arguments.size() > 1)
        problem = "too many arguments";
    else if (action != "" && std::find(actions.begin(), actions.end(), action) == actions.end())
        problem = "there is no action " + action;
    return action;
}

/// The order to look at a program, or to stop, start or restart it.
Order switchOrder(const std::string& action, bool (LabPrograms::*start)(), bool (LabPrograms::*stop)(),
                  void (*print)(Lab&))
{
    if (action == "")
        return toDo(print);
    return toDoAlone([=](Lab& lab) {
        return (action == "start" || (lab.programs.*stop)()) && (action == "stop" || (lab.programs.*start)());
    });
}

void printBus(Lab& lab)
{
    printf("bus   %s\n", lab.programs.isRunning("ubusd") ? "runs" : "does not run");
}

void printCet(Lab& lab)
{
    printf("CET   %s\n", lab.programs.isRunning("cet") ? CET_MODES[lab.cet.answer()].text : "does not run");
}

void printPtzd(Lab& lab)
{
    const std::string reply = lab.programs.isRunning("ptzd") ? lab.call("checkMotorStatus") : "";
    printf("ptzd  %s\n", reply.empty()                  ? "does not run"
                         : reply == R"({"err_code":0})" ? "calibrated"
                         : reply.starts_with("status")  ? "does not answer"
                                                        : "calibrating");
}

/// The order for the folder that is its only argument, if any.
Order inFolder(const Arguments& arguments, Order order)
{
    if (arguments.size() > 1)
        order.problem = "more than one folder";
    else if (!arguments.empty())
        order.folder = arguments[0];
    return order;
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

Order upOrder(Arguments arguments)
{
    LabOptions options;
    Order order = startOrder(arguments, options);
    options.outlive = true;
    order.locks = true;
    order.carryOut = [options, named = order.folder](Lab& lab) {
        const bool already = allRun(lab) && lab.attach() && lab.programs.isReady();
        if (!already && !lab.up(options))
            return failed(lab.error() + "\nwhat was started goes on; " + typed("lab down") +
                          (named.empty() ? "" : " " + named) + " ends it");
        printf("a head is up in %s%s\n", lab.folder().c_str(), already ? " already" : "");
        return 0;
    };
    return order;
}

Order downOrder(Arguments arguments)
{
    return inFolder(arguments, toDoAlone([](Lab& lab) {
                        const bool anything = runningPrograms(lab) > 0;
                        if (!lab.down())
                            return false;
                        printf(anything ? "the head in %s is down\n" : "no head is up in %s\n", lab.folder().c_str());
                        return true;
                    }));
}

Order statusOrder(Arguments arguments)
{
    return inFolder(arguments, toDo([](Lab& lab) {
                        printf("lab   %s\n", lab.folder().c_str());
                        printf("time  %s, speed %g\n", lab.clock.wall().c_str(), lab.clock.speed());
                        printBus(lab);
                        printCet(lab);
                        printPtzd(lab);
                        printAxis(lab, LAB_PAN);
                        printAxis(lab, LAB_TILT);
                        return allRun(lab) ? 0 : 1;
                    }));
}

Order ptzdOrder(Arguments arguments)
{
    Order order;
    const std::string action = actionIn(arguments, {"kill", "stop", "start", "restart", "log"}, order.problem);
    if (!order.problem.empty())
        return order;
    if (action == "")
        return toDo(printPtzd);
    if (action == "log")
        return toDo([](Lab& lab) { fputs(lab.records.ptzdLog().c_str(), stdout); });
    return toDoAlone([action](Lab& lab) {
        const bool runs = lab.programs.isRunning("ptzd");
        if (!runs && (action == "kill" || action == "stop"))
            return failed("ptzd does not run in " + lab.folder());
        if (runs && action != "start" && !lab.programs.killPtzd(action == "kill" ? SIGKILL : SIGTERM))
            return failed("ptzd does not end");
        const bool starts = action == "start" || action == "restart";
        return starts && !lab.programs.startPtzd() ? failed(lab.error()) : 0;
    });
}

Order busOrder(Arguments arguments)
{
    Order order;
    const std::string action = actionIn(arguments, {"stop", "start", "restart"}, order.problem);
    return order.problem.empty() ? switchOrder(action, &LabPrograms::startBus, &LabPrograms::stopBus, printBus) : order;
}

Order cetOrder(Arguments arguments)
{
    Order order;
    int32_t delayMs = 0;
    if (!arguments.empty() && arguments[0] == "late") {
        if (arguments.size() < 2 || !parseNumber(arguments[1], 0, 3'600'000, delayMs)) {
            order.problem = "late needs a time in ms";
            return order;
        }
        arguments.erase(arguments.begin() + 1);
    }
    const std::string action =
        actionIn(arguments, {"ok", "late", "wrong", "nocode", "silent", "stop", "start"}, order.problem);
    if (!order.problem.empty())
        return order;
    const auto* mode =
        std::find_if(std::begin(CET_MODES), std::end(CET_MODES), [&](const auto& one) { return action == one.word; });
    if (mode == std::end(CET_MODES))
        return switchOrder(action, &LabPrograms::startCet, &LabPrograms::stopCet, printCet);
    return toDo([=](Lab& lab) { lab.cet.setAnswer(static_cast<LabCetMode>(mode - CET_MODES), delayMs); });
}

Order execOrder(Arguments arguments)
{
    if (!arguments.empty() && arguments[0] == "--")
        arguments.erase(arguments.begin());
    if (arguments.empty())
        return {.problem = "which command?"};
    return toDo([arguments](Lab& lab) {
        const Arguments command = labCommand(arguments);
        const std::vector<std::string> environment = lab.environment();
        execvpe(command[0].c_str(), ArgumentList(command).get(), ArgumentList(environment).get());
        const int problem = errno;
        failed(arguments[0] + ": " + strerror(problem));
        return problem == ENOENT ? 127 : 126;
    });
}
