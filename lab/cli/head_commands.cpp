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

/// What `cet` takes and shows, in the order of LabCetMode.
constexpr struct {
    const char* word;
    const char* text;
} CET_MODES[] = {{"ok", "answers"},
                 {"late", "answers late"},
                 {"wrong", "answers err_code 5"},
                 {"nocode", "answers without err_code"},
                 {"silent", "never answers"}};

/// What is wrong with an action of one word, if there is one.
std::string problemOf(const Arguments& arguments, std::initializer_list<const char*> actions)
{
    if (arguments.size() > 1)
        return "too many arguments";
    const bool known = arguments.empty() || std::find(actions.begin(), actions.end(), arguments[0]) != actions.end();
    return known ? "" : "there is no action " + arguments[0];
}

/// Stops, starts or restarts a program.
int switchProgram(Lab& lab, const std::string& action, bool (LabPrograms::*start)(), bool (LabPrograms::*stop)())
{
    if (lockLab(lab.folder()) < 0)
        return 1;
    return statusOf(lab,
                    (action == "start" || (lab.programs.*stop)()) && (action == "stop" || (lab.programs.*start)()));
}

int printBus(Lab& lab)
{
    printf("bus   %s\n", lab.programs.isRunning("ubusd") ? "runs" : "does not run");
    return 0;
}

int printCet(Lab& lab)
{
    printf("CET   %s\n", lab.programs.isRunning("cet") ? CET_MODES[lab.cet.answer()].text : "does not run");
    return 0;
}

int printPtzd(Lab& lab)
{
    const std::string reply = lab.programs.isRunning("ptzd") ? lab.call("checkMotorStatus") : "";
    printf("ptzd  %s\n", reply.empty()                  ? "does not run"
                         : reply == R"({"err_code":0})" ? "calibrated"
                         : reply.starts_with("status")  ? "does not answer"
                                                        : "calibrating");
    return 0;
}

} // namespace

int upCommand(Lab& lab, const Arguments& arguments)
{
    LabOptions options;
    options.outlive = true;
    const std::string problem = parseOptions(arguments, options);
    if (!problem.empty())
        return wrongUse(problem);
    if (lockLab(lab.folder()) < 0)
        return 1;
    const bool already = allRun(lab) && lab.attach() && lab.programs.isReady();
    if (!already && !lab.up(options))
        return failed(lab.error() + "\nwhat was started goes on; " + typed("lab down") + namedFolder() + " ends it");
    printf("a head is up in %s%s\n", lab.folder().c_str(), already ? " already" : "");
    return 0;
}

int downCommand(Lab& lab, const Arguments& arguments)
{
    if (!arguments.empty())
        return wrongUse("takes a folder only");
    if (lockLab(lab.folder()) < 0)
        return 1;
    const bool anything = runningPrograms(lab) > 0;
    if (!lab.down())
        return failed(lab.error());
    printf(anything ? "the head in %s is down\n" : "no head is up in %s\n", lab.folder().c_str());
    return 0;
}

int statusCommand(Lab& lab, const Arguments& arguments)
{
    if (!arguments.empty())
        return wrongUse("takes a folder only");
    printf("lab   %s\n", lab.folder().c_str());
    printf("time  %s, speed %g\n", lab.clock.wall().c_str(), lab.clock.speed());
    printBus(lab);
    printCet(lab);
    printPtzd(lab);
    motorCommand(lab, {"x"});
    motorCommand(lab, {"y"});
    return allRun(lab) ? 0 : 1;
}

int ptzdCommand(Lab& lab, const Arguments& arguments)
{
    const std::string problem = problemOf(arguments, {"kill", "stop", "start", "restart", "log"});
    if (!problem.empty())
        return wrongUse(problem);
    if (arguments.empty())
        return printPtzd(lab);
    const std::string& action = arguments[0];
    if (action == "log")
        return fputs(lab.records.ptzdLog().c_str(), stdout) < 0 ? 1 : 0;
    if (lockLab(lab.folder()) < 0)
        return 1;
    const bool runs = lab.programs.isRunning("ptzd");
    if (!runs && (action == "kill" || action == "stop"))
        return failed("ptzd does not run in " + lab.folder());
    if (runs && action != "start" && !lab.programs.killPtzd(action == "kill" ? SIGKILL : SIGTERM))
        return failed("ptzd does not end");
    const bool starts = action == "start" || action == "restart";
    return statusOf(lab, !starts || lab.programs.startPtzd());
}

int busCommand(Lab& lab, const Arguments& arguments)
{
    const std::string problem = problemOf(arguments, {"stop", "start", "restart"});
    if (!problem.empty())
        return wrongUse(problem);
    if (arguments.empty())
        return printBus(lab);
    return switchProgram(lab, arguments[0], &LabPrograms::startBus, &LabPrograms::stopBus);
}

int cetCommand(Lab& lab, const Arguments& arguments)
{
    Arguments words = arguments;
    int32_t delayMs = 0;
    if (!words.empty() && words[0] == "late") {
        if (words.size() < 2 || !parseNumber(words[1], 0, 3'600'000, delayMs))
            return wrongUse("late needs a time in ms");
        words.erase(words.begin() + 1);
    }
    const std::string problem = problemOf(words, {"ok", "late", "wrong", "nocode", "silent", "stop", "start"});
    if (!problem.empty())
        return wrongUse(problem);
    if (words.empty())
        return printCet(lab);
    const auto* mode =
        std::find_if(std::begin(CET_MODES), std::end(CET_MODES), [&](const auto& one) { return words[0] == one.word; });
    if (mode == std::end(CET_MODES))
        return switchProgram(lab, words[0], &LabPrograms::startCet, &LabPrograms::stopCet);
    lab.cet.setAnswer(static_cast<LabCetMode>(mode - CET_MODES), delayMs);
    return 0;
}

int execCommand(Lab& lab, const Arguments& arguments)
{
    Arguments words = arguments;
    if (!words.empty() && words[0] == "--")
        words.erase(words.begin());
    if (words.empty())
        return wrongUse("which command?");
    const Arguments command = labCommand(words);
    const std::vector<std::string> environment = lab.environment();
    execvpe(command[0].c_str(), ArgumentList(command).get(), ArgumentList(environment).get());
    const int problem = errno;
    failed(words[0] + ": " + strerror(problem));
    return problem == ENOENT ? 127 : 126;
}
