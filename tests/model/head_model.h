#pragma once
// The rules of the daemon's methods in their plainest form: a function a method.

#include "head_base.h"

#include <json-c/json_pointer.h>

class HeadModel : public HeadBase {
public:
    HeadModel(Evidence& evidence, Files& files, const LabOptions& options, const LabAxisNow (&found)[LAB_AXIS_COUNT])
        : HeadBase(evidence, files, options, found)
    {
        addMotions();
        addTracking();
        addSettings();
        for (auto& [id, position] : files.presets) // with the digits that are stored
            for (float& axis : position)
                axis = strtof(std::to_string(axis).c_str(), nullptr);
        world.now.presets = files.presets;
        addPresets();
    }

private:
    void addMotions()
    {
        methods_["move"] = [this](const Step& step) {
            const Pair way = coordinates(step);
            refuseBusy();
            look();
            const Pair steps = relative(way);
            haltIfRunning();
            const bool done = go(Begin::USER, NO_SPEEDS, steps);
            armSave();
            refuse(!done, CODE_DEVICE);
        };
        methods_["moveTo"] = [this](const Step& step) {
            const Pair target = coordinates(step, true);
            refuseBusy();
            look();
            haltIfRunning();
            const bool done = go(Begin::USER, reading_.of(SPEED_WORD), wayTo(toSteps(target)), true);
            armSave();
            refuse(!done, CODE_DEVICE);
        };
        methods_["stop"] = [this](const Step&) {
            refuseBusy();
            cancelStep();
            const bool stopped = askBoth("STOP");
            if (nextIs("GET_STATUS"))
                (void)askBoth("GET_STATUS"); // for the subscriber, if a motion ends
            motions.stop(calledNs_, evidence_.lastOfLoopNs());
            armSave();
            refuse(!stopped, CODE_DEVICE);
        };
        methods_["moveStep"] = [this](const Step& step) {
            const int64_t direction = number(step.argument("direction").value_or("-1"));
            refuse(direction < 0 || direction > 359, CODE_PARAM);
            refuseBusy();
            look();
            const bool isTilt = (direction >= 46 && direction <= 134) || (direction >= 226 && direction <= 314);
            const LabAxisId axis = isTilt ? LAB_TILT : LAB_PAN;
            const bool forward = (isTilt ? direction < 180 : direction <= 45 || direction >= 315) == (sign(axis) > 0);
            Pair steps{};
            steps[axis] = axes[axis].toSteps(forward ? axes[axis].upper : axes[axis].lower) - position(axis);
            refuse(steps[axis] == 0, CODE_NO_TRAVEL);
            // Whether a step ran when the handler looked shows in what it did next.
            const bool isNew = nextIs("GET_STATUS");
            if (isNew) {
                const bool read = askBoth("GET_STATUS");
                require(stepMove_ != StepMove::RUNS, "a new step although one runs");
                stepMove_ = StepMove::NONE;
                refuse(!read || (reading_.running() && !askBoth("STOP")), CODE_DEVICE);
            } else {
                require(stepMove_ != StepMove::NONE, "a step goes on although none runs");
                if (stepDirection_ == direction) {
                    motionsDue.push_back({.origin = "user", .placed = false, .overtakes = ran_});
                    return armSave();
                }
                const bool panStops = ask(LAB_PAN, "STOP");
                const bool tiltStops = ask(LAB_TILT, "STOP");
                refuse(!panStops || !tiltStops, CODE_DEVICE);
                // The motion may have come to its end at a limit.
                motions.change([](MotionState& state) { ++state.begins; }, false);
            }
            motions.follow(evidence_.lastOfLoopNs());
            atRest = false;
            origin_ = "user";
            refuse(!drive(NO_SPEEDS, steps, false, false), CODE_DEVICE);
            if (isNew)
                motions.change([](MotionState& state) { ++state.begins; });
            leavesMask();
            stepMove_ = StepMove::RUNS;
            stepDirection_ = direction;
            armSave();
        };
        methods_["startPanorama"] = [this](const Step&) {
            refuseBusy(false);
            panorama_ = false; // if it fails
            look();
            haltIfRunning();
            saveNow();
            const Pair start = toSteps({sign(LAB_PAN) * -150, sign(LAB_TILT) * -10});
            refuse(!go(Begin::USER, maxSpeeds(), wayTo(start), true), CODE_DEVICE);
            panorama_ = true;
        };
        methods_["movePanorama"] = [this](const Step& step) {
            const Pair way = coordinates(step, true);
            look();
            const Pair steps = relative(way);
            haltIfRunning();
            refuse(!go(Begin::USER, maxSpeeds(), steps), CODE_DEVICE);
        };
        methods_["stopPanorama"] = [this](const Step&) {
            panorama_ = false;
            look();
            haltIfRunning();
            refuse(!go(Begin::USER, maxSpeeds(), wayTo(storedOrHome()), true), CODE_DEVICE);
        };
    }
    void addTracking()
    {
        methods_["targetTrack"] = [this](const Step& step) {
            const Pair way = coordinates(step);
            const auto speed = [&](LabAxisId axis) {
                const auto text = step.argument(axis == LAB_PAN ? "x_speed" : "y_speed");
                refuse(!text, CODE_PARAM);
                return std::clamp<int64_t>(number(*text), 1, axes[axis].made.max_speed);
            };
            const Pair speeds = forEach(speed);
            refuseBusy();
            look();
            refuse(reading_.running(), CODE_CALIBRATING);
            // A save that is due is one of a user's command, whatever origin the motion has kept.
            const bool asksOrigin = !save_ && storing_ == Storing::FREE;
            const bool saves = nextIs("GET_STATUS");
            if (asksOrigin)
                motions.keepOrigin(saves, {ORIGIN_USER, ORIGIN_TOUR}, "storing the position before a tracking only");
            if (save_ || saves)
                saveNow();
            const Pair steps = relative(way);
            refuse(!go(Begin::TRACK, speeds, steps), CODE_DEVICE);
        };
        methods_["targetTrackBack"] = [this](const Step&) {
            motions.change([this](MotionState& state) { state.endTracking(calledNs_); });
            refuseBusy();
            refuse(!files_.steps[LAB_PAN] || !files_.steps[LAB_TILT], CODE_DEVICE);
            look();
            if (reading_.running()) {
                const bool halts = nextIs("STOP");
                motions.keepOrigin(halts, {ORIGIN_TRACK}, "a return stops a tracking only");
                refuse(!halts, CODE_CALIBRATING);
                halt();
                look();
            }
            const Pair steps = wayTo(storedOrHome());
            if (!nextIs("MOVE")) {
                if (steps != Pair{})
                    motions.keepOrigin(true, {ORIGIN_USER}, "a return does not move");
                return;
            }
            motions.keepOrigin(false, {ORIGIN_USER}, "a return although a user moved the head last");
            require(steps != Pair{}, "a return moves to where the head is");
            refuse(!go(Begin::RETURN, reading_.of(SPEED_WORD), steps, true), CODE_DEVICE);
        };
        methods_["reloadTargetTrackConfig"] = [this](const Step& step) {
            const bool before = track_;
            track_ = files_.isOn("@track");
            if (!before || track_ || mask_)
                return;
            if (calibrating && evidence_.loopIsDone() && replied_ == CODE_OK)
                return;
            (void)stillCalibrating();
            refuse(panorama_, CODE_PANORAMA);
            look();
            const bool ran = reading_.running();
            if (ran) {
                const bool halts = nextIs("STOP");
                motions.keepOrigin(halts, {ORIGIN_TRACK}, "the end of tracking stops a tracking only");
                refuse(halts && !askBoth("STOP"), CODE_DEVICE);
            }
            if (!evidence_.loopIsDone()) {
                if (ran)
                    motions.keepOrigin(false, {ORIGIN_RETURN}, "a return begins twice");
                try {
                    methods_["targetTrackBack"](step);
                } catch (const Code) { // which the switch is not answered with
                }
                return;
            }
            if (!files_.steps[LAB_PAN] || !files_.steps[LAB_TILT])
                return motions.change([this](MotionState& state) { state.endTracking(calledNs_); });
            require(ran, "the end of tracking does not return the head");
            motions.keepOrigin(true, {ORIGIN_RETURN}, "the end of tracking does not return the head");
        };
        methods_["lensMask"] = [this](const Step&) {
            refuse(stillCalibrating(), CODE_CALIBRATING);
            refuse(panorama_, CODE_PANORAMA);
            const bool wanted = files_.isOn("@mask");
            refuse(wanted && mask_, CODE_LENS_MASK);
            if (wanted == mask_)
                return;
            look();
            haltIfRunning();
            begin(Begin::MASK);
            Pair steps = wayTo(storedOrHome());
            if (wanted) {
                if (storing_ == Storing::FREE)
                    storePosition();
                save_.reset();
                storing_ = Storing::NEVER;
                commit();
                steps = {0, axes[LAB_TILT].toSteps(MASK_COORDINATE) - position(LAB_TILT)};
            }
            refuse(!drive(maxSpeeds(), steps, true), CODE_DEVICE);
            mask_ = wanted;
            leavesMask();
        };
    }
    void addSettings()
    {
        methods_["setConfig"] = [this](const Step& step) {
            const bool refused = stillCalibrating();
            bool given = step.argument("sustain").has_value();
            bool wrong = false;
            for (const LabAxisId axis : AXES) {
                const auto text = step.argument(axis == LAB_PAN ? "x_speed" : "y_speed");
                const Words words{0, static_cast<int32_t>(number(text.value_or("1"))), 0, 0, 0};
                const bool allowed = words[SPEED_WORD] >= 1 && words[SPEED_WORD] <= axes[axis].made.max_speed;
                given = given || text;
                wrong = wrong || !allowed;
                if (refused || !text || !allowed)
                    continue;
                (void)ask(axis, "SET_SPEED", &words);
                axes[axis].speedOption = words[SPEED_WORD];
            }
            commit();
            refuse(refused, CODE_CALIBRATING);
            refuse(!given || wrong, CODE_PARAM);
        };
        methods_["setPowerOffRecover"] = [this](const Step& step) {
            commit();
            const int64_t recover = number(step.argument("recover").value_or("-1"));
            refuse(recover != 0 && recover != 1, CODE_PARAM);
            recover_ = recover == 1;
            files_.switches["@recover"] = std::to_string(recover);
        };
        methods_["manualCalibrate"] = [this](const Step&) {
            refuseBusy();
            look();
            haltIfRunning();
            cancelStep();
            motions.follow(evidence_.lastOfLoopNs());
            atRest = false;
            leavesMask();
            queueCalibration(home());
            armSave();
        };
        methods_["reload_tour_info"] = methods_["reload_scan_tour"] = [this](const Step& step) {
            const bool tour = step.verb == "reload_tour_info";
            motions.change([tour](MotionState& state) { (tour ? state.reloadsTour : state.reloadsScan) = true; });
        };
        methods_["updateImageConfig"] = [this](const Step&) { refuse(!loadFlip(), CODE_DEVICE); };
        methods_["checkMotorStatus"] = [this](const Step&) { refuse(stillCalibrating(), CODE_CALIBRATING); };
        methods_["getStatus"] = [this](const Step&) { look(); };
    }
    void addPresets()
    {
        methods_["gotoPreset"] = [this](const Step& step) {
            const int64_t id = number(step.argument("id").value_or("0"));
            refuse(id < 1 || id > 8, CODE_PARAM);
            refuse(!world.now.presets.contains(id), CODE_PRESET);
            for (const LabAxisId axis : AXES) {
                const auto given = step.argument(axis == LAB_PAN ? "speed_pan" : "speed_tilt").value_or("1");
                world.now.factors[axis] = strtof(given.c_str(), nullptr);
            }
            refuseBusy();
            look();
            haltIfRunning();
            const Pair speeds = forEach([&](LabAxisId axis) { return factoredSpeed(axis, world.now.factors); });
            const auto steps = [&](LabAxisId axis) {
                return presetSteps(axis, world.now.presets.at(id), position(axis));
            };
            refuse(!go(Begin::PRESET, speeds, forEach(steps)), CODE_DEVICE);
            armSave();
        };
        methods_["setPreset"] = [this](const Step& step) {
            refuse(mask_, CODE_LENS_MASK);
            refuse(panorama_, CODE_PANORAMA);
            int64_t id = number(step.argument("id").value_or("1"));
            while (!step.argument("id") && world.now.presets.contains(id))
                ++id;
            Presets::mapped_type preset = world.now.presets[id];
            if (step.argument("save_ptz") == "1") {
                look();
                refuse(reading_.running(), CODE_MOVING);
                for (const LabAxisId axis : AXES)
                    preset[axis] = static_cast<float>(
                        2.0 * static_cast<double>(position(axis)) / axes[axis].made.total_steps - 1.0);
            }
            world.now.presets[id] = preset;
            savePresets();
        };
        methods_["delPreset"] = [this](const Step& step) {
            const Json ids = step.argument("id", json_type_array);
            refuse(!ids || json_object_array_length(ids.get()) == 0, CODE_PARAM);
            const int64_t id = json_object_get_int64(json_object_array_get_idx(ids.get(), 0));
            refuse(id < 1 || id > 8, CODE_PARAM);
            world.now.presets.erase(id);
            savePresets();
            plan_ = plan_ == id ? 0 : plan_;
            savePlan();
        };
        methods_["set_plan_config"] = [this](const Step& step) {
            json_object* id = nullptr;
            plan_.reset();
            if (const Json day = step.argument("monday", json_type_array)) {
                (void)json_pointer_get(day.get(), "/0/monday_1/action_id", &id);
                plan_ = json_object_get_int64(id);
            }
            savePlan();
        };
    }
    /// What is stored takes the place of all that the package holds.
    void savePresets()
    {
        files_.presets = world.now.presets;
        for (const LabAxisId axis : AXES)
            axes[axis].speedOption = files_.speeds[axis];
    }
    void savePlan()
    {
        files_.planned = plan_.value_or(files_.planned);
        world.plans.push_back(files_.planned);
    }

    std::optional<int64_t> plan_; // the latest request since the start
};
