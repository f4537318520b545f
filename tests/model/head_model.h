#pragma once
// The rules of the head's motion methods in their plainest form: a few variables and a function a method.
//
// The model runs after the daemon: it goes through the requests that the daemon sent, takes the devices' answers from
// the journal, and throws a Mismatch where the daemon did something else than the rules say. What the devices answered
// is thereby known also in mid-motion and after faults.

#include "evidence.h"
#include "motion_judge.h"
#include "steps.h"
#include "tours.h"

#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

enum Code : int32_t {
    CODE_OK = 0,
    CODE_DEVICE = -64301,
    CODE_PARAM = -64302,
    CODE_CALIBRATING = -64303,
    CODE_NO_TRAVEL = -64304,
    CODE_MOVING = -64305,
    CODE_FULL = -64306,
    CODE_NAME = -64308,
    CODE_FACTOR = -64317,
    CODE_PRESET = -64321,
    CODE_LENS_MASK = -64324,
    CODE_PANORAMA = -64329,
    CODE_PLAN = 64302,
};

struct ModelAxis {
    LabAxisSetting made{};
    int32_t lower = 0; // limits and home in coordinates
    int32_t upper = 0;
    int32_t home = 0;
    std::string section;

    // Where the axis stands, or will once its motion is over. Count and shaft differ after a failed calibration.
    int32_t count = 0;
    int32_t shaft = 0;
    bool moving = false;

    std::optional<int32_t> stored{};      // steps
    std::optional<int32_t> speedOption{}; // as the daemon holds it
    std::optional<int32_t> speedInFile{}; // as last committed
};

/// Fields of a status, as the device answered.
struct Reading {
    std::vector<int32_t> words{0, 0, 0, 0, 0};
    int32_t speed() const
    {
        return words[1];
    }
    int32_t position() const
    {
        return words[2];
    }
    bool running() const
    {
        return words[3] != 0;
    }
};

struct PendingSave {
    int64_t earliestNs; // lab time of the arming, from and to
    int64_t latestNs;
};

/// A request that the calibration or the test is to make.
struct WorkerRequest {
    LabAxisId axis;
    std::string request;
    int32_t word;
};

/// Decimal text as a number; what is out of range saturates, what is no number is 0.
int64_t number(const std::string& text);

class HeadModel {
public:
    HeadModel(Evidence& evidence, const LabAxisSetting& pan, const LabAxisSetting& tilt);

    /// What the settings files hold.
    struct Settings {
        std::optional<std::string> flip;
        std::optional<std::string> mask;
        std::optional<std::string> track;
        int32_t recover = 1;
    } settings;

    ModelAxis axes[LAB_AXIS_COUNT];
    TourWorld world;
    Presets storedPresets;
    MotionJudge motions;
    std::optional<PendingSave> save;
    /// Whether a position may be stored: not while the mask is on, until a mask off has come to rest. After a mask that
    /// failed, until a command has taken the head out of its zone.
    enum class Storing { FREE, NEVER, ONCE_AT_REST } storing = Storing::FREE;
    bool atRest = false;      // nothing is under way, so that only a save may look at the axes
    bool calibrating = false; // perhaps: it ends at a moment that nobody sees

    /// Whether a save comes by itself.
    bool saveDue() const
    {
        return save && storing != Storing::NEVER;
    }
    /// A daemon that has just started on the settings and found the axes where they stand.
    void start();
    /// What the daemon answers to the step, which was called and answered with `reply` at these lab times. Judges its
    /// requests.
    std::string expect(const Step& step, const std::string& reply, int64_t calledNs, int64_t repliedNs);
    /// Judges what threads did up to the end of what is loaded.
    void judgeThreads();
    /// True once nothing is under way any more, as far as loaded.
    bool hasSettled() const;
    void settle();
    /// Follows an axis through a request.
    void fold(const LabJournalEntry& entry);
    /// What the file of the daemon's package must hold, option by option.
    std::map<std::string, std::optional<std::string>> storedOptions() const;
    /// A speed that the calibration corrected goes to the file with the next commit, at the start perhaps at once.
    bool mayHold(const std::string& option, const std::string& value) const;
    /// True when a calibration has corrected a speed, or may have, and no commit has followed.
    bool speedsDiffer() const;
    std::string describe() const;

private:
    // Requests of the event loop, in order; each throws unless it is the next.
    bool ask(LabAxisId axis, const std::string& request, const std::vector<int32_t>* words = nullptr);
    bool nextIs(const std::string& request) const;
    bool readStatus();
    bool halt();
    void begin(Begin kind);
    Code drive(const std::vector<int32_t>& pan, const std::vector<int32_t>& tilt);
    void cancelStep();
    void saveNow(bool halted);
    void leavesMask();
    void seeRest();
    void armSave();
    void commit();

