// The model's methods but those of presets and plan.

#include "head_model.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <set>
#include <strings.h>

namespace {

constexpr int32_t MASK_COORDINATE = -61;
constexpr Pair NO_SPEEDS{}; // the configured ones count

std::string field(const std::string& name, int64_t value)
{
    return "\"" + name + "\":\"" + std::to_string(value) + "\"";
}

} // namespace

int64_t number(const std::string& text)
{
    return std::clamp<int64_t>(strtoll(text.c_str(), nullptr, 10), INT32_MIN, INT32_MAX);
}

const std::map<std::string, HeadModel::Method> HeadModel::METHODS = {
    {"move", &HeadModel::move},
    {"moveTo", &HeadModel::moveTo},
    {"stop", &HeadModel::stop},
    {"moveStep", &HeadModel::moveStep},
    {"startPanorama", &HeadModel::startPanorama},
    {"movePanorama", &HeadModel::movePanorama},
    {"stopPanorama", &HeadModel::stopPanorama},
    {"targetTrack", &HeadModel::targetTrack},
    {"targetTrackBack", &HeadModel::targetTrackBack},
    {"reloadTargetTrackConfig", &HeadModel::reloadTargetTrack},
    {"lensMask", &HeadModel::lensMask},
    {"setConfig", &HeadModel::setConfig},
    {"setPowerOffRecover", &HeadModel::setPowerOffRecover},
    {"manualCalibrate", &HeadModel::manualCalibrate},
    {"test", &HeadModel::test},
    {"updateImageConfig", &HeadModel::updateImage},
    {"checkMotorStatus", &HeadModel::checkMotorStatus},
    {"getStatus", &HeadModel::getStatus},
    {"getCapa", &HeadModel::getCapa},
    {"reload_tour_info", &HeadModel::reloadTour},
    {"reload_scan_tour", &HeadModel::reloadTour},
    {"gotoPreset", &HeadModel::gotoPreset},
    {"setPreset", &HeadModel::setPreset},
    {"delPreset", &HeadModel::delPreset},
    {"clearPreset", &HeadModel::clearPreset},
    {"getPresetAll", &HeadModel::getPresetAll},
    {"set_plan_config", &HeadModel::setPlan},
};

std::string HeadModel::expect(const Step& step, const std::string& reply, int64_t calledNs, int64_t repliedNs)
{
    while (evidence_.at < evidence_.entries.size() && evidence_.entries[evidence_.at].labNs < calledNs)
        judgeUpTo(evidence_.at + 1);
    motions.follow(calledNs);
    seeRest();
    calledNs_ = calledNs;
    reply_ = reply;
    const size_t code = reply.find("_code\":");
    require(code != std::string::npos, "no code in the reply " + reply);
    replied_ = atoi(reply.c_str() + code + 7);
    before_.clear();
    after_.clear();
    if (step.verb.ends_with("Preset"))
        world.remember();
    Code expected = CODE_OK;
    try {
        (this->*METHODS.at(step.verb))(step);
    } catch (const Refusal& refusal) {
        expected = refusal.code;
    }
    world.changedNs = std::min(world.changedNs, repliedNs);
    world.held = mask_ || panorama_;
    const bool shortName =
        std::set<std::string>{"checkMotorStatus", "lensMask", "reloadTargetTrackConfig"}.contains(step.verb);
    return "{" + before_ + (shortName ? "\"err_code\":" : "\"error_code\":") + std::to_string(expected) + after_ + "}";
}

void HeadModel::move(const Step& step)
{
    const Pair way = coordinates(step);
    refuseBusy();
    look();
    const Pair steps = relative(way);
    haltIfRunning();
    const bool done = go(Begin::USER, NO_SPEEDS, steps);
    armSave();
    refuse(!done, CODE_DEVICE);
}

