#pragma once
// What the model keeps in mind, and the rules of the daemon's threads.

#include "head_parts.h"
#include "motion_judge.h"

#include <deque>

class HeadThreads {
public:
    /// A daemon that has just started on the files and found the axes as they are.
    HeadThreads(Evidence& evidence, Files& files, const LabOptions& options, const LabAxisNow (&found)[LAB_AXIS_COUNT])
        : files_(files),
          evidence_(evidence), world{.settings = {files.tour}, .plans = {files.plan}, .walls = files.walls}
    {
        const auto axis = [&](LabAxisId id, const LabAxisSetting& made, int32_t lower, int32_t upper, int32_t home) {
            const LabAxisNow& now = found[id];
            return ModelAxis{made, lower, upper, home, now.count, now.shaft, now.running != 0, files.speeds[id]};
        };
        axes[LAB_PAN] = axis(LAB_PAN, options.pan, -150, 150, 0);
        axes[LAB_TILT] = axis(LAB_TILT, options.tilt, -39, 61, -6);
        mask_ = world.held = files.isOn("@mask");
        storing_ = mask_ ? Storing::NEVER : Storing::FREE;
    }
    HeadThreads(const HeadThreads&) = delete;

    ModelAxis axes[LAB_AXIS_COUNT];
    bool atRest = false;      // nothing is under way, so that only a save may look at the axes
    bool calibrating = false; // perhaps: it ends at a moment that nobody sees

    /// Another program has set the wall clock, or stored another tour.
    void takeSettings(bool tour)
    {
        world.walls = files_.walls;
        if (!tour)
            return;
        motions.change([](MotionState&) {}); // what is asked for may have been loaded
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
    int64_t presetSteps(LabAxisId axis, const PresetSlot& preset, int64_t from) const
    {
        const float target = (preset.position[axis] + 1.0F) * static_cast<float>(axes[axis].made.total_steps) * 0.5F;
        return static_cast<int64_t>(target - static_cast<float>(from));
    }
    int64_t factoredSpeed(LabAxisId axis, const std::array<float, 2>& factors) const
    {
        return static_cast<int64_t>(static_cast<float>(axes[axis].made.max_speed) * factors[axis]);
    }

    void seeRest()
    {
        if (storing_ == Storing::ONCE_AT_REST && motions.ends() > endsBefore_)
            storing_ = Storing::FREE;
    }
    void commit()
    {
        for (const LabAxisId axis : AXES)
            files_.speeds[axis] = axes[axis].speedOption;
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
        const bool ran = tourReading_.running();
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
            tourReading_.words[entry.axis] = entry.result == 0 ? entry.out : Words(WORDS);
        if (entry.request != "MOVE") {
            if (entry.result != 0)
                motions.tourFails(entry.labNs);
            return;
        }
        const auto may = [&](PresetsInUse& read, const MotionState& state) {
            const bool scans = world.settings[state.setting].type == 1;
            const PresetSlot* preset = presetWithId(read.presets, state.preset);
            if (scans ? entry.axis == LAB_TILT : !preset)
                return false;
            const int64_t from = tourReading_.words[entry.axis][STEPS_WORD];
            const int64_t steps =
                scans ? axes[LAB_PAN].toSteps(state.scanCoord) - from : presetSteps(entry.axis, *preset, from);
            const auto speed = static_cast<int32_t>(factoredSpeed(entry.axis, read.factors));
            return entry.in == Words{0, speed, static_cast<int32_t>(steps), 0, 0};
        };
        const auto fits = [&](const MotionState& state) {
            auto read = world.readAt(tourReadNs_);
            return std::any_of(read.begin(), read.end(), [&](auto& presets) { return may(presets, state); });
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

    Reading reading_;
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
    Reading tourReading_;
    std::string tourDid_; // its latest request that succeeded
    int64_t tourReadNs_ = 0;

public:
    TourWorld world;
    MotionJudge motions{evidence_, world};
};
