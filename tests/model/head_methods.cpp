// The model's methods.

#include "head_model.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <functional>
#include <strings.h>

namespace {

constexpr int32_t MASK_COORDINATE = -61;

bool within(const ModelAxis& axis, int64_t coordinate)
{
    return coordinate >= axis.lower && coordinate <= axis.upper;
}

std::function<bool(int)> is(Origin wanted)
{
    return [wanted](int origin) { return origin == wanted; };
}

std::function<bool(int)> isNot(Origin other)
{
    return std::not_fn(is(other));
}

std::string field(const std::string& name, int64_t value)
{
    return "\"" + name + "\":\"" + std::to_string(value) + "\"";
}

} // namespace

int64_t number(const std::string& text)
{
    size_t i = 0;
    while (i < text.size() && isspace(static_cast<unsigned char>(text[i])))
        ++i;
    const bool negative = i < text.size() && text[i] == '-';
    if (i < text.size() && (text[i] == '-' || text[i] == '+'))
        ++i;
    int64_t value = 0;
    for (; i < text.size() && isdigit(static_cast<unsigned char>(text[i])); ++i)
        value = std::min<int64_t>(value * 10 + (text[i] - '0'), int64_t{1} << 40);
    value = negative ? -value : value;
    return std::min<int64_t>(std::max<int64_t>(value, INT32_MIN), INT32_MAX);
}

std::string HeadModel::expect(const Step& step, const std::string& reply, int64_t calledNs, int64_t repliedNs)
{
    while (evidence_.at < evidence_.entries.size() && evidence_.entries[evidence_.at].labNs < calledNs)
        judgeThread(evidence_.entries[evidence_.at++]);
    motions.follow(calledNs);
    seeRest();
    calledNs_ = calledNs;
    reply_ = reply;

    const size_t colon = reply.find("_code\":");
    require(colon != std::string::npos, "no code in the reply " + reply);
    replied_ = static_cast<int32_t>(strtol(reply.c_str() + colon + 7, nullptr, 10));
    const std::string& method = step.verb;
    const bool shortName = method == "checkMotorStatus" || method == "lensMask" || method == "reloadTargetTrackConfig";

    if (method == "getStatus")
        return status();
    if (method == "getCapa")
        return capability();
    if (method == "getPresetAll")
        return presetList();
    if (method.ends_with("Preset"))
        world.remember();
    fields_.clear();
    const Code code = method == "move"                      ? move(step)
                      : method == "moveTo"                  ? moveTo(step)
                      : method == "stop"                    ? stop()
                      : method == "moveStep"                ? moveStep(step)
                      : method == "startPanorama"           ? startPanorama()
                      : method == "movePanorama"            ? movePanorama(step)
                      : method == "stopPanorama"            ? stopPanorama()
                      : method == "targetTrack"             ? targetTrack(step)
                      : method == "targetTrackBack"         ? targetTrackBack()
                      : method == "reloadTargetTrackConfig" ? reloadTargetTrack()
                      : method == "lensMask"                ? lensMask()
                      : method == "setConfig"               ? setConfig(step)
                      : method == "setPowerOffRecover"      ? setPowerOffRecover(step)
                      : method == "manualCalibrate"         ? manualCalibrate()
                      : method == "test"                    ? test(step)
                      : method == "updateImageConfig"       ? updateImage()
                      : method == "gotoPreset"              ? gotoPreset(step)
                      : method == "setPreset"               ? setPreset(step)
                      : method == "delPreset"               ? delPreset(step)
                      : method == "clearPreset"             ? clearPreset()
                      : method == "set_plan_config"         ? setPlan(step)
                      : method.starts_with("reload_")       ? CODE_OK
                      : stillCalibrating()                  ? CODE_CALIBRATING
                                                            : CODE_OK;
    if (save && save->latestNs == INT64_MAX)
        save->latestNs = repliedNs;
    if (method.starts_with("reload_"))
        motions.requestReload(method == "reload_tour_info");
    world.changedNs = std::min(world.changedNs, repliedNs);
    world.held = mask_ || panorama_;
    return "{" + fields_ + (shortName ? "\"err_code\":" : "\"error_code\":") + std::to_string(code) + "}";
}