void HeadModel::moveTo(const Step& step)
{
    const Pair target = coordinates(step, true);
    refuseBusy();
    look();
    haltIfRunning();
    const Pair speeds = forEach([&](LabAxisId axis) { return readings_[axis][SPEED_WORD]; });
    const Pair steps = wayTo(forEach([&](LabAxisId axis) { return toSteps(axis, target[axis]); }));
    const bool done = go(Begin::USER, speeds, steps, true);
    armSave();
    refuse(!done, CODE_DEVICE);
}

void HeadModel::stop(const Step&)
{
    refuseBusy();
    cancelStep();
    const bool stopped = askBoth("STOP");
    motions.stop(calledNs_, evidence_.lastOfLoopNs());
    armSave();
    refuse(!stopped, CODE_DEVICE);
}

void HeadModel::moveStep(const Step& step)
{
    const auto text = step.argument("direction");
    const int64_t direction = number(text.value_or("-1"));
    refuse(direction < 0 || direction > 359, CODE_PARAM);
    refuseBusy();
    look();
    const bool isTilt = (direction >= 46 && direction <= 134) || (direction >= 226 && direction <= 314);
    const LabAxisId axis = isTilt ? LAB_TILT : LAB_PAN;
    const bool forward = (isTilt ? direction < 180 : direction <= 45 || direction >= 315) == (sign(axis) > 0);
    Pair steps{};
    steps[axis] = toSteps(axis, forward ? axes[axis].upper : axes[axis].lower) - position(axis);
    refuse(steps[axis] == 0, CODE_NO_TRAVEL);
    // Whether a step ran when the handler looked shows in what it did next.
    const bool isNew = nextIs("GET_STATUS");
    if (isNew) {
        const bool read = askBoth("GET_STATUS");
        require(stepMove_ != StepMove::RUNS, "a new step although one runs");
        stepMove_ = StepMove::NONE;
        refuse(!read || (running() && !askBoth("STOP")), CODE_DEVICE);
    } else {
        require(stepMove_ != StepMove::NONE, "a step goes on although none runs");
        if (stepDirection_ == direction)
            return armSave();
        const bool panStops = ask(LAB_PAN, "STOP");
        const bool tiltStops = ask(LAB_TILT, "STOP");
        refuse(!panStops || !tiltStops, CODE_DEVICE);
        // The motion may have come to its end at a limit.
        motions.mayChange([](MotionState& state) { ++state.begins; });
    }
    motions.follow(evidence_.lastOfLoopNs());
    const size_t first = evidence_.nextOfLoop();
    atRest = false;
    const bool done = drive(NO_SPEEDS, steps);
    for (size_t i = first; i < evidence_.at; ++i)
        motions.stepMoves.insert(i);
    refuse(!done, CODE_DEVICE);
    if (isNew)
        motions.change([](MotionState& state) { ++state.begins; });
    leavesMask();
    stepMove_ = StepMove::RUNS;
    stepDirection_ = direction;
    armSave();
}

void HeadModel::startPanorama(const Step&)
{
    refuseBusy(false);
    panorama_ = false; // if it fails
    look();
    const bool turned = running();
    haltIfRunning();
    saveNow(turned);
    const Pair start{toSteps(LAB_PAN, sign(LAB_PAN) * -150), toSteps(LAB_TILT, sign(LAB_TILT) * -10)};
    refuse(!go(Begin::USER, maxSpeeds(), wayTo(start), true), CODE_DEVICE);
    panorama_ = true;
}

void HeadModel::movePanorama(const Step& step)
{
    const Pair way = coordinates(step, true);
    look();
    const Pair steps = relative(way);
    haltIfRunning();
    refuse(!go(Begin::USER, maxSpeeds(), steps), CODE_DEVICE);
}

void HeadModel::stopPanorama(const Step&)
{
    panorama_ = false;
    look();
    haltIfRunning();
    refuse(!go(Begin::USER, maxSpeeds(), wayTo(storedOrHome()), true), CODE_DEVICE);
}

