#pragma once
// A camera head on a PC: starts and ends the programs of a lab, looks at its motors and interferes with them.
//
// Nothing here throws: what can fail returns false (or nothing) and leaves the reason in error(). A Lab belongs to one
// thread, except invoke() and call(), which any number of threads may use at the same time.

#include "lab/journal.h"

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

/// What an axis is built like.
struct LabAxisSetting {
    int32_t range;       // coordinate units
    int32_t max_speed;   // largest speed value
    int32_t total_steps; // steps over the whole travel
};

struct LabOptions {
    LabAxisSetting pan{.range = 300, .max_speed = 8, .total_steps = 3000};
    LabAxisSetting tilt{.range = 122, .max_speed = 8, .total_steps = 1220};
    /// Steps per second for each unit of speed.
    int32_t factor = 250;
    /// So many status reports behind a STOP of a turning axis still say that it runs: a driver that slows down.
    int32_t slowdown = 0;
    /// Lab time per real time.
    double clockSpeed = 1;
    /// Local time "YYYY-MM-DD HH:MM:SS" that the wall clock starts with; empty: the machine's wall clock.
    std::string wallClock{};
    /// Packages of settings that replace the default ones: name and whole text of the file. Other packages are copied
    /// from the defaults unless the lab folder already has them.
    std::map<std::string, std::string> config{};
    /// The daemon's program file; empty: the one that was built with this lab.
    std::string ptzd{};
    /// NAME=VALUE for every program of the lab.
    std::vector<std::string> environment{};
    bool startBus = true;
    bool startCet = true;
    bool startPtzd = true;
    /// up() and startPtzd() return only once the daemon answers and is calibrated.
    bool waitCalibrated = true;
    /// The programs go on when this process ends; else they end with the Lab object, or with the process.
    bool outlive = false;
    /// Longest real time for a program to become ready, besides the calculated length of a calibration.
    std::chrono::milliseconds startTimeout{15000};
};

/// A line of DIR/journal. Times in ns; in and out are empty when the request has no such record.
struct LabJournalEntry {
    int64_t realNs; // since the lab was started
    int64_t labNs;
    pid_t pid;
    pid_t thread;
    LabAxisId axis;
    std::string request; // LAB_REQUEST_NAMES, JOURNAL_ROTATE_END or JOURNAL_POWER_LOSS
    std::vector<int32_t> in;
    int result; // 0 or errno
    std::vector<int32_t> out;
    int32_t count;
    int32_t shaft;
    int64_t rate; // signed steps per second of lab time after the request; 0 at rest
    int32_t left; // signed steps still to be made then

    /// The speed or steps word that the caller gave; 0 without a record.
    int32_t speedWord() const
    {
        return in.size() > 1 ? in[1] : 0;
    }
    int32_t stepsWord() const
    {
        return in.size() > 2 ? in[2] : 0;
    }
};

/// A line of DIR/cet.log.
struct LabCetEntry {
    int64_t realNs;
    int64_t labNs;
    bool isEvent;     // the event motor_rotate_event, else a call
    std::string name; // of the event or method
    std::string text; // "action" of the event, "type" of the call; "-" when it was missing
};

struct LabReply {
    int status;       // of the bus: 0 is success
    std::string text; // compact JSON; empty when no data came
};

/// The folder of a lab and what reaches into it: what all parts of a lab share.
class LabBase {
public:
    explicit LabBase(const std::string& folder);
    ~LabBase();
    LabBase(const LabBase&) = delete;
    LabBase& operator=(const LabBase&) = delete;

    /// Why the latest call that failed did.
    const std::string& error() const
    {
        return error_;
    }
    /// Keeps a reason for error(); returns false.
    bool fail(const std::string& reason);
    /// Absolute path of the lab folder.
    const std::string& folder() const
    {
        return folder_;
    }