std::string HeadModel::capability() const
{
    const LabAxisSetting& pan = axes[LAB_PAN].made;
    const LabAxisSetting& tilt = axes[LAB_TILT].made;
    return "{\"error_code\":0,\"capability\":{" + field("x_coord_min", -(pan.range / 2)) + "," +
           field("x_coord_max", pan.range / 2) + "," + field("y_coord_min", -(tilt.range / 2)) + "," +
           field("y_coord_max", tilt.range / 2) + "," + field("x_max_speed", pan.max_speed) + "," +
           field("y_max_speed", tilt.max_speed) +
           R"(,"simultaneous":"disabled","preset":"enabled","calibrate":"enabled"}})";
}

std::string HeadModel::status()
{
    if (!readStatus())
        return R"({"error_code":-64301})";
    const auto speed = [this](LabAxisId axis) {
        const std::vector<int32_t>& words = readings_[axis].words;
        return words[1] * sign(axis) * words[3] * words[4];
    };
    return "{\"error_code\":0,\"status\":{" +
           field("x_coord", toCoordinate(LAB_PAN, position(LAB_PAN)) * sign(LAB_PAN)) + "," +
           field("y_coord", toCoordinate(LAB_TILT, position(LAB_TILT)) * sign(LAB_TILT)) + "," +
           field("x_speed", speed(LAB_PAN)) + "," + field("y_speed", speed(LAB_TILT)) + "}}";
}

Code HeadModel::move(const Step& step)
{
    const auto x = step.argument("x_coord");
    const auto y = step.argument("y_coord");
    if (!x || !y)
        return CODE_PARAM;
    if (const Code code = busy())
        return code;
    if (!readStatus())
        return CODE_DEVICE;
    const int64_t dx = sign(LAB_PAN) * number(*x);
    const int64_t dy = sign(LAB_TILT) * number(*y);
    const int32_t pan = relative(LAB_PAN, dx);
    const int32_t tilt = relative(LAB_TILT, dy);
    if ((dx != 0 && pan == 0) || (dy != 0 && tilt == 0))
        return CODE_NO_TRAVEL;
    if (running() && !halt())
        return CODE_DEVICE;
    begin(Begin::USER);
    const Code code = drive(command(LAB_PAN, 0, pan, false), command(LAB_TILT, 0, tilt, false));
    armSave();
    return code;
}

Code HeadModel::moveTo(const Step& step)
{
    const auto x = step.argument("x_coord");
    const auto y = step.argument("y_coord");
    if (!x || !y)
        return CODE_PARAM;
    const int64_t pan = sign(LAB_PAN) * number(*x);
    const int64_t tilt = sign(LAB_TILT) * number(*y);
    if (!within(axes[LAB_PAN], pan) || !within(axes[LAB_TILT], tilt))
        return CODE_PARAM;
    if (const Code code = busy())
        return code;
    if (!readStatus() || (running() && !halt()))
        return CODE_DEVICE;
    begin(Begin::USER);
    const Code code =
        drive(command(LAB_PAN, readings_[LAB_PAN].speed(), toSteps(LAB_PAN, pan) - position(LAB_PAN), true),
              command(LAB_TILT, readings_[LAB_TILT].speed(), toSteps(LAB_TILT, tilt) - position(LAB_TILT), true));
    armSave();
    return code;
}

Code HeadModel::stop()
{
    if (const Code code = busy())
        return code;
    cancelStep();
    const bool stopped = ask(LAB_PAN, "STOP") && ask(LAB_TILT, "STOP");
    motions.stop(calledNs_, evidence_.lastOfLoopNs());
    armSave();
    return stopped ? CODE_OK : CODE_DEVICE;
}

Code HeadModel::moveStep(const Step& step)
{
    const auto text = step.argument("direction");
    if (!text)
        return CODE_PARAM;
    const int64_t direction = number(*text);
    if (direction < 0 || direction > 359)
        return CODE_PARAM;
    if (const Code code = busy())
        return code;
    if (!readStatus())
        return CODE_DEVICE;
    const bool isTilt = (direction >= 46 && direction <= 134) || (direction >= 226 && direction <= 314);
    const LabAxisId axis = isTilt ? LAB_TILT : LAB_PAN;
    const bool forward = (isTilt ? direction < 180 : direction <= 45 || direction >= 315) == (sign(axis) > 0);
    const int32_t way = toSteps(axis, forward ? axes[axis].upper : axes[axis].lower) - position(axis);
    if (way == 0)
        return CODE_NO_TRAVEL;
    return aimStep(static_cast<int32_t>(direction), command(LAB_PAN, 0, isTilt ? 0 : way, false),
                   command(LAB_TILT, 0, isTilt ? way : 0, false));
}