void HeadModel::targetTrack(const Step& step)
{
    const Pair way = coordinates(step);
    const auto speed = [&](LabAxisId axis) {
        const auto text = step.argument(axis == LAB_PAN ? "x_speed" : "y_speed");
        refuse(!text, CODE_PARAM);
        return std::clamp<int64_t>(number(*text), 1, axes[axis].made.max_speed);
    };
    const Pair speeds = forEach(speed);
    refuseBusy();
    look();
    refuse(running(), CODE_CALIBRATING);
    // A save that is due is one of a user's command, whatever origin the motion has kept.
    const bool asksOrigin = !save_ && storing_ == Storing::FREE;
    const bool saves = nextIs("GET_STATUS");
    if (asksOrigin)
        motions.keepOrigin(saves, {ORIGIN_USER, ORIGIN_TOUR},
                           saves ? "the position is stored again in the middle of a tracking"
                                 : "the position before a tracking is not stored");
    if (save_ || saves)
        saveNow(false);
    const Pair steps = relative(way);
    refuse(!go(Begin::TRACK, speeds, steps), CODE_DEVICE);
}

void HeadModel::targetTrackBack(const Step&)
{
    motions.change([this](MotionState& state) { state.endTracking(calledNs_); });
    refuseBusy();
    refuse(!axes[LAB_PAN].stored || !axes[LAB_TILT].stored, CODE_DEVICE);
    look();
    if (running()) {
        const bool halts = nextIs("STOP");
        motions.keepOrigin(halts, {ORIGIN_TRACK},
                           halts ? "a return stops a motion that is no tracking"
                                 : "a return does not end the tracking");
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
    const Pair speeds = forEach([&](LabAxisId axis) { return readings_[axis][SPEED_WORD]; });
    refuse(!go(Begin::RETURN, speeds, steps, true), CODE_DEVICE);
}

void HeadModel::reloadTargetTrack(const Step& step)
{
    const bool before = track_;
    track_ = strcasecmp(settings["@track"].c_str(), "on") == 0;
    if (!before || track_ || mask_)
        return;
    if (calibrating && evidence_.loopIsDone() && replied_ == CODE_OK)
        return;
    (void)stillCalibrating();
    refuse(panorama_, CODE_PANORAMA);
    look();
    const bool ran = running();
    if (ran) {
        const bool halts = nextIs("STOP");
        motions.keepOrigin(halts, {ORIGIN_TRACK},
                           halts ? "the end of tracking stops another motion" : "the end of tracking does not stop it");
        refuse(halts && !askBoth("STOP"), CODE_DEVICE);
    }
    if (!evidence_.loopIsDone()) {
        if (ran)
            motions.keepOrigin(false, {ORIGIN_RETURN}, "a return begins twice");
        try {
            targetTrackBack(step);
        } catch (const Refusal&) { // which the switch is not answered with
        }
        return;
    }
    const bool lost = !axes[LAB_PAN].stored || !axes[LAB_TILT].stored;
    require(lost || (ran && motions.mayBe(ORIGIN_RETURN)), "the end of tracking does not return the head");
    if (lost)
        motions.change([this](MotionState& state) { state.endTracking(calledNs_); });
}

void HeadModel::lensMask(const Step&)
{
    refuse(stillCalibrating(), CODE_CALIBRATING);
    refuse(panorama_, CODE_PANORAMA);
    const bool wanted = strcasecmp(settings["@mask"].c_str(), "on") == 0;
    refuse(wanted && mask_, CODE_LENS_MASK);
    if (wanted == mask_)
        return;
    look();
    haltIfRunning();
    motions.follow(evidence_.lastOfLoopNs());
    seeRest();
    // Whether the status poll has just seen the head rest cannot be known.
    if (wanted && storing_ == Storing::ONCE_AT_REST && !running())
        throw Inconclusive{};
    begin(Begin::MASK);
    Pair steps = wayTo(storedOrHome());
    if (wanted) {
        for (const LabAxisId axis : AXES)
            if (storing_ == Storing::FREE)
                axes[axis].stored = static_cast<int32_t>(position(axis));
        save_.reset();
        storing_ = Storing::NEVER;
        commit();
        steps = {0, toSteps(LAB_TILT, MASK_COORDINATE) - position(LAB_TILT)};
    }
    refuse(!drive(maxSpeeds(), steps, true), CODE_DEVICE);
    mask_ = wanted;
    leavesMask();
}

void HeadModel::setConfig(const Step& step)
{
    const bool refused = stillCalibrating();
    const std::optional<std::string> speeds[] = {step.argument("x_speed"), step.argument("y_speed")};
    Code code = speeds[LAB_PAN] || speeds[LAB_TILT] || step.argument("sustain") ? CODE_OK : CODE_PARAM;
    for (const LabAxisId axis : AXES) {
        if (refused || !speeds[axis])
            continue;
        const int64_t speed = number(*speeds[axis]);
        if (speed < 1 || speed > axes[axis].made.max_speed) {
            code = CODE_PARAM;
            continue;
        }
        const Words words{0, static_cast<int32_t>(speed), 0, 0, 0};
        (void)ask(axis, "SET_SPEED", &words);
        axes[axis].speedOption = words[SPEED_WORD];
    }
    commit();
    refuse(refused, CODE_CALIBRATING);
    refuse(code != CODE_OK, code);
}

void HeadModel::setPowerOffRecover(const Step& step)
{
    commit();
    const int64_t recover = number(step.argument("recover").value_or("-1"));
    refuse(recover != 0 && recover != 1, CODE_PARAM);
    recover_ = recover == 1;
    settings["@recover"] = std::to_string(recover);
}

void HeadModel::manualCalibrate(const Step&)
{
    refuseBusy();
    look();
    haltIfRunning();
    cancelStep();
    motions.follow(evidence_.lastOfLoopNs());
    atRest = false;
    leavesMask();
    queueCalibration(forEach([&](LabAxisId axis) { return toSteps(axis, axes[axis].home); }));
    armSave();
}

void HeadModel::test(const Step& step)
{
    const auto times = step.argument("times");
    refuse(!times, CODE_PARAM);
    atRest = false;
    for (int64_t pass = 0; pass < number(*times); ++pass)
        for (const LabAxisId axis : AXES)
            for (const int64_t way : {-1, 1})
                worker_.push_back({axis, "ROTATE", way * axes[axis].made.total_steps});
}

void HeadModel::updateImage(const Step&)
{
    refuse(!loadFlip(), CODE_DEVICE);
}

void HeadModel::checkMotorStatus(const Step&)
{
    refuse(stillCalibrating(), CODE_CALIBRATING);
}

void HeadModel::getStatus(const Step&)
{
    look();
    const auto coordinate = [this](LabAxisId axis) {
        const LabAxisSetting& made = axes[axis].made;
        return sign(axis) * (made.range * position(axis) / made.total_steps - made.range / 2);
    };
    const auto speed = [this](LabAxisId axis) {
        const Words& words = readings_[axis];
        return words[SPEED_WORD] * sign(axis) * words[3] * words[4];
    };
    after_ = ",\"status\":{" + field("x_coord", coordinate(LAB_PAN)) + "," + field("y_coord", coordinate(LAB_TILT)) +
             "," + field("x_speed", speed(LAB_PAN)) + "," + field("y_speed", speed(LAB_TILT)) + "}";
}

void HeadModel::getCapa(const Step&)
{
    const LabAxisSetting& pan = axes[LAB_PAN].made;
    const LabAxisSetting& tilt = axes[LAB_TILT].made;
    after_ = ",\"capability\":{" + field("x_coord_min", -(pan.range / 2)) + "," + field("x_coord_max", pan.range / 2) +
             "," + field("y_coord_min", -(tilt.range / 2)) + "," + field("y_coord_max", tilt.range / 2) + "," +
             field("x_max_speed", pan.max_speed) + "," + field("y_max_speed", tilt.max_speed) +
             R"(,"simultaneous":"disabled","preset":"enabled","calibrate":"enabled"})";
}

void HeadModel::reloadTour(const Step& step)
{
    motions.change(
        [&](MotionState& state) { (step.verb == "reload_tour_info" ? state.reloadsTour : state.reloadsScan) = true; });
}