    int32_t toSteps(LabAxisId axis, int64_t coordinate) const;
    int32_t toCoordinate(LabAxisId axis, int32_t steps) const;
    int32_t relative(LabAxisId axis, int64_t coordinates) const;
    int32_t sign(LabAxisId axis) const;
    bool running() const;
    int32_t position(LabAxisId axis) const;
    std::vector<int32_t> command(LabAxisId axis, int32_t speed, int32_t steps, bool fromStatus) const;
    int32_t storedOrHome(LabAxisId axis) const;

    void judgeThread(const LabJournalEntry& entry);
    void judgeSaveRead(const LabJournalEntry& entry);
    void judgeTour(const LabJournalEntry& entry);
    void judgeWorker(const LabJournalEntry& entry);
    void queueCalibration(const int32_t (&returnSteps)[LAB_AXIS_COUNT]);
    bool stillCalibrating();
    Code busy(bool panoramaCounts = true);
    bool loadFlip();

    Code move(const Step& step);
    Code moveTo(const Step& step);
    Code stop();
    Code moveStep(const Step& step);
    Code aimStep(int32_t direction, const std::vector<int32_t>& pan, const std::vector<int32_t>& tilt);
    Code startPanorama();
    Code movePanorama(const Step& step);
    Code stopPanorama();
    Code returnTo(const std::vector<int32_t>& pan, const std::vector<int32_t>& tilt);
    Code targetTrack(const Step& step);
    Code targetTrackBack();
    Code reloadTargetTrack();
    Code lensMask();
    Code setConfig(const Step& step);
    Code setPowerOffRecover(const Step& step);
    Code manualCalibrate();
    Code test(const Step& step);
    Code updateImage();
    int32_t presetSteps(LabAxisId axis, const PresetSlot& preset, const Reading& reading) const;
    Code gotoPreset(const Step& step);
    Code setFactor(const std::optional<std::string>& text, LabAxisId axis);
    Code setPreset(const Step& step);
    Code capture(PresetSlot& slot);
    Code delPreset(const Step& step);
    Code clearPreset();
    Code setPlan(const Step& step);
    void readPresets();
    void savePresets();
    void savePendingPlan();
    std::string presetList() const;
    std::string capability() const;
    std::string status();

    Evidence& evidence_;
    int64_t endsBefore_ = 0; // what motions.ends() was when storing became ONCE_AT_REST
    std::string reply_;
    int32_t replied_ = 0; // the code that the daemon gave
    int64_t calledNs_ = 0;
    std::string fields_; // of the reply, before the code
    Reading readings_[LAB_AXIS_COUNT];

    bool recover_ = true;
    bool panorama_ = false;
    bool mask_ = false;
    bool track_ = false;
    int flip_ = 0;
    enum class StepMove { NONE, RUNS, FADES } stepMove_ = StepMove::NONE;
    int32_t stepDirection_ = 0;
    bool stepStopsTilt_ = false; // the closing stop of pan was seen
    bool saveReadPan_ = false;
    bool saveReadRunning_ = false;
    /// While a save is being committed, its next expiry may come, whose thread finds nothing left to do.
    std::optional<int64_t> saveCommitsFromNs_{};
    std::deque<WorkerRequest> worker_; // what is left of a calibration or a test
    Plan pendingPlan_;
    Reading tourReadings_[LAB_AXIS_COUNT];
    std::string tourDid_; // its latest request that succeeded
    int64_t tourReadNs_ = 0;
};
