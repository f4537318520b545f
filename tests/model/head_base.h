#pragma once
// What the model's methods share, and the rules of the daemon's threads.
//
// The model runs after the daemon: it goes through the requests that the daemon sent, takes the devices' answers from
// the journal, and throws a Mismatch where the daemon did something else than the rules say. What the devices answered
// is thereby known also in mid-motion and after faults.

#include "evidence.h"
#include "motion_judge.h"
#include "steps.h"
#include "tours.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <strings.h>

enum Code : int32_t {
    CODE_OK = 0,
    CODE_DEVICE = -64301,
    CODE_PARAM = -64302,
    CODE_CALIBRATING = -64303,
    CODE_NO_TRAVEL = -64304,
    CODE_MOVING = -64305,
    CODE_FULL = -64306,
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

inline void refuse(bool condition, Code code)
{
    if (condition)
        throw Refusal{code};
}

inline constexpr int64_t SAVE_PERIOD_NS = 10 * SECOND_NS;
inline constexpr int32_t MASK_COORDINATE = -61;

using Pair = std::array<int64_t, LAB_AXIS_COUNT>; // of pan and tilt
using Words = std::vector<int32_t>;               // of a device's record
enum { SPEED_WORD = 1, STEPS_WORD = 2, RUNNING_WORD = 3, WORDS = 5 };

inline constexpr Pair NO_SPEEDS{}; // the configured ones count

/// A value for each axis.
template <typename Value>
Pair forEach(Value value)
{
    return {value(LAB_PAN), value(LAB_TILT)};
}

/// Decimal text as a number; what is out of range saturates, what is no number is 0.
inline int64_t number(const std::string& text)
{
    return std::clamp<int64_t>(strtoll(text.c_str(), nullptr, 10), INT32_MIN, INT32_MAX);
}

/// What is in the settings files, which outlives a daemon.
struct Files {
    std::map<std::string, std::string> switches; // by the verbs of the steps that change them; "-": missing
    std::optional<int32_t> steps[LAB_AXIS_COUNT];
    std::optional<int32_t> speeds[LAB_AXIS_COUNT];
    Presets presets;
    Plan plan;
    TourSettings tour;
    std::vector<Wall> walls{{0, 0}};

    bool isOn(const std::string& verb) const
    {
        return strcasecmp(switches.at(verb).c_str(), "on") == 0;
    }
};

inline constexpr const char* SECTIONS[] = {"x_motor", "y_motor"};

inline std::string optionText(const std::optional<int32_t>& value)
{
    return value ? std::to_string(*value) : "-";
}

struct ModelAxis {
    LabAxisSetting made;
    int32_t lower; // limits and home in coordinates
    int32_t upper;
    int32_t home;
    // Where the axis is, or will be once its motion is over. Count and shaft differ after a failed calibration.
    int32_t count;
    int32_t shaft;
    bool moving;
    std::optional<int32_t> speedOption; // as the daemon holds it

    int64_t toSteps(int64_t coordinate) const
    {
        return coordinate * made.total_steps / made.range + made.total_steps / 2;
    }
    /// Follows the axis through a request.
    void fold(const LabJournalEntry& entry)
    {
        const auto clamped = [&](int64_t steps) {
            return static_cast<int32_t>(std::clamp<int64_t>(steps, 0, made.total_steps));
        };
        if (entry.result == 0 && entry.request == "SET_POSITION")
            count = clamped(entry.stepsWord());
        require(moving || (entry.count == count && entry.shaft == shaft),
                "the axis is not where it was: " + textOf(entry) + ", expected at " + std::to_string(count));
        moving = entry.rate != 0;
        count = clamped(int64_t{entry.count} + entry.left);
        shaft = clamped(int64_t{entry.shaft} + entry.left);
    }
};

class HeadBase {
public:
    /// A daemon that has just started on the files and found the axes as they are.
    HeadBase(Evidence& evidence, Files& files, const LabOptions& options, const LabAxisNow (&found)[LAB_AXIS_COUNT])
        : files_(files),
          evidence_(evidence), world{.settings = {files.tour}, .plans = {files.plan}, .walls = files.walls}
    {
        const auto axis = [&](LabAxisId id, const LabAxisSetting& made, int32_t lower, int32_t upper, int32_t home) {
            const LabAxisNow& now = found[id];
            return ModelAxis{made, lower, upper, home, now.count, now.shaft, now.running != 0, files.speeds[id]};
        };
        axes[LAB_PAN] = axis(LAB_PAN, options.pan, -150, 150, 0);
        axes[LAB_TILT] = axis(LAB_TILT, options.tilt, -39, 61, -6);
        recover_ = files.switches.at("@recover") != "0";
        track_ = files.isOn("@track");
        mask_ = world.held = files.isOn("@mask");
        storing_ = mask_ ? Storing::NEVER : Storing::FREE;
        (void)loadFlip();
        Pair goals = recover_ ? storedOrHome() : home();
        if (mask_)
            goals[LAB_TILT] = axes[LAB_TILT].toSteps(MASK_COORDINATE);
        queueCalibration(goals);
        require(askBoth("GET_CAPA"), "the capability is not read");
        evidence_.requireLoopDone("a request too many at the start");
    }
    HeadBase(const HeadBase&) = delete;