    /// Calls a method on the lab's bus. Arguments as a JSON object; empty: none.
    LabReply invoke(const std::string& object, const std::string& method, const std::string& json = "",
                    std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;
    /// The reply text of a method of "ptzd"; "status N" when the bus reports another status than success.
    std::string call(const std::string& method, const std::string& json = "") const;
    /// Runs a command in the lab and waits for it; "ubus" and "uci" are the lab's own. The exit status, -1 when it was
    /// killed or could not be started.
    int run(const std::vector<std::string>& command, std::string& output);
    /// The environment of the lab's programs, NAME=VALUE.
    std::vector<std::string> environment() const;
    /// Where the bus's socket is for a process outside the lab.
    std::string busSocket() const;

    LabOptions options;
    LabState* state = nullptr; // null before up() or attach()

private:
    std::string folder_;
    std::string error_;
    bool temporary_;
};

/// What every part of a lab is made of.
struct LabPart {
    explicit LabPart(LabBase& base) : base_(base)
    {
    }
    LabBase& base_;
};

/// Starts and ends the programs of a lab.
class LabPrograms : LabPart {
public:
    using LabPart::LabPart;

    bool startPtzd();
    /// Sends a signal and waits for the end; the wait status, or nothing when it goes on for 10 s or does not run.
    /// For a daemon of another process than this the status is 0.
    std::optional<int> killPtzd(int signal);
    /// Waits for an end that somebody else causes; as killPtzd.
    std::optional<int> waitPtzd(std::chrono::milliseconds timeout);
    /// 0 when it does not run.
    pid_t ptzdPid() const;
    /// Waits until the daemon has been through its calibration and answers; false with the end of its log as error().
    bool waitReady(std::chrono::milliseconds timeout);
    /// How long a calibration takes in real time at the present speeds, roughly.
    std::chrono::milliseconds calibrationTime() const;
    /// True once the daemon has been through its calibration and answers.
    bool isReady();

    bool startBus();
    bool stopBus();
    bool startCet();
    bool stopCet();
    bool isRunning(const std::string& program) const; // "ubusd", "cet" or "ptzd"

    /// Ends every program of the lab, the daemon first and orderly, and waits for their ends.
    bool stopAll();
    /// Whether any program that this object started may still run.
    bool hasStarted() const
    {
        return !children_.empty();
    }

    /// Starts any program in the lab, under a name of its own; what it prints goes to log/NAME.log.
    bool start(const std::string& name, const std::vector<std::string>& command);
    /// Waits until a program that was just started answers; false with the end of its log as error().
    bool awaitAnswer(const std::string& name, const std::function<bool()>& answers);
    /// Asks a program to end, kills it if it does not, and waits for its end.
    bool stop(const std::string& name);
    /// 0 when it does not run.
    pid_t pidOf(const std::string& name) const;

private:
    std::optional<int> end(const std::string& name, int signal, std::chrono::milliseconds timeout);

    std::map<std::string, pid_t> children_;
    uint32_t tiltCalibrationsBefore_ = 0;
};

/// The motors of a lab and their faults. Requests that are being answered see a change, delayed ones too.
class LabMotors : LabPart {
public:
    using LabPart::LabPart;

    /// `passes` requests still succeed, then `times` fail.
    void failRequest(LabAxisId axis, LabRequest request, int32_t times = 1, int error = 5, int32_t passes = 0);
    void delayRequest(LabAxisId axis, LabRequest request, int32_t delayMs);
    void stuckRunning(LabAxisId axis, bool stuck);
    /// What GET_CAPA reports instead of the truth; nothing: the truth.
    void reportCapability(LabAxisId axis, const std::optional<LabAxisSetting>& capability);
    /// Whether the device file exists. Descriptors already open go on working.
    bool setNode(LabAxisId axis, bool present);
    bool hasNode(LabAxisId axis) const;
    /// Clears all faults of the axis; a missing node comes back.
    bool clearFaults(LabAxisId axis);
    LabFaults faults(LabAxisId axis);
    void setFactor(LabAxisId axis, int32_t stepsPerSecondAndSpeed);
    /// Both drivers lose count, speed and motion; the shafts stay.
    void powerLoss();
    LabAxisNow now(LabAxisId axis);
    LabAxisSetting setting(LabAxisId axis);
    /// Requests of that kind since the lab was started, failed ones included.
    uint32_t served(LabAxisId axis, LabRequest request) const;
    /// Timers that programs have created since the lab was started.
    uint32_t timersCreated() const;

private:
    void editFaults(LabAxisId axis, const std::function<void(LabFaults&)>& edit);
};

/// The time of a lab.
class LabTime : LabPart {
public:
    using LabPart::LabPart;

