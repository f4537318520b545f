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

#include <array>
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

/// A method's answer when it goes no further.
struct Refusal {
    Code code;
};

void refuse(bool condition, Code code);

inline constexpr LabAxisId AXES[] = {LAB_PAN, LAB_TILT};
inline constexpr int64_t SAVE_PERIOD_NS = 10 * SECOND_NS;

using Pair = std::array<int64_t, LAB_AXIS_COUNT>; // of pan and tilt
using Words = std::vector<int32_t>;               // of a device's record
enum { SPEED_WORD = 1, STEPS_WORD = 2, RUNNING_WORD = 3, WORDS = 5 };

/// A value for each axis.
template <typename Value>
Pair forEach(Value value)
{
    return {value(LAB_PAN), value(LAB_TILT)};
}

struct ModelAxis {
    LabAxisSetting made{};
    int32_t lower = 0; // limits and home in coordinates
    int32_t upper = 0;
    int32_t home = 0;
    std::string section;

    // Where the axis is, or will be once its motion is over. Count and shaft differ after a failed calibration.
    int32_t count = 0;
    int32_t shaft = 0;
    bool moving = false;

    std::optional<int32_t> stored{};      // steps
    std::optional<int32_t> speedOption{}; // as the daemon holds it
    std::optional<int32_t> speedInFile{}; // as last committed
};

/// A request that the calibration or the test is to make.
struct WorkerRequest {
    LabAxisId axis;
    std::string request;
    int64_t word;
};

/// Decimal text as a number; what is out of range saturates, what is no number is 0.
int64_t number(const std::string& text);

class HeadModel {
public:
    HeadModel(Evidence& evidence, const LabAxisSetting& pan, const LabAxisSetting& tilt);

    std::map<std::string, std::string> settings; // what is in the files, by the verbs of the steps that change it
    ModelAxis axes[LAB_AXIS_COUNT];
    TourWorld world;
    Presets storedPresets;
    MotionJudge motions;
    bool atRest = false;      // nothing is under way, so that only a save may look at the axes
    bool calibrating = false; // perhaps: it ends at a moment that nobody sees

    /// When the save that is to come unprompted was armed, in lab time at the earliest.
    std::optional<int64_t> saveArmedNs() const
    {
        return storing_ == Storing::NEVER ? std::nullopt : save_;
    }
    /// A daemon that has just started on the settings and found the axes where they are.
    void start();
    /// What the daemon answers to the step, which was called and answered with `reply` at these lab times. Judges its
    /// requests.
    std::string expect(const Step& step, const std::string& reply, int64_t calledNs, int64_t repliedNs);
    /// Judges what threads did up to the end of what is loaded.
    void judgeThreads();
    /// True once nothing is under way any more, as far as loaded.
    bool hasSettled() const;
    void settle();
    /// What the file of the daemon's package must hold, option by option; "-" where it is missing.
    std::map<std::string, std::string> storedOptions() const;
    /// A speed that the calibration corrected goes to the file with the next commit, at the start perhaps at once.
    bool mayHold(const std::string& option, const std::string& value) const;
    /// True when a calibration has corrected a speed, or may have, and no commit has followed.
    bool speedsDiffer() const;
    std::string describe() const;

private:
    using Method = void (HeadModel::*)(const Step&);
    static const std::map<std::string, Method> METHODS;

    // Requests of the event loop, in order; each throws unless it is the next. False: the device failed.
    bool ask(LabAxisId axis, const std::string& request, const Words* words = nullptr);
    bool askBoth(const std::string& request);
    bool drive(const Pair& speeds, const Pair& steps, bool fromStatus = false);
    bool nextIs(const std::string& request) const;