    ModelAxis axes[LAB_AXIS_COUNT];
    bool atRest = false;      // nothing is under way, so that only a save may look at the axes
    bool calibrating = false; // perhaps: it ends at a moment that nobody sees

    /// What the daemon answers to the step, which was called and answered with `reply` at these lab times. Judges its
    /// requests.
    std::string expect(const Step& step, const std::string& reply, int64_t calledNs, int64_t repliedNs)
    {
        while (evidence_.at < evidence_.entries.size() && evidence_.entries[evidence_.at].labNs < calledNs)
            judgeUpTo(evidence_.at + 1);
        motions.follow(calledNs);
        seeRest();
        calledNs_ = calledNs;
        const size_t code = reply.find("_code\":");
        require(code != std::string::npos, "no code in the reply " + reply);
        replied_ = atoi(reply.c_str() + code + 7);
        before_.clear();
        after_.clear();
        if (step.verb.ends_with("Preset"))
            world.remember();
        Code expected = CODE_OK;
        try {
            methods_.at(step.verb)(step);
        } catch (const Refusal& refusal) {
            expected = refusal.code;
        }
        world.changedNs = std::min(world.changedNs, repliedNs);
        world.held = mask_ || panorama_;
        const std::set<std::string> shortNamed{"checkMotorStatus", "lensMask", "reloadTargetTrackConfig"};
        return "{" + before_ + (shortNamed.contains(step.verb) ? "\"err_code\":" : "\"error_code\":") +
               std::to_string(expected) + after_ + "}";
    }
    /// Another program has set the wall clock, or stored another tour.
    void takeSettings(bool tour)
    {
        world.walls = files_.walls;
        if (!tour)
            return;
        motions.mayReload();
        world.settings.push_back(files_.tour);
    }
    /// When the save that is to come unprompted was armed, in lab time at the earliest.
    std::optional<int64_t> saveArmedNs() const
    {
        return storing_ == Storing::NEVER ? std::nullopt : save_;
    }
    /// Judges what threads did up to the end of what is loaded.
    void judgeThreads()
    {
        judgeUpTo(evidence_.nextOfLoop());
        evidence_.requireLoopDone("a request that no method made");
    }
    /// True once nothing is under way any more, as far as loaded.
    bool hasSettled() const
    {
        return worker_.empty() && stepMove_ != StepMove::RUNS && motions.rests();
    }
    void settle()
    {
        motions.keep([](const MotionState& state) { return state.rests(); }, "no rest");
        calibrating = false;
        seeRest();
        stepMove_ = StepMove::NONE;
        atRest = true;
        saveCommitsFromNs_.reset();
        for (ModelAxis& axis : axes)
            axis.moving = false;
    }
    /// True when a calibration has corrected a speed, or may have, and no commit has followed.
    bool speedsDiffer() const
    {
        return axes[LAB_PAN].speedOption != files_.speeds[LAB_PAN] ||
               axes[LAB_TILT].speedOption != files_.speeds[LAB_TILT];
    }
    std::string describe() const
    {
        return motions.describe() + (worker_.empty() ? "" : ", rotations missing") +
               (stepMove_ == StepMove::RUNS ? ", a step not ended" : "");
    }

protected:
    // Requests of the event loop, in order; each throws unless it is the next. False: the device failed.

