// `run`: a head in the foreground, for a first look.

#include "commands.h"

#include "lab/clock.h"

#include <signal.h>
#include <sys/ioctl.h>
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
        const timespec limit = asTimespec(wait.count() * NS_PER_MS);
        came_ = came_ || sigtimedwait(&set_, nullptr, &limit) > 0;
        return came_;
    }

private:
    sigset_t set_;
    bool came_ = false;
};

/// Columns of the terminal on standard output, which may change at any time.
size_t columnsNow()
{
    winsize size{};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

/// One axis in a line of at most that many characters: a bar, and behind it as much as leaves room for one.
std::string axisLine(Lab& lab, LabAxisId axis, size_t width)
{
    constexpr size_t MOST_CELLS = 61;
    constexpr size_t FEWEST_CELLS = 16;
    constexpr size_t FRAME = std::char_traits<char>::length("tilt []");
    const LabAxisSetting setting = lab.motors.setting(axis);
    const LabAxisNow now = lab.motors.now(axis);
    char step[48];
    char line[192];
    (void)snprintf(step, sizeof(step), ", step %5d of %d", now.count, setting.total_steps);
    size_t cells = 0;
    std::string text;
    for (const char* detail : {static_cast<const char*>(step), ""}) { // the step where there is room for it
        (void)snprintf(line, sizeof(line), " coordinate %4d%s, %s", coordinateOf(setting, now.count), detail,
                       now.running ? "turns" : "rests");
        text = line;
        cells = std::min(width - std::min(width, FRAME + text.size()), MOST_CELLS);
        if (cells >= FEWEST_CELLS)
            break;
    }
    std::string bar(cells, '-');
    if (cells > 0)
        bar[static_cast<size_t>(int64_t{now.count} * static_cast<int64_t>(cells - 1) / setting.total_steps)] = '#';
    (void)snprintf(line, sizeof(line), "%-4s [%s]%s", axisName(axis), bar.c_str(), text.c_str());
    return std::string(line).substr(0, width);
}

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
            printRotations();
        fflush(stdout);
    }

    /// What is printed next comes below the two lines.
    void leave()
    {
        if (!shown_.empty())
            printf("\r\033[J%s\n", shown_.c_str()); // an interrupting key may have been echoed into them
        shown_.clear();
        fflush(stdout);
    }

private:
    /// The cursor stays at the beginning of the first line: a terminal that changes its width may wrap the two lines
    /// anew, and all that they are then is below that place.
    void drawBars()
    {
        const size_t width = columnsNow() - 1; // a line that fills the last column would wrap on some terminals
        const std::string lines = axisLine(lab_, LAB_PAN, width) + "\n" + axisLine(lab_, LAB_TILT, width);
        if (lines == shown_)
            return;
        printf("\r\033[J%s\r\033[1A", lines.c_str());
        shown_ = lines;
    }

    void printRotations()
    {
        const std::vector<LabJournalEntry> journal = lab_.records.journal();
        for (; printed_ < journal.size(); ++printed_) {
            const LabJournalEntry& entry = journal[printed_];
            if (entry.request == "ROTATE" || entry.request == "MOVE")
                printf("%-5s turns by %d steps from step %d\n", axisName(entry.axis), entry.stepsWord(), entry.count);
            else if (entry.request == JOURNAL_ROTATE_END)
                printf("%-5s rests at step %d\n", axisName(entry.axis), entry.count);
        }
    }

    Lab& lab_;
    bool terminal_;
    std::string shown_;
    size_t printed_ = 0;
};

bool turns(Lab& lab)
{
    return lab.motors.now(LAB_PAN).running || lab.motors.now(LAB_TILT).running;
}

/// Refreshes the display until the condition holds. False when a signal came, the daemon ended or the time is up.
template <typename Condition>
bool showUntil(Lab& lab, Display& display, EndSignals& signals, Condition condition)
{
    const auto end = std::chrono::steady_clock::now() + lab.programs.calibrationTime() + LabOptions{}.startTimeout;
    bool goesOn = true;
    while (goesOn && !condition()) {
        display.refresh();
        goesOn = !signals.came(REFRESH) && lab.programs.isRunning("ptzd") && std::chrono::steady_clock::now() < end;
    }
    display.refresh();
    display.leave();
    return goesOn;
}

/// Why a wait ended early; the exit status.
int giveUp(Lab& lab, EndSignals& signals)
{
    if (signals.came(milliseconds(0)))
        return 0;
    lab.programs.waitReady(milliseconds(0));
    return failed(lab.error());
}

/// `folder`: the lab's, where the user named it in an argument.
int stayInForeground(Lab& lab, Display& display, EndSignals& signals, const std::string& folder)
{
    const auto inThisLab = [&](const char* words) {
        return (folder.empty() ? "" : "PTZD_LAB_DIR=" + folder + " ") + typed(words);
    };
    printf("\nIn a second terminal, for example:\n");
    for (const char* words :
         {"ubus call ptzd moveTo '{\"x_coord\":\"-90\",\"y_coord\":\"20\"}'", "ubus call ptzd getStatus"})
        printf("  %s\n", inThisLab(words).c_str());
    printf("Ctrl-C ends the head.\n\n");
    for (bool alive = true; !signals.came(REFRESH);) {
        display.refresh();
        const bool runs = lab.programs.isRunning("ptzd");
        if (runs == alive)
            continue;
        alive = runs;
        display.leave();
        if (!runs && !lab.programs.isRunning("ubusd")) {
            printf("the head was taken down\n");
            return 0;
        }
        if (runs)
            printf("the daemon runs again\n");
        else
            printf("the daemon has ended; %s starts it again\n", inThisLab("lab ptzd start").c_str());
    }
    display.leave();
    return 0;
}

} // namespace

Order runOrder(Arguments arguments)
{
    LabOptions options;
    Order order = startOrder(arguments, options);
    options.waitCalibrated = false;
    order.carryOut = [options, folder = order.folder](Lab& lab) {
        EndSignals signals;
        {
            const WorkLock lock(lab.folder());
            if (!lock.held())
                return 1;
            if (lab.programs.isRunning("ptzd"))
                return failed("a head is up in " + lab.folder() + " already; " + typed("lab down") +
                              (folder.empty() ? "" : " ") + folder + " ends it");
            printf("starting a head in %s\n", lab.folder().c_str());
            fflush(stdout);
            if (!lab.up(options))
                return failed(lab.error());
        }
        Display display(lab);
        if (!showUntil(lab, display, signals, [&] { return lab.programs.isReady(); }))
            return giveUp(lab, signals);
        printf("calibrated\n");

        constexpr const char* TARGET = R"({"x_coord":"30","y_coord":"0"})";
        printf("moveTo %s: %s\n", TARGET, lab.call("moveTo", TARGET).c_str());
        if (!showUntil(lab, display, signals, [&] { return !turns(lab); }))
            return giveUp(lab, signals);
        printf("getStatus: %s\n", lab.call("getStatus").c_str());
        fflush(stdout);
        return isatty(STDIN_FILENO) ? stayInForeground(lab, display, signals, folder) : 0;
    };
    return order;
}