    int64_t nowNs() const;
    void setSpeed(double labPerReal);
    double speed() const;
    /// Time of this process's zone, "YYYY-MM-DD HH:MM:SS".
    bool setWall(const std::string& localTime);
    /// The lab's wall clock in the form that setWall() takes.
    std::string wall() const;
    /// Speed 1 and the machine's wall clock again.
    void realTime();
    /// The time zone that the lab's programs see, the machine's until then: a rule like "CET-1CEST,M3.5.0,M10.5.0/3".
    /// Without effect where the environment has TZ.
    bool setZone(const std::string& rule);
    /// The wall clock at lab time 0 in ns since 1970; nothing while the wall clock is the machine's.
    std::optional<int64_t> wallAtZeroNs() const;
};

/// What happened in a lab.
class LabRecords : LabPart {
public:
    using LabPart::LabPart;

    std::vector<LabJournalEntry> journal() const;
    std::vector<LabCetEntry> cetLog() const;
    /// How often CET was called by that method.
    int callsToCet(const std::string& method) const;
    /// The actions of motor_rotate_event, in order.
    std::vector<std::string> actions() const;
    /// Empties journal and CET log.
    void clear();
    /// What the daemon printed on its console and sent to the message logger.
    std::string ptzdLog() const;
    std::string messageLog() const;
};

/// The settings of a lab, "package.section.option", as the command `uci` reads and writes them.
class LabSettings : LabPart {
public:
    using LabPart::LabPart;

    std::optional<std::string> get(const std::string& tuple) const;
    /// Sets and commits.
    bool set(const std::string& tuple, const std::string& value);
};

/// How the CET stand-in answers.
class LabCet : LabPart {
public:
    using LabPart::LabPart;

    /// `delayMs` (real time) counts for CET_LATE.
    void setAnswer(LabCetMode mode, int32_t delayMs = 0);
    LabCetMode answer() const;
};

class Lab : private LabBase {
public:
    /// A lab in `folder`, or in a fresh temporary folder that goes with the object. Starts nothing.
    explicit Lab(const std::string& folder = "");
    /// Ends every program that this object started, unless LabOptions::outlive.
    ~Lab();

    /// Ends what is left of an earlier lab in the folder and starts a head: motors without power until now (the shafts
    /// stay where they were, or begin in the middle), no faults, a fresh journal, then bus, CET and daemon.
    bool up(const LabOptions& options = {});
    /// Takes over a lab that another process started; false when there is none in the folder.
    bool attach();
    /// Ends every program of the lab, the daemon first and orderly, and waits for their ends.
    bool down();
    /// Fills the folder as up() does, without starting anything or ending anything.
    bool prepare(const LabOptions& options);

    using LabBase::busSocket;
    using LabBase::call;
    using LabBase::environment;
    using LabBase::error;
    using LabBase::folder;
    using LabBase::invoke;
    using LabBase::run;

    LabPrograms programs{*this};
    LabMotors motors{*this};
    LabTime clock{*this};
    LabRecords records{*this};
    LabSettings settings{*this};
    LabCet cet{*this};

private:
    bool createState();
};

/// Asks every 2 ms until the answer is true; false when the time is up first.
template <typename Condition>
bool waitUntil(Condition condition, std::chrono::milliseconds timeout)
{
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

/// Pan and tilt over lab time as an SVG picture, reconstructed from the journal; a row for each origin shows the
/// motions that CET was notified of. A motion under way is drawn as it will go on, but not beyond `untilLabNs`. With
/// the wall clock's reading at lab time 0 the scale is that of a clock.
std::string plotLab(const std::vector<LabJournalEntry>& journal, const std::vector<LabCetEntry>& cetLog,
                    const LabAxisSetting (&axes)[LAB_AXIS_COUNT], int64_t untilLabNs,
                    std::optional<int64_t> wallAtZeroNs = {});