    bool nextIs(const std::string& request) const
    {
        return !evidence_.loopIsDone() && evidence_.entries[evidence_.nextOfLoop()].request == request;
    }
    bool ask(LabAxisId axis, const std::string& request, const Words* words = nullptr)
    {
        const size_t next = evidence_.nextOfLoop();
        const std::string wanted = "\"" + textOf(axis, request, words ? *words : Words{}) + "\"";
        require(next < evidence_.entries.size(), "the request " + wanted + " is missing");
        judgeUpTo(next);
        const LabJournalEntry& entry = evidence_.entries[evidence_.at++];
        require(entry.axis == axis && entry.request == request && (!words || entry.in == *words),
                "the request " + textOf(entry) + " instead of " + wanted);
        axes[axis].fold(entry);
        if (request == "GET_STATUS" && entry.result == 0)
            readings_[axis] = entry.out;
        return entry.result == 0;
    }
    /// Tilt is neither asked nor stopped once pan has failed.
    bool askBoth(const std::string& request)
    {
        return ask(LAB_PAN, request) && ask(LAB_TILT, request);
    }
    bool drive(const Pair& speeds, const Pair& steps, bool fromStatus = false)
    {
        bool done = true;
        for (const LabAxisId axis : AXES) {
            Words words = fromStatus ? readings_[axis] : Words(WORDS);
            words[SPEED_WORD] = static_cast<int32_t>(speeds[axis]);
            words[STEPS_WORD] = static_cast<int32_t>(steps[axis]);
            done = ask(axis, "MOVE", &words) && done;
        }
        return done;
    }

    // Common steps of the methods.

