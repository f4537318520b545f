#pragma once
// The steps that the model's methods share.
//
// The model runs after the daemon: it goes through the requests that the daemon sent, takes the devices' answers from
// the journal, and throws a Mismatch where the daemon did something else than the rules say. What the devices answered
// is thereby known also in mid-motion and after faults.

#include "head_threads.h"
#include "steps.h"

#include <functional>
#include <set>

class HeadBase : public HeadThreads {
public:
    HeadBase(Evidence& evidence, Files& files, const LabOptions& options, const LabAxisNow (&found)[LAB_AXIS_COUNT])
        : HeadThreads(evidence, files, options, found)
    {
        recover_ = files.switches.at("@recover") != "0";
        track_ = files.isOn("@track");
        (void)loadFlip();
        Pair goals = recover_ ? storedOrHome() : home();
        if (mask_)
            goals[LAB_TILT] = axes[LAB_TILT].toSteps(MASK_COORDINATE);
        queueCalibration(goals);
        require(askBoth("GET_CAPA"), "the capability is not read");
        evidence_.requireLoopDone("a request too many at the start");
    }

    /// What the daemon answers to the step, which was called and answered with `reply` at these lab times. Judges its
    /// requests.
    std::string expect(const Step& step, const std::string& reply, int64_t calledNs, int64_t repliedNs)
    {
        while (evidence_.at < evidence_.entries.size() && evidence_.entries[evidence_.at].labNs < calledNs)
            judgeUpTo(evidence_.at + 1);
        motions.follow(calledNs);
        seeRest();
        calledNs_ = calledNs;
        const size_t at = reply.find("_code\":");
        require(at != std::string::npos, "no code in the reply " + reply);
        replied_ = atoi(reply.c_str() + at + 7);
        before_.clear();
        after_.clear();
        if (step.verb.ends_with("Preset"))
            world.remember();
        Code expected = CODE_OK;
        try {
            methods_.at(step.verb)(step);
        } catch (const Code code) {
            expected = code;
        }
        world.changedNs = std::min(world.changedNs, repliedNs);
        world.held = mask_ || panorama_;
        const std::set<std::string> shortNamed{"checkMotorStatus", "lensMask", "reloadTargetTrackConfig"};
        return "{" + before_ + (shortNamed.contains(step.verb) ? "\"err_code\":" : "\"error_code\":") +
               std::to_string(expected) + after_ + "}";
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
            reading_.words[axis] = entry.out;
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
            Words words = fromStatus ? reading_.words[axis] : Words(WORDS);
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

    // The call that is being judged.
    std::map<std::string, std::function<void(const Step&)>> methods_;
    int64_t calledNs_ = 0;
    int32_t replied_ = 0; // the code that the daemon gave
    std::string before_;  // of the expected reply, before the code and after it
    std::string after_;
};
