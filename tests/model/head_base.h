#pragma once
// The rules of the daemon's threads, and the steps that the model's methods share.
//
// The model runs after the daemon: it goes through the requests that the daemon sent, takes the devices' answers from
// the journal, and throws a Mismatch where the daemon did something else than the rules say. What the devices answered
// is thereby known also in mid-motion and after faults.

#include "motion_judge.h"
#include "steps.h"
#include "subscriber.h"

#include <array>
#include <deque>
#include <functional>

#include <strings.h>

enum Code : int32_t {
    CODE_OK = 0,
    CODE_DEVICE = -64301,
    CODE_PARAM = -64302,
    CODE_CALIBRATING = -64303,
    CODE_NO_TRAVEL = -64304,
    CODE_MOVING = -64305,
    CODE_PRESET = -64321,
    CODE_LENS_MASK = -64324,
    CODE_PANORAMA = -64329,
};

/// A method goes no further and answers the code.
inline void refuse(bool condition, Code code)
{
    if (condition)
        throw code;
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

/// The latest status of both axes.
struct Reading {
    Words words[LAB_AXIS_COUNT]{Words(WORDS), Words(WORDS)};

    bool running() const
    {
        return words[LAB_PAN][RUNNING_WORD] != 0 || words[LAB_TILT][RUNNING_WORD] != 0;
    }
    Pair of(size_t word) const
    {
        return forEach([&](LabAxisId axis) { return words[axis][word]; });
    }
};

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
    int64_t planned = 0; // the preset that the plan asks for all day, 0: none
    TourSettings tour;

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
    int32_t count = 0; // where the axis is, or will be once its motion is over
    bool moving = false;
    std::optional<int32_t> speedOption{}; // as the daemon holds it

    int64_t toSteps(int64_t coordinate) const
    {
        return coordinate * made.total_steps / made.range + made.total_steps / 2;
    }
    int64_t toCoordinate(int64_t steps) const
    {
        return made.range * steps / made.total_steps - made.range / 2;
    }
    /// Follows the axis through a request.
    void fold(const LabJournalEntry& entry)
    {
        const auto clamped = [&](int64_t steps) {
            return static_cast<int32_t>(std::clamp<int64_t>(steps, 0, made.total_steps));
        };
        if (entry.result == 0 && entry.request == "SET_POSITION")
            count = clamped(entry.stepsWord());
        require(moving || entry.count == count,
                "the axis is not where it was: " + textOf(entry) + ", expected at " + std::to_string(count));
        moving = entry.rate != 0;
        count = clamped(int64_t{entry.count} + entry.left);
    }
};

