// `run`: a head in the foreground, for a first look.

#include "commands.h"

#include "lab/clock.h"

#include <signal.h>
#include <unistd.h>

#include <cstdio>

namespace {

using std::chrono::milliseconds;

constexpr milliseconds LOOK{250};

/// The signals that ask `run` to end: blocked for its whole life, and taken one by one.
sigset_t endSignals()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&set, number);
    return set;
}

/// Waits that long; true once a signal has come.
bool endAsked(milliseconds wait)
{
    static bool asked = false;
    const sigset_t set = endSignals();
    const timespec limit = asTimespec(wait.count() * NS_PER_MS);
    asked = asked || sigtimedwait(&set, nullptr, &limit) > 0;
    return asked;
}

/// Prints a line for each axis that is not as it was at the last look.
void refresh(Lab& lab)
{
    static std::string shown[LAB_AXIS_COUNT];
    for (const LabAxisId axis : {LAB_PAN, LAB_TILT}) {
        const std::string text = axisText(lab, axis);
        if (text != shown[axis])
            puts(text.c_str());
        shown[axis] = text;
    }
    fflush(stdout);
}

/// Prints what changes until the condition holds. False when a signal came, the daemon ended or the time is up.
template <typename Condition>
bool showUntil(Lab& lab, Condition condition)
{
    const auto end = std::chrono::steady_clock::now() + lab.programs.calibrationTime() + LabOptions{}.startTimeout;
    bool goesOn = true;
    while (goesOn && !condition()) {
        refresh(lab);
        goesOn = !endAsked(LOOK) && lab.programs.isRunning("ptzd") && std::chrono::steady_clock::now() < end;
    }
    refresh(lab);
    return goesOn;
}

/// Why a wait ended early; the exit status.
int giveUp(Lab& lab)
{
    if (endAsked(milliseconds(0)))
        return 0;
    lab.programs.waitReady(milliseconds(0));
    return failed(lab.error());
}

int stayInForeground(Lab& lab)
{
    const auto inThisLab = [](const char* words) {
        return (namedFolder().empty() ? "" : "PTZD_LAB_DIR=" + namedFolder().substr(1) + " ") + typed(words);
    };
    printf("\nIn a second terminal, for example:\n");
    for (const char* words : {"ctl goto -90 20", "ctl status", "ubus call ptzd getStatus"})
        printf("  %s\n", inThisLab(words).c_str());
    printf("Ctrl-C ends the head.\n\n");
    while (!endAsked(LOOK)) {
        refresh(lab);
        if (!lab.programs.isRunning("ptzd") && !lab.programs.isRunning("ubusd")) {
            printf("the head was taken down\n");
            break;
        }
    }
    return 0;
}

} // namespace

int runCommand(Lab& lab, const Arguments& arguments)
{
    LabOptions options;
    const std::string problem = parseOptions(arguments, options);
    if (!problem.empty())
        return wrongUse(problem);
    options.waitCalibrated = false;
    const sigset_t signals = endSignals();
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    const int lock = lockLab(lab.folder());
    if (lock < 0)
        return 1;
    if (lab.programs.isRunning("ptzd"))
        return failed("a head is up in " + lab.folder() + " already; " + typed("lab down") + namedFolder() +
                      " ends it");
    printf("starting a head in %s\n", lab.folder().c_str());
    fflush(stdout);
    if (!lab.up(options))
        return failed(lab.error());
    close(lock);

    if (!showUntil(lab, [&] { return lab.programs.isReady(); }))
        return giveUp(lab);
    printf("calibrated\n");
    constexpr const char* TARGET = R"({"x_coord":"30","y_coord":"0"})";
    printf("moveTo %s: %s\n", TARGET, lab.call("moveTo", TARGET).c_str());
    const auto rest = [&] { return !lab.motors.now(LAB_PAN).running && !lab.motors.now(LAB_TILT).running; };
    if (!showUntil(lab, rest))
        return giveUp(lab);
    printf("getStatus: %s\n", lab.call("getStatus").c_str());
    fflush(stdout);
    return isatty(STDIN_FILENO) ? stayInForeground(lab) : 0;
}