    // Common steps of the methods. Those that may refuse say so.
    Pair coordinates(const Step& step, bool limited = false) const; // refuses those that are missing or out of limits
    Pair relative(const Pair& way) const;                           // refuses those that have no way to go
    void refuseBusy(bool panoramaCounts = true);
    void look();          // refuses when the devices do
    void haltIfRunning(); // likewise
    void halt();
    bool go(Begin kind, const Pair& speeds, const Pair& steps, bool fromStatus = false);
    void begin(Begin kind);
    void cancelStep();
    void saveNow(bool halted);
    void leavesMask();
    void seeRest();
    void armSave();
    void commit();
    bool stillCalibrating();
    bool loadFlip();

    int64_t toSteps(LabAxisId axis, int64_t coordinate) const;
    Pair wayTo(const Pair& steps) const;
    Pair storedOrHome() const;
    Pair maxSpeeds() const;
    int32_t sign(LabAxisId axis) const;
    bool running() const;
    int64_t position(LabAxisId axis) const;

    void fold(const LabJournalEntry& entry);
    void judgeUpTo(size_t end);
    void judgeThread(const LabJournalEntry& entry);
    void judgeSaveRead(const LabJournalEntry& entry);
    void judgeTour(const LabJournalEntry& entry);
    void judgeWorker(const LabJournalEntry& entry);
    void queueCalibration(const Pair& returnSteps);

    void move(const Step& step);
    void moveTo(const Step& step);
    void stop(const Step&);
    void moveStep(const Step& step);
    void startPanorama(const Step&);
    void movePanorama(const Step& step);
    void stopPanorama(const Step&);
    void targetTrack(const Step& step);
    void targetTrackBack(const Step&);
    void reloadTargetTrack(const Step&);
    void lensMask(const Step&);
    void setConfig(const Step& step);
    void setPowerOffRecover(const Step& step);
    void manualCalibrate(const Step&);
    void test(const Step& step);
    void updateImage(const Step&);
    void checkMotorStatus(const Step&);
    void getStatus(const Step&);
    void getCapa(const Step&);
    void reloadTour(const Step& step);

    int64_t presetSteps(LabAxisId axis, const PresetSlot& preset, int64_t position) const;
    void setFactor(const Step& step, const char* argument, LabAxisId axis);
    void gotoPreset(const Step& step);
    void setPreset(const Step& step);
    void delPreset(const Step& step);
    void clearPreset(const Step&);
    void getPresetAll(const Step&);
    void setPlan(const Step& step);
    void readPresets();
    void savePresets();
    void savePendingPlan(const std::function<bool(const PlanRange&)>& isLost);

    Evidence& evidence_;
    int64_t calledNs_ = 0;
    std::string reply_;
    int32_t replied_ = 0; // the code that the daemon gave
    std::string before_;  // of the expected reply, before the code and after it
    std::string after_;

    std::optional<int64_t> save_;
    /// Whether a position may be stored: not while the mask is on, until a mask off has come to rest. After a mask that
    /// failed, until a command has taken the head out of its zone.
    enum class Storing { FREE, NEVER, ONCE_AT_REST } storing_ = Storing::FREE;
    int64_t endsBefore_ = 0; // what motions.ends() was when storing became ONCE_AT_REST
    Words readings_[LAB_AXIS_COUNT]{Words(WORDS), Words(WORDS)};
    bool recover_ = true;
    bool panorama_ = false;
    bool mask_ = false;
    bool track_ = false;
    int flip_ = 0;
    enum class StepMove { NONE, RUNS, FADES } stepMove_ = StepMove::NONE;
    int64_t stepDirection_ = 0;
    bool stepStopsTilt_ = false; // the closing stop of pan was seen
    bool saveReadPan_ = false;
    bool saveReadRunning_ = false;
    /// While a save is being committed, its next expiry may come, whose thread finds nothing left to do.
    std::optional<int64_t> saveCommitsFromNs_{};
    std::deque<WorkerRequest> worker_; // what is left of a calibration or a test
    Plan pendingPlan_;
    Words tourReadings_[LAB_AXIS_COUNT]{Words(WORDS), Words(WORDS)};
    std::string tourDid_; // its latest request that succeeded
    int64_t tourReadNs_ = 0;
};