    /// Refuses coordinates that are missing, or out of limits where these count.
    Pair coordinates(const Step& step, bool limited = false) const
    {
        return forEach([&](LabAxisId axis) {
            const auto text = step.argument(axis == LAB_PAN ? "x_coord" : "y_coord");
            refuse(!text, CODE_PARAM);
            const int64_t coordinate = sign(axis) * number(*text);
            refuse(limited && (coordinate < axes[axis].lower || coordinate > axes[axis].upper), CODE_PARAM);
            return coordinate;
        });
    }
    /// The steps of a relative motion; refuses one that has no way to go.
    Pair relative(const Pair& way) const
    {
        return forEach([&](LabAxisId id) {
            const ModelAxis& axis = axes[id];
            const int64_t goal = position(id) + way[id] * axis.made.total_steps / axis.made.range;
            const int64_t steps = std::clamp(goal, axis.toSteps(axis.lower), axis.toSteps(axis.upper)) - position(id);
            refuse(way[id] != 0 && steps == 0, CODE_NO_TRAVEL);
            return steps;
        });
    }
    void refuseBusy(bool panoramaCounts = true)
    {
        refuse(stillCalibrating(), CODE_CALIBRATING);
        refuse(mask_, CODE_LENS_MASK);
        refuse(panorama_ && panoramaCounts, CODE_PANORAMA);
    }
    void look()
    {
        refuse(!askBoth("GET_STATUS"), CODE_DEVICE);
    }
    void halt()
    {
        cancelStep();
        refuse(!askBoth("STOP"), CODE_DEVICE);
    }
    void haltIfRunning()
    {
        if (running())
            halt();
    }
    /// A cancelled step may have ended unprompted just before; afterwards its thread must stop nothing any more.
    void cancelStep()
    {
        const bool acts = !evidence_.loopIsDone();
        if (acts)
            judgeUpTo(evidence_.nextOfLoop());
        if (stepMove_ == StepMove::NONE)
            return;
        require(!stepStopsTilt_, "a step stopped pan only");
        motions.change([](MotionState& state) { state.begins -= state.begins > 0 ? 1 : 0; }, false);
        stepMove_ = acts ? StepMove::NONE : StepMove::FADES;
    }
    /// Every begin is followed by a move request of the same handler.
    void begin(Begin kind)
    {
        require(nextIs("MOVE"), "a move request is missing");
        const int64_t from = evidence_.lastOfLoopNs();
        atRest = false;
        cancelStep();
        motions.begin(kind, from, evidence_.nextOfLoopNs(WHENEVER));
        if (kind != Begin::MASK)
            leavesMask();
    }
    bool go(Begin kind, const Pair& speeds, const Pair& steps, bool fromStatus = false)
    {
        begin(kind);
        return drive(speeds, steps, fromStatus);
    }
    /// A command takes the head somewhere else; out of the zone of a mask that is not on.
    void leavesMask()
    {
        if (mask_ || storing_ != Storing::NEVER)
            return;
        storing_ = Storing::ONCE_AT_REST;
        endsBefore_ = motions.ends();
    }
    void seeRest()
    {
        if (storing_ == Storing::ONCE_AT_REST && motions.ends() > endsBefore_)
            storing_ = Storing::FREE;
    }
    void armSave()
    {
        if (recover_)
            save_ = evidence_.lastOfLoopNs();
    }
    void commit()
    {
        for (const LabAxisId axis : AXES)
            files_.speeds[axis] = axes[axis].speedOption;
    }
    void storePosition()
    {
        for (const LabAxisId axis : AXES)
            files_.steps[axis] = readings_[axis][STEPS_WORD];
    }
    /// A handler saves the position itself, if it may and the axes rest; one that is due is given up in any case. The
    /// daemon reads the axes again only if it may save.
    void saveNow(bool halted)
    {
        save_.reset();
        motions.follow(evidence_.lastOfLoopNs());
        seeRest();
        const bool reads = nextIs("GET_STATUS");
        require(reads || storing_ != Storing::FREE, "the position is not stored");
        require(!reads || storing_ != Storing::NEVER, "a position of the mask's zone is stored");
        if (!reads)
            return;
        if (storing_ == Storing::ONCE_AT_REST) {
            // The head rests, and the status poll may have seen it just now. Not if it turned until this handler
            // stopped it.
            require(!halted, "a position is stored on the way out of the mask's zone");
            storing_ = Storing::FREE;
        }
        const auto before = readings_;
        if (askBoth("GET_STATUS") && !running()) {
            storePosition();
            commit();
        }
        readings_ = before;
    }
    /// The flag falls at a moment that nobody sees: what the daemon answered shows it, within what is possible.
    bool stillCalibrating()
    {
        if (!calibrating)
            return false;
        if (replied_ == CODE_CALIBRATING && evidence_.loopIsDone())
            return true;
        judgeUpTo(evidence_.nextOfLoop());
        require(worker_.empty(), "a calibration is not over, but its flag is");
        motions.follow(evidence_.nextOfLoopNs(WHENEVER));
        motions.keep([](const MotionState& state) { return state.calibration == 0; },
                     "a calibration has not announced its end, but its flag is down");
        calibrating = false;
        return false;
    }
    bool loadFlip()
    {
        const std::string text = files_.switches.at("@flip") == "-" ? "" : files_.switches.at("@flip");
        int flip = 0;
        for (const std::string name : {"off", "left_and_right", "up_and_down", "center"}) {
            if (name.starts_with(text)) {
                flip_ = flip;
                return true;
            }
            ++flip;
        }
        return false;
    }
    void queueCalibration(const Pair& returnSteps)
    {
        calibrating = true;
        motions.change([](MotionState& state) { state.calibration = 1; });
        for (const LabAxisId id : AXES) {
            const LabAxisSetting& made = axes[id].made;
            const int64_t total = made.total_steps;
            const int32_t stored = axes[id].speedOption.value_or(-1);
            axes[id].speedOption = stored > 0 && stored <= made.max_speed ? stored : 4;
            worker_.push_back({id, "SET_POSITION", returnSteps[id]});
            worker_.push_back({id, "SET_SPEED", made.max_speed});
            for (const int64_t way : {-total, total, returnSteps[id] - total})
                worker_.push_back({id, "ROTATE", way});
            worker_.push_back({id, "SET_SPEED", *axes[id].speedOption});
        }
    }