Code HeadModel::aimStep(int32_t direction, const std::vector<int32_t>& pan, const std::vector<int32_t>& tilt)
{
    // Whether a step ran when the handler looked shows in what it did next.
    const bool isNew = nextIs("GET_STATUS");
    if (isNew) {
        const bool read = readStatus();
        require(stepMove_ != StepMove::RUNS, "a new step although one runs");
        stepMove_ = StepMove::NONE;
        if (!read || (running() && !(ask(LAB_PAN, "STOP") && ask(LAB_TILT, "STOP"))))
            return CODE_DEVICE;
    } else {
        require(stepMove_ != StepMove::NONE, "a step goes on although none runs");
        if (stepDirection_ == direction) {
            armSave();
            return CODE_OK;
        }
        const bool panStops = ask(LAB_PAN, "STOP");
        const bool tiltStops = ask(LAB_TILT, "STOP");
        if (!panStops || !tiltStops)
            return CODE_DEVICE;
        motions.addBegin(false); // the motion may have come to its end at a limit
    }
    motions.follow(evidence_.lastOfLoopNs());
    const size_t first = evidence_.nextOfLoop();
    atRest = false;
    const Code code = drive(pan, tilt);
    for (size_t i = first; i < evidence_.at; ++i)
        motions.stepMoves.insert(i);
    if (code != CODE_OK)
        return code;
    if (isNew)
        motions.addBegin(true);
    leavesMask();
    stepMove_ = StepMove::RUNS;
    stepDirection_ = direction;
    armSave();
    return CODE_OK;
}

Code HeadModel::startPanorama()
{
    if (const Code code = busy(false))
        return code;
    panorama_ = true;
    bool done = readStatus();
    const bool halted = done && running();
    done = done && (!halted || halt());
    if (done) {
        Reading before[] = {readings_[LAB_PAN], readings_[LAB_TILT]};
        saveNow(halted);
        readings_[LAB_PAN] = before[LAB_PAN];
        readings_[LAB_TILT] = before[LAB_TILT];
        begin(Begin::USER);
        const int32_t pan = toSteps(LAB_PAN, sign(LAB_PAN) * -150) - position(LAB_PAN);
        const int32_t tilt = toSteps(LAB_TILT, sign(LAB_TILT) * -10) - position(LAB_TILT);
        done = drive(command(LAB_PAN, axes[LAB_PAN].made.max_speed, pan, true),
                     command(LAB_TILT, axes[LAB_TILT].made.max_speed, tilt, true)) == CODE_OK;
    }
    panorama_ = done;
    return done ? CODE_OK : CODE_DEVICE;
}

Code HeadModel::movePanorama(const Step& step)
{
    const auto x = step.argument("x_coord");
    const auto y = step.argument("y_coord");
    if (!x || !y)
        return CODE_PARAM;
    const int64_t dx = sign(LAB_PAN) * number(*x);
    const int64_t dy = sign(LAB_TILT) * number(*y);
    if (!within(axes[LAB_PAN], dx) || !within(axes[LAB_TILT], dy))
        return CODE_PARAM;
    if (!readStatus())
        return CODE_DEVICE;
    const int32_t pan = relative(LAB_PAN, dx);
    const int32_t tilt = relative(LAB_TILT, dy);
    if ((dx != 0 && pan == 0) || (dy != 0 && tilt == 0))
        return CODE_NO_TRAVEL;
    if (running() && !halt())
        return CODE_DEVICE;
    begin(Begin::USER);
    return drive(command(LAB_PAN, axes[LAB_PAN].made.max_speed, pan, false),
                 command(LAB_TILT, axes[LAB_TILT].made.max_speed, tilt, false));
}

Code HeadModel::stopPanorama()
{
    panorama_ = false;
    if (!readStatus() || (running() && !halt()))
        return CODE_DEVICE;
    begin(Begin::USER);
    return drive(command(LAB_PAN, axes[LAB_PAN].made.max_speed, storedOrHome(LAB_PAN) - position(LAB_PAN), true),
                 command(LAB_TILT, axes[LAB_TILT].made.max_speed, storedOrHome(LAB_TILT) - position(LAB_TILT), true));
}

