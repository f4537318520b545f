// `run`: a head in the foreground, for a first look.

#include "commands.h"

#include "lab/clock.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace {

using std::chrono::milliseconds;

constexpr milliseconds REFRESH{100};

/// Signals that ask `run` to end. They are blocked for its whole life and taken one by one.
class EndSignals {
public:
    EndSignals()
    {
        sigemptyset(&set_);
        for (const int number : {SIGINT, SIGTERM, SIGHUP})
            sigaddset(&set_, number);
        sigprocmask(SIG_BLOCK, &set_, nullptr);
    }
    /// Waits that long; true once a signal has come.
    bool came(milliseconds wait)
    {
        const timespec limit{static_cast<time_t>(wait.count() / 1000),
                             static_cast<long>(wait.count() % 1000 * NS_PER_MS)};
        came_ = came_ || sigtimedwait(&set_, nullptr, &limit) > 0;
        return came_;
    }

private:
    sigset_t set_;
    bool came_ = false;
};

/// Shows the axes on standard output: two lines that change in place on a terminal, else a line for each rotation.
class Display {
public:
    explicit Display(Lab& lab) : lab_(lab), terminal_(isatty(STDOUT_FILENO) != 0)
    {
    }

    void refresh()
    {
        if (terminal_)
            drawBars();
        else
            tellRotations();
        fflush(stdout);
    }

    /// What is printed next comes below the two lines.
    void leave()
    {
        drawn_ = false;
    }

private:
    void drawBars()
    {
        if (drawn_)
            printf("\033[2A");
        drawn_ = true;
        for (const LabAxisId axis : {LAB_PAN, LAB_TILT}) {
            constexpr int CELLS = 40;
            const LabAxisSetting setting = lab_.axisSetting(axis);
            const LabAxisNow now = lab_.axisNow(axis);
            const int at = static_cast<int>(int64_t{now.count} * CELLS / setting.total_steps);
            std::string bar(CELLS + 1, '-');
            bar[static_cast<size_t>(at)] = '#';
            printf("\r%-5s[%s] %5d of %d steps, coordinate %4d, %s\033[K\n", axisName(axis), bar.c_str(), now.count,
                   setting.total_steps, coordinateOf(setting, now.count), now.running ? "turns" : "rests");
        }
    }

    void tellRotations()
    {
        const std::vector<LabJournalEntry> journal = lab_.journal();
        for (; told_ < journal.size(); ++told_) {
            const LabJournalEntry& entry = journal[told_];
            if (entry.request == "ROTATE" || entry.request == "MOVE")
                printf("%-5s turns by %d steps from step %d\n", axisName(entry.axis), entry.stepsWord(), entry.count);
            else if (entry.request == JOURNAL_ROTATE_END)
                printf("%-5s rests at step %d\n", axisName(entry.axis), entry.count);
        }
    }

    Lab& lab_;
    bool terminal_;
    bool drawn_ = false;
    size_t told_ = 0;
};

bool turns(Lab& lab)
{
    return lab.axisNow(LAB_PAN).running || lab.axisNow(LAB_TILT).running;
}

/// Refreshes the display until the condition holds. False when a signal came, the daemon ended or the time is up.
template <typename Condition>
bool showUntil(Lab& lab, Display& display, EndSignals& signals, Condition condition, milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        display.refresh();
        if (signals.came(REFRESH) || !lab.isRunning("ptzd") || std::chrono::steady_clock::now() >= end)
            return false;
    }
    display.refresh();
    display.leave();
    return true;
}

/// Why a wait ended early; the exit status.
int giveUp(Lab& lab, EndSignals& signals)
{
    if (signals.came(milliseconds(0)))
        return 0;
    lab.waitReady(milliseconds(0));
    return failed(lab.error());
}

int stayInForeground(Lab& lab, Display& display, EndSignals& signals)
{
    printf("\nIn a second terminal, for example:\n"
           "  ./dev ubus call ptzd moveTo '{\"x_coord\":\"30\",\"y_coord\":\"0\"}'\n"
           "  ./dev ubus call ptzd moveTo '{\"x_coord\":\"-90\",\"y_coord\":\"20\"}'\n"
           "  ./dev ubus call ptzd getStatus\n"
           "Ctrl-C ends the head.\n\n");
    bool alive = true;
    while (!signals.came(REFRESH)) {
        display.refresh();
        const bool runs = lab.isRunning("ptzd");
        if (!runs && !lab.isRunning("ubusd")) {
            printf("the head was taken down\n");
            return 0;
        }
        if (runs == alive)
            continue;
        alive = runs;
        display.leave();
        printf(alive ? "the daemon runs again\n" : "the daemon has ended; ./dev lab ptzd start starts it again\n");
    }
    return 0;
}

} // namespace

int runCommand(const Command& self, Arguments arguments)
{
    LabOptions options;
    std::string problem;
    if (!takeStartOptions(arguments, options, problem))
        return wrongUse(self, problem);
    options.waitCalibrated = false;
    Lab lab(labFolderFor(arguments, 0));
    EndSignals signals;
    {
        const WorkLock lock(lab.folder());
        if (!lock.held())
            return 1;
        if (lab.isRunning("ptzd"))
            return failed("a head is up in " + lab.folder() + " already; ptzd-lab down ends it");
        printf("starting a head in %s\n", lab.folder().c_str());
        fflush(stdout);
        if (!lab.up(options))
            return failed(lab.error());
    }
    Display display(lab);
    if (!showUntil(
            lab, display, signals, [&] { return lab.isReady(); }, lab.calibrationTime() + options.patience))
        return giveUp(lab, signals);
    printf("calibrated\n");

    constexpr const char* TARGET = R"({"x_coord":"30","y_coord":"0"})";
    printf("moveTo %s: %s\n", TARGET, lab.call("moveTo", TARGET).c_str());
    if (!showUntil(
            lab, display, signals, [&] { return !turns(lab); }, lab.calibrationTime() + options.patience))
        return giveUp(lab, signals);
    printf("getStatus: %s\n", lab.call("getStatus").c_str());
    fflush(stdout);
    return isatty(STDIN_FILENO) ? stayInForeground(lab, display, signals) : 0;
}