    int64_t position(LabAxisId axis) const
    {
        return readings_[axis][STEPS_WORD];
    }
    static bool isRunning(const std::array<Words, LAB_AXIS_COUNT>& readings)
    {
        return readings[LAB_PAN][RUNNING_WORD] != 0 || readings[LAB_TILT][RUNNING_WORD] != 0;
    }
    bool running() const
    {
        return isRunning(readings_);
    }
    int32_t sign(LabAxisId axis) const
    {
        return (flip_ & (axis == LAB_PAN ? 1 : 2)) != 0 ? -1 : 1;
    }
    Pair wayTo(const Pair& steps) const
    {
        return forEach([&](LabAxisId axis) { return steps[axis] - position(axis); });
    }
    Pair toSteps(const Pair& coordinates) const
    {
        return forEach([&](LabAxisId axis) { return axes[axis].toSteps(coordinates[axis]); });
    }
    Pair home() const
    {
        return toSteps({axes[LAB_PAN].home, axes[LAB_TILT].home});
    }
    Pair storedOrHome() const
    {
        return forEach([&](LabAxisId axis) {
            const int32_t stored = files_.steps[axis].value_or(-1);
            return stored < 0 ? home()[axis] : stored;
        });
    }
    Pair maxSpeeds() const
    {
        return forEach([&](LabAxisId axis) { return axes[axis].made.max_speed; });
    }
    Pair readSpeeds() const
    {
        return forEach([&](LabAxisId axis) { return readings_[axis][SPEED_WORD]; });
    }
    int64_t presetSteps(LabAxisId axis, const PresetSlot& preset, int64_t from) const
    {
        const float target = (preset.position[axis] + 1.0F) * static_cast<float>(axes[axis].made.total_steps) * 0.5F;
        return static_cast<int64_t>(target - static_cast<float>(from));
    }
    int64_t factoredSpeed(LabAxisId axis, const std::array<float, 2>& factors) const
    {
        return static_cast<int64_t>(static_cast<float>(axes[axis].made.max_speed) * factors[axis]);
    }

    // What the threads did.

    void judgeUpTo(size_t end)
    {
        while (evidence_.at < end)
            judgeThread(evidence_.entries[evidence_.at++]);
    }
    void judgeThread(const LabJournalEntry& entry)
    {
        axes[entry.axis].fold(entry);
        if (evidence_.lasting.contains(entry.thread)) {
            judgeTour(entry);
        } else if (entry.request == "GET_STATUS") {
            if (atRest)
                judgeSaveRead(entry);
        } else if (entry.request == "STOP" && stepMove_ != StepMove::NONE) {
            require(entry.axis == (stepStopsTilt_ ? LAB_TILT : LAB_PAN), "the end of a step stops in disorder");
            if (stepStopsTilt_)
                stepMove_ = StepMove::NONE;
            stepStopsTilt_ = !stepStopsTilt_;
        } else {
            judgeWorker(entry);
        }
    }
    /// The touring thread looks at the axes, halts them if one runs, begins and drives.
    void judgeTour(const LabJournalEntry& entry)
    {
        atRest = false;
        const bool ran = isRunning(tourReadings_);
        const std::map<std::string, std::string> mustFollow = {
            {"x STOP", ran ? "y GET_STATUS" : "a running axis"},
            {"x MOVE", ran ? "y STOP" : "y GET_STATUS"},
            {"y GET_STATUS", "x GET_STATUS"},
            {"y STOP", "x STOP"},
            {"y MOVE", "x MOVE"},
        };
        const std::string request = textOf(entry.axis, entry.request);
        const auto due = mustFollow.find(request);
        require(request == "x GET_STATUS" || (due != mustFollow.end() && due->second == tourDid_),
                "a tour sends " + textOf(entry) + " after \"" + tourDid_ + "\"");
        tourDid_ = entry.result == 0 || entry.request == "MOVE" ? request : "";
        if (request == "x GET_STATUS")
            tourReadNs_ = entry.labNs;
        if (entry.request == "GET_STATUS")
            tourReadings_[entry.axis] = entry.result == 0 ? entry.out : Words(WORDS);
        if (entry.request != "MOVE") {
            if (entry.result != 0)
                motions.tourFails(entry.labNs);
            return;
        }
        const auto may = [&](Presets presets, const std::array<float, 2>& factors, const MotionState& state) {
            const bool scans = world.settings[state.setting].type == 1;
            const PresetSlot* preset = presetWithId(presets, state.preset);
            if (scans ? entry.axis == LAB_TILT : !preset)
                return false;
            const int64_t from = tourReadings_[entry.axis][STEPS_WORD];
            const int64_t steps =
                scans ? axes[LAB_PAN].toSteps(state.scanCoord) - from : presetSteps(entry.axis, *preset, from);
            const auto speed = static_cast<int32_t>(factoredSpeed(entry.axis, factors));
            return entry.in == Words{0, speed, static_cast<int32_t>(steps), 0, 0};
        };
        const auto fits = [&](const MotionState& state) {
            return may(world.presets, world.factors, state) ||
                   (world.justChanged(tourReadNs_) &&
                    (may(world.presetsBefore, world.factors, state) || may(world.presets, world.factorsBefore, state)));
        };
        if (entry.axis == LAB_PAN)
            motions.tourDrives(entry, fits);
        else
            motions.keep(fits, "a tour drives tilt: " + textOf(entry));
    }
    /// At rest nobody but a save that is due reads the axes.
    void judgeSaveRead(const LabJournalEntry& entry)
    {
        if (!save_ && saveCommitsFromNs_ && entry.labNs >= *saveCommitsFromNs_ + SAVE_PERIOD_NS)
            return;
        require(save_.has_value(), "a thread reads the axes at rest although no save is due");
        require(storing_ == Storing::FREE, "a save reads the axes although it may not store them");
        require(entry.labNs >= *save_ + SAVE_PERIOD_NS, "a save comes too early");
        require(entry.axis == (saveReadPan_ ? LAB_TILT : LAB_PAN), "a save reads the axes in disorder");
        saveReadPan_ = entry.result == 0 && !saveReadPan_;
        saveReadRunning_ = (saveReadRunning_ && !saveReadPan_) || (entry.result == 0 && entry.out[RUNNING_WORD] != 0);
        if (saveReadPan_)
            return;
        if (entry.result != 0 || saveReadRunning_) { // it is tried again at the next expiry; a driver may slow down
            *save_ += SAVE_PERIOD_NS;
            return;
        }
        for (const LabAxisId axis : AXES)
            files_.steps[axis] = axes[axis].count;
        saveCommitsFromNs_ = *save_ + SAVE_PERIOD_NS;
        save_.reset();
        commit();
    }
    void judgeWorker(const LabJournalEntry& entry)
    {
        if (entry.request != JOURNAL_ROTATE_END) {
            require(!worker_.empty() && stepMove_ != StepMove::RUNS,
                    "a thread sends " + textOf(entry) + ", which nobody asked for");
            stepMove_ = StepMove::NONE;
            const WorkerRequest& due = worker_.front();
            const int32_t word = due.request == "SET_SPEED" ? entry.speedWord() : entry.stepsWord();
            require(entry.axis == due.axis && entry.request == due.request && word == due.word,
                    "a thread sends " + textOf(entry) + " instead of " + due.request + " " + std::to_string(due.word));
            worker_.pop_front();
        }
        if (entry.result == 0 || (entry.request != "ROTATE" && entry.request != JOURNAL_ROTATE_END))
            return;
        while (!worker_.empty() && worker_.front().request == "ROTATE")
            worker_.pop_front(); // the other rotations of that axis, or of the whole test
    }