Code HeadModel::targetTrack(const Step& step)
{
    const auto x = step.argument("x_coord");
    const auto y = step.argument("y_coord");
    const auto xSpeed = step.argument("x_speed");
    const auto ySpeed = step.argument("y_speed");
    if (!x || !y || !xSpeed || !ySpeed)
        return CODE_PARAM;
    if (const Code code = busy())
        return code;
    if (!readStatus())
        return CODE_DEVICE;
    if (running())
        return CODE_CALIBRATING;
    const Reading before[] = {readings_[LAB_PAN], readings_[LAB_TILT]};
    const auto ofOthers = [](int origin) { return origin == ORIGIN_USER || origin == ORIGIN_TOUR; };
    // A save that is due is one of a user's command, whatever origin the motion has kept.
    if (save || storing != Storing::FREE) {
        if (save || nextIs("GET_STATUS"))
            saveNow(false);
    } else if (nextIs("GET_STATUS")) {
        motions.keepOrigin(ofOthers, "the position is stored again in the middle of a tracking");
        saveNow(false);
    } else {
        motions.keepOrigin(std::not_fn(ofOthers), "the position before a tracking is not stored");
    }
    readings_[LAB_PAN] = before[LAB_PAN];
    readings_[LAB_TILT] = before[LAB_TILT];
    const int64_t dx = sign(LAB_PAN) * number(*x);
    const int64_t dy = sign(LAB_TILT) * number(*y);
    const int32_t pan = relative(LAB_PAN, dx);
    const int32_t tilt = relative(LAB_TILT, dy);
    if ((dx != 0 && pan == 0) || (dy != 0 && tilt == 0))
        return CODE_NO_TRAVEL;
    begin(Begin::TRACK);
    const auto speed = [](const std::string& text, const ModelAxis& axis) {
        return static_cast<int32_t>(std::max<int64_t>(1, std::min<int64_t>(number(text), axis.made.max_speed)));
    };
    return drive(command(LAB_PAN, speed(*xSpeed, axes[LAB_PAN]), pan, false),
                 command(LAB_TILT, speed(*ySpeed, axes[LAB_TILT]), tilt, false));
}

Code HeadModel::targetTrackBack()
{
    motions.endTracking(calledNs_);
    if (const Code code = busy())
        return code;
    if (!axes[LAB_PAN].stored || !axes[LAB_TILT].stored || !readStatus())
        return CODE_DEVICE;
    if (running()) {
        if (!nextIs("STOP")) {
            motions.keepOrigin(isNot(ORIGIN_TRACK), "a return does not end the tracking");
            return CODE_CALIBRATING;
        }
        motions.keepOrigin(is(ORIGIN_TRACK), "a return stops a motion that is no tracking");
        if (!halt() || !readStatus())
            return CODE_DEVICE;
    }
    const int32_t pan = storedOrHome(LAB_PAN) - position(LAB_PAN);
    const int32_t tilt = storedOrHome(LAB_TILT) - position(LAB_TILT);
    if (!nextIs("MOVE")) {
        if (pan != 0 || tilt != 0)
            motions.keepOrigin(is(ORIGIN_USER), "a return does not move");
        return CODE_OK;
    }
    motions.keepOrigin(isNot(ORIGIN_USER), "a return although a user moved the head last");
    require(pan != 0 || tilt != 0, "a return moves to where the head stands");
    begin(Begin::RETURN);
    return drive(command(LAB_PAN, readings_[LAB_PAN].speed(), pan, true),
                 command(LAB_TILT, readings_[LAB_TILT].speed(), tilt, true));
}

Code HeadModel::reloadTargetTrack()
{
    const bool before = track_;
    track_ = settings.track && strcasecmp(settings.track->c_str(), "on") == 0;
    if (!before || track_ || mask_)
        return CODE_OK;
    const bool silent = evidence_.nextOfLoop() == evidence_.entries.size();
    if (calibrating && silent && replied_ == CODE_OK)
        return CODE_OK;
    (void)stillCalibrating();
    if (panorama_)
        return CODE_PANORAMA;
    if (!readStatus())
        return CODE_DEVICE;
    const bool ran = running();
    if (ran && nextIs("STOP")) {
        motions.keepOrigin(is(ORIGIN_TRACK), "the end of tracking stops another motion");
        if (!ask(LAB_PAN, "STOP") || !ask(LAB_TILT, "STOP"))
            return CODE_DEVICE;
    } else if (ran) {
        motions.keepOrigin(isNot(ORIGIN_TRACK), "the end of tracking does not stop it");
    }
    if (evidence_.nextOfLoop() < evidence_.entries.size()) {
        if (ran)
            motions.keepOrigin(isNot(ORIGIN_RETURN), "a return begins twice");
        (void)targetTrackBack();
    } else {
        const bool lost = !axes[LAB_PAN].stored || !axes[LAB_TILT].stored;
        require(lost || (ran && motions.mayBe(ORIGIN_RETURN)), "the end of tracking does not return the head");
        if (lost)
            motions.endTracking(calledNs_);
    }
    return CODE_OK;
}