class HeadBase {
public:
    /// A daemon that has just started on the files and found the axes as they are.
    HeadBase(Evidence& evidence, Files& files, const LabOptions& options, const LabAxisNow (&found)[LAB_AXIS_COUNT])
        : files_(files), evidence_(evidence), recover_(files.switches.at("@recover") != "0"),
          mask_(files.isOn("@mask")), track_(files.isOn("@track")),
          storing_(mask_ ? Storing::NEVER : Storing::FREE), world{.settings = {files.tour}, .plans = {files.planned}}
    {
        axes[LAB_PAN] = {options.pan, -150, 150, 0};
        axes[LAB_TILT] = {options.tilt, -39, 61, -6};
        for (const LabAxisId id : AXES) {
            axes[id].count = found[id].count;
            axes[id].moving = found[id].running != 0;
            axes[id].speedOption = files.speeds[id];
        }
        world.held = mask_;
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

    /// Another program has stored another tour.
    void takeTour()
    {
        motions.change([](MotionState&) {}); // what is asked for may have been loaded
        world.settings.push_back(files_.tour);
    }
    /// When the save that is to come unprompted was armed, in lab time at the earliest.
    std::optional<int64_t> saveArmedNs() const
    {
        return storing_ == Storing::NEVER ? std::nullopt : save_;
    }
    /// On the way out of the mask's zone, until a rest that the daemon may have seen already or not yet.
    bool leavesMasksZone() const
    {
        return storing_ == Storing::ONCE_AT_REST;
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
        storing_ = leavesMasksZone() ? Storing::FREE : storing_;
        stepMove_ = StepMove::NONE;
        atRest = true;
        saveCommitsFromNs_.reset();
        for (ModelAxis& axis : axes)
            axis.moving = false;
    }
    /// Judges the answer to the step, which was called and answered at these lab times, and the requests.
    void judge(const Step& step, const std::string& reply, int64_t calledNs, int64_t repliedNs)
    {
        while (evidence_.at < evidence_.entries.size() && evidence_.entries[evidence_.at].labNs < calledNs)
            judgeUpTo(evidence_.at + 1);
        motions.follow(calledNs);
        calledNs_ = calledNs;
        const size_t at = reply.find("_code\":");
        require(at != std::string::npos, "no code in the reply " + reply);
        replied_ = atoi(reply.c_str() + at + 7);
        if (step.verb.ends_with("Preset")) {
            world.before = world.now;
            world.changedNs = INT64_MAX;
        }
        const size_t begun = motionsDue.size();
        Code expected = CODE_OK;
        stops_ = cut_ = false;
        try {
            methods_.at(step.verb)(step);
        } catch (const Code code) {
            expected = code;
        }
        motionsDue.back().halted = motionsDue.back().halted || (stops_ && motionsDue.size() == begun);
        world.changedNs = std::min(world.changedNs, repliedNs);
        world.held = mask_ || panorama_;
        require(replied_ == expected, "answered " + reply + " instead of " + std::to_string(expected));
        evidence_.requireLoopDone("a request too many");
    }

protected:
    int64_t position(LabAxisId axis) const
    {
        return reading_.words[axis][STEPS_WORD];
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
    int64_t presetSteps(LabAxisId axis, const Presets::mapped_type& preset, int64_t from) const
    {
        const float target = (preset[axis] + 1.0F) * static_cast<float>(axes[axis].made.total_steps) * 0.5F;
        return static_cast<int64_t>(target - static_cast<float>(from));
    }
    int64_t factoredSpeed(LabAxisId axis, const std::array<float, 2>& factors) const
    {
        return static_cast<int64_t>(static_cast<float>(axes[axis].made.max_speed) * factors[axis]);
    }

    void commit()
    {
        for (const LabAxisId axis : AXES)
            files_.speeds[axis] = axes[axis].speedOption;
    }
    void queueCalibration(const Pair& returnSteps)
    {
        calibrating = true;
        motionsDue.push_back({.origin = "calibration", .placed = false, .overtakes = ran_});
        motions.change([](MotionState& state) { state.calibration = 1; });
        for (const LabAxisId id : AXES) {
            const LabAxisSetting& made = axes[id].made;
            const int64_t total = made.total_steps;
            const int32_t stored = axes[id].speedOption.value_or(-1);
            axes[id].speedOption = stored > 0 && stored <= made.max_speed ? stored : 4;
            const auto due = [&](const std::string& request, int64_t word) {
                worker_.push_back(textOf(id, request, {static_cast<int32_t>(word)}));
            };
            due("SET_POSITION", returnSteps[id]);
            due("SET_SPEED", made.max_speed);
            for (const int64_t way : {-total, total, returnSteps[id] - total})
                due("ROTATE", way);
            due("SET_SPEED", *axes[id].speedOption);
        }
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
        if (evidence_.lasting.contains(entry.thread) && textOf(entry.axis, entry.request) == "x MOVE")
            motionsDue.push_back({.origin = "tour"});
        motionsDue.back().failed = motionsDue.back().failed || entry.result != 0;
        if (evidence_.lasting.contains(entry.thread)) {
            judgeTour(entry);
        } else if (entry.request == "GET_STATUS") {
            if (atRest)
                judgeSaveRead(entry);
        } else if (entry.request == "STOP" && stepMove_ != StepMove::NONE) {
            stepMove_ = entry.axis == LAB_TILT ? StepMove::NONE : stepMove_;
        } else {
            judgeWorker(entry);
        }
    }
    /// The touring thread looks at the axes, halts them if one runs, begins and drives.
    void judgeTour(const LabJournalEntry& entry)
    {
        atRest = false;
        const bool ran = tourReading_.running();
        const std::string request = textOf(entry.axis, entry.request);
        require(request != "x MOVE" || tourDid_ == (ran ? "y STOP" : "y GET_STATUS"),
                "a tour sends " + textOf(entry) + " after \"" + tourDid_ + "\"");
        tourDid_ = entry.result == 0 || entry.request == "MOVE" ? request : "";
        if (request == "x GET_STATUS")
            tourReadNs_ = entry.labNs;
        if (entry.request == "GET_STATUS")
            tourReading_.words[entry.axis] = entry.result == 0 ? entry.out : Words(WORDS);
        if (entry.request != "MOVE") {
            if (entry.result != 0)
                motions.tourFails(entry.labNs);
            return;
        }
        const auto may = [&](const PresetsInUse& read, const MotionState& state) {
            const bool scans = world.settings[state.setting].type == 1;
            const auto preset = read.presets.find(state.preset);
            if (scans ? entry.axis == LAB_TILT : preset == read.presets.end())
                return false;
            const int64_t from = tourReading_.words[entry.axis][STEPS_WORD];
            const int64_t steps =
                scans ? axes[LAB_PAN].toSteps(state.scanCoord) - from : presetSteps(entry.axis, preset->second, from);
            const auto speed = static_cast<int32_t>(factoredSpeed(entry.axis, read.factors));
            return entry.in == Words{0, speed, static_cast<int32_t>(steps), 0, 0};
        };
        const auto fits = [&](const MotionState& state) {
            const auto read = world.readAt(tourReadNs_);
            return std::any_of(read.begin(), read.end(), [&](const auto& presets) { return may(presets, state); });
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
        const bool rests = entry.result == 0 && entry.out[RUNNING_WORD] == 0;
        savePanRests_ = entry.axis == LAB_PAN ? rests : savePanRests_;
        if (entry.axis == LAB_PAN && entry.result == 0)
            return;
        if (!rests || !savePanRests_) { // it is tried again at the next expiry; a driver may slow down
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
            const int32_t word = entry.request == "SET_SPEED" ? entry.speedWord() : entry.stepsWord();
            const std::string due = worker_.empty() || stepMove_ == StepMove::RUNS ? "nothing" : worker_.front();
            require(textOf(entry.axis, entry.request, {word}) == due,
                    "a thread sends " + textOf(entry) + " instead of " + due);
            stepMove_ = StepMove::NONE;
            worker_.pop_front();
        }
        const bool failed = entry.result != 0 && (entry.request == "ROTATE" || entry.request == JOURNAL_ROTATE_END);
        while (failed && !worker_.empty() && worker_.front().find("ROTATE") != std::string::npos)
            worker_.pop_front(); // the other rotations of that axis
    }

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
        stops_ = stops_ || request == "STOP";
        motionsDue.back().failed = motionsDue.back().failed || entry.result != 0;
        if (request == "GET_STATUS" && entry.result == 0)
            reading_.words[axis] = entry.out;
        return entry.result == 0;
    }
    /// Tilt is neither asked nor stopped once pan has failed.
    bool askBoth(const std::string& request)
    {
        return ask(LAB_PAN, request) && ask(LAB_TILT, request);
    }
    bool drive(const Pair& speeds, const Pair& steps, bool fromStatus = false, bool placed = true)
    {
        judgeUpTo(evidence_.nextOfLoop());
        const auto goal = [&](LabAxisId axis) {
            return std::to_string(sign(axis) * axes[axis].toCoordinate(position(axis) + steps[axis]));
        };
        motionsDue.push_back({origin_, std::pair(goal(LAB_PAN), goal(LAB_TILT)), placed, cut_ || !placed, ran_});
        bool done = true;
        for (const LabAxisId axis : AXES) {
            Words words = fromStatus ? reading_.words[axis] : Words(WORDS);
            words[SPEED_WORD] = static_cast<int32_t>(speeds[axis]);
            words[STEPS_WORD] = static_cast<int32_t>(steps[axis]);
            done = ask(axis, "MOVE", &words) && done;
        }
        motionsDue.back().refused = !done;
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
    Pair relative(const Pair& way)
    {
        return forEach([&](LabAxisId id) {
            const ModelAxis& axis = axes[id];
            const int64_t goal = position(id) + way[id] * axis.made.total_steps / axis.made.range;
            const int64_t steps = std::clamp(goal, axis.toSteps(axis.lower), axis.toSteps(axis.upper)) - position(id);
            refuse(way[id] != 0 && steps == 0, CODE_NO_TRAVEL);
            cut_ = cut_ || steps != goal - position(id);
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
        ran_ = reading_.running();
    }
    void halt()
    {
        cancelStep();
        refuse(!askBoth("STOP"), CODE_DEVICE);
    }
    void haltIfRunning()
    {
        if (reading_.running())
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
        motions.change([](MotionState& state) { state.begins -= state.begins > 0 ? 1 : 0; }, false);
        stepMove_ = acts ? StepMove::NONE : StepMove::FADES;
    }
    /// Every begin is followed by a move request of the same handler.
    void begin(Begin kind)
    {
        require(nextIs("MOVE"), "a move request is missing");
        origin_ = kind == Begin::TRACK ? "track" : kind == Begin::RETURN ? "return" : "user";
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
        if (!mask_ && storing_ == Storing::NEVER)
            storing_ = Storing::ONCE_AT_REST;
    }
    void armSave()
    {
        if (recover_)
            save_ = evidence_.lastOfLoopNs();
    }
    void storePosition()
    {
        for (const LabAxisId axis : AXES)
            files_.steps[axis] = reading_.words[axis][STEPS_WORD];
    }
    /// A handler saves the position itself, if it may and the axes rest; one that is due is given up in any case. The
    /// daemon reads the axes again only if it may save.
    void saveNow()
    {
        save_.reset();
        const bool reads = nextIs("GET_STATUS");
        require(storing_ == Storing::ONCE_AT_REST || reads == (storing_ == Storing::FREE),
                reads ? "a position of the mask's zone is stored" : "the position is not stored");
        if (!reads)
            return;
        storing_ = Storing::FREE;
        const Reading before = reading_;
        if (askBoth("GET_STATUS") && !reading_.running()) {
            storePosition();
            commit();
        }
        reading_ = before;
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
        const std::string names[] = {"off", "left_and_right", "up_and_down", "center"};
        const auto at = std::find_if(names, std::end(names), [&](const auto& name) { return name.starts_with(text); });
        const bool known = at != std::end(names);
        flip_ = known ? static_cast<int>(at - names) : flip_;
        return known;
    }

    // The call that is being judged.
    std::map<std::string, std::function<void(const Step&)>> methods_;
    int64_t calledNs_ = 0;
    int32_t replied_ = 0; // the code that the daemon gave
    std::string origin_;  // of the motion that it begins
    bool ran_ = false;    // whether the head moved when it looked
    bool cut_ = false;    // whether the travel cuts the displacement
    bool stops_ = false;  // whether it has sent a STOP

    Files& files_;
    Evidence& evidence_;

    Reading reading_;
    // What the daemon keeps in mind.
    bool recover_;
    bool mask_;
    bool track_;
    bool panorama_ = false;
    int flip_ = 0;
    enum class StepMove { NONE, RUNS, FADES } stepMove_ = StepMove::NONE;
    int64_t stepDirection_ = 0;
    /// Whether a position may be stored: not while the mask is on, until a mask off has come to rest. After a mask that
    /// failed, until a command has taken the head out of its zone.
    enum class Storing { FREE, NEVER, ONCE_AT_REST } storing_;
    std::optional<int64_t> save_; // when it was armed
    bool savePanRests_ = false;   // in the save that is being made
    /// While a save is being committed, its next expiry may come, whose thread finds nothing left to do.
    std::optional<int64_t> saveCommitsFromNs_;
    std::deque<std::string> worker_; // the requests that a calibration is to make
    Reading tourReading_;
    std::string tourDid_; // its latest request that succeeded
    int64_t tourReadNs_ = 0;

public:
    std::vector<MotionDue> motionsDue; // all that have begun
    TourWorld world;
    MotionJudge motions{evidence_, world};
};