    Files& files_;
    Evidence& evidence_;

    // The call that is being judged.
    std::map<std::string, std::function<void(const Step&)>> methods_;
    int64_t calledNs_ = 0;
    int32_t replied_ = 0; // the code that the daemon gave
    std::string before_;  // of the expected reply, before the code and after it
    std::string after_;
    std::array<Words, LAB_AXIS_COUNT> readings_{Words(WORDS), Words(WORDS)};

    // What the daemon keeps in mind.
    bool recover_ = true;
    bool panorama_ = false;
    bool mask_ = false;
    bool track_ = false;
    int flip_ = 0;
    enum class StepMove { NONE, RUNS, FADES } stepMove_ = StepMove::NONE;
    int64_t stepDirection_ = 0;
    bool stepStopsTilt_ = false; // the closing stop of pan was seen
    /// Whether a position may be stored: not while the mask is on, until a mask off has come to rest. After a mask that
    /// failed, until a command has taken the head out of its zone.
    enum class Storing { FREE, NEVER, ONCE_AT_REST } storing_ = Storing::FREE;
    int64_t endsBefore_ = 0;      // what motions.ends() was when storing became ONCE_AT_REST
    std::optional<int64_t> save_; // when it was armed
    bool saveReadPan_ = false;
    bool saveReadRunning_ = false;
    /// While a save is being committed, its next expiry may come, whose thread finds nothing left to do.
    std::optional<int64_t> saveCommitsFromNs_;
    /// A request that the calibration or the test is to make.
    struct WorkerRequest {
        LabAxisId axis;
        std::string request;
        int64_t word;
    };
    std::deque<WorkerRequest> worker_;
    std::array<Words, LAB_AXIS_COUNT> tourReadings_{Words(WORDS), Words(WORDS)};
    std::string tourDid_; // its latest request that succeeded
    int64_t tourReadNs_ = 0;

public:
    TourWorld world;
    MotionJudge motions{evidence_, world};
};