Code HeadModel::lensMask()
{
    if (stillCalibrating())
        return CODE_CALIBRATING;
    if (panorama_)
        return CODE_PANORAMA;
    const bool wanted = settings.mask && strcasecmp(settings.mask->c_str(), "on") == 0;
    if (wanted == mask_)
        return wanted ? CODE_LENS_MASK : CODE_OK;
    if (!readStatus() || (running() && !halt()))
        return CODE_DEVICE;
    motions.follow(evidence_.lastOfLoopNs());
    seeRest();
    const bool stores = storing == Storing::FREE;
    // Whether the status poll has just seen the head rest cannot be told.
    if (wanted && storing == Storing::ONCE_AT_REST && !running())
        throw Inconclusive{};
    begin(Begin::MASK);
    int32_t pan = 0;
    int32_t tilt = 0;
    if (wanted) {
        save.reset();
        storing = Storing::NEVER;
        for (const LabAxisId axis : {LAB_PAN, LAB_TILT})
            axes[axis].stored = stores ? position(axis) : axes[axis].stored;
        commit();
        tilt = toSteps(LAB_TILT, MASK_COORDINATE) - position(LAB_TILT);
    } else {
        pan = storedOrHome(LAB_PAN) - position(LAB_PAN);
        tilt = storedOrHome(LAB_TILT) - position(LAB_TILT);
    }
    const Code code = drive(command(LAB_PAN, axes[LAB_PAN].made.max_speed, pan, true),
                            command(LAB_TILT, axes[LAB_TILT].made.max_speed, tilt, true));
    if (code != CODE_OK)
        return code;
    mask_ = wanted;
    leavesMask();
    return code;
}

Code HeadModel::setConfig(const Step& step)
{
    if (stillCalibrating()) {
        commit();
        return CODE_CALIBRATING;
    }
    const std::optional<std::string> speeds[] = {step.argument("x_speed"), step.argument("y_speed")};
    const auto sustain = step.argument("sustain");
    Code code = speeds[LAB_PAN] || speeds[LAB_TILT] || sustain ? CODE_OK : CODE_PARAM;
    for (const LabAxisId axis : {LAB_PAN, LAB_TILT}) {
        if (!speeds[axis])
            continue;
        const int64_t speed = number(*speeds[axis]);
        if (speed < 1 || speed > axes[axis].made.max_speed) {
            code = CODE_PARAM;
            continue;
        }
        const std::vector<int32_t> words = command(axis, static_cast<int32_t>(speed), 0, false);
        (void)ask(axis, "SET_SPEED", &words);
        axes[axis].speedOption = words[1];
    }
    commit();
    return code;
}

Code HeadModel::setPowerOffRecover(const Step& step)
{
    commit();
    const auto text = step.argument("recover");
    if (!text || (number(*text) != 0 && number(*text) != 1))
        return CODE_PARAM;
    recover_ = number(*text) == 1;
    settings.recover = recover_ ? 1 : 0;
    return CODE_OK;
}

Code HeadModel::manualCalibrate()
{
    if (const Code code = busy())
        return code;
    if (!readStatus() || (running() && !halt()))
        return CODE_DEVICE;
    cancelStep();
    motions.follow(evidence_.lastOfLoopNs());
    atRest = false;
    leavesMask();
    queueCalibration({toSteps(LAB_PAN, axes[LAB_PAN].home), toSteps(LAB_TILT, axes[LAB_TILT].home)});
    armSave();
    return CODE_OK;
}

Code HeadModel::test(const Step& step)
{
    const auto text = step.argument("times");
    if (!text)
        return CODE_PARAM;
    atRest = false;
    for (int64_t pass = 0; pass < number(*text); ++pass) {
        for (const LabAxisId axis : {LAB_PAN, LAB_TILT}) {
            worker_.push_back({axis, "ROTATE", -axes[axis].made.total_steps});
            worker_.push_back({axis, "ROTATE", axes[axis].made.total_steps});
        }
    }
    return CODE_OK;
}

Code HeadModel::updateImage()
{
    return loadFlip() ? CODE_OK : CODE_DEVICE;
}
