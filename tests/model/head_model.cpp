// The model's common steps, and what the daemon's threads do.

#include "head_model.h"

#include <algorithm>
#include <iterator>
#include <strings.h>

namespace {

constexpr int32_t DEFAULT_SPEED = 4;
constexpr int32_t MASK_COORDINATE = -61;

int32_t clamped(int64_t value, int32_t most)
{
    return static_cast<int32_t>(std::clamp<int64_t>(value, 0, most));
}

bool isRunning(const Words& words)
{
    return words[RUNNING_WORD] != 0;
}

} // namespace

void refuse(bool condition, Code code)
{
    if (condition)
        throw Refusal{code};
}

HeadModel::HeadModel(Evidence& evidence, const LabAxisSetting& pan, const LabAxisSetting& tilt)
    : motions(evidence, world), evidence_(evidence)
{
    axes[LAB_PAN] = {.made = pan, .lower = -150, .upper = 150, .home = 0, .section = "x_motor"};
    axes[LAB_TILT] = {.made = tilt, .lower = -39, .upper = 61, .home = -6, .section = "y_motor"};
}

int64_t HeadModel::toSteps(LabAxisId axis, int64_t coordinate) const
{
    const LabAxisSetting& made = axes[axis].made;
    return coordinate * made.total_steps / made.range + made.total_steps / 2;
}

int64_t HeadModel::position(LabAxisId axis) const
{
    return readings_[axis][STEPS_WORD];
}

Pair HeadModel::wayTo(const Pair& steps) const
{
    return forEach([&](LabAxisId axis) { return steps[axis] - position(axis); });
}

Pair HeadModel::storedOrHome() const
{
    return forEach([&](LabAxisId axis) {
        const int32_t stored = axes[axis].stored.value_or(-1);
        return stored < 0 ? toSteps(axis, axes[axis].home) : stored;
    });
}

Pair HeadModel::maxSpeeds() const
{
    return forEach([&](LabAxisId axis) { return axes[axis].made.max_speed; });
}

int32_t HeadModel::sign(LabAxisId axis) const
{
    return (flip_ & (axis == LAB_PAN ? 1 : 2)) != 0 ? -1 : 1;
}

bool HeadModel::running() const
{
    return isRunning(readings_[LAB_PAN]) || isRunning(readings_[LAB_TILT]);
}

Pair HeadModel::coordinates(const Step& step, bool limited) const
{
    return forEach([&](LabAxisId axis) {
        const auto text = step.argument(axis == LAB_PAN ? "x_coord" : "y_coord");
        refuse(!text, CODE_PARAM);
        const int64_t coordinate = sign(axis) * number(*text);
        refuse(limited && (coordinate < axes[axis].lower || coordinate > axes[axis].upper), CODE_PARAM);
        return coordinate;
    });
}

Pair HeadModel::relative(const Pair& way) const
{
    return forEach([&](LabAxisId axis) {
        const LabAxisSetting& made = axes[axis].made;
        const int64_t goal = position(axis) + way[axis] * made.total_steps / made.range;
        const int64_t least = toSteps(axis, axes[axis].lower);
        const int64_t steps = std::clamp(goal, least, toSteps(axis, axes[axis].upper)) - position(axis);
        refuse(way[axis] != 0 && steps == 0, CODE_NO_TRAVEL);
        return steps;
    });
}

bool HeadModel::nextIs(const std::string& request) const
{
    return !evidence_.loopIsDone() && evidence_.entries[evidence_.nextOfLoop()].request == request;
}

bool HeadModel::ask(LabAxisId axis, const std::string& request, const Words* words)
{
    const size_t next = evidence_.nextOfLoop();
    const std::string wanted = "\"" + textOf(axis, request, words ? *words : Words{}) + "\"";
    require(next < evidence_.entries.size(),
            "the request " + wanted + " is missing after " + std::to_string(next) + " entries");
    judgeUpTo(next);
    const LabJournalEntry& entry = evidence_.entries[evidence_.at++];
    require(entry.axis == axis && entry.request == request && (!words || entry.in == *words),
            "the request " + textOf(entry) + " instead of " + wanted);
    fold(entry);
    if (request == "GET_STATUS" && entry.result == 0)
        readings_[axis] = entry.out;
    return entry.result == 0;
}

/// A status is not read of tilt once pan has failed, and no more is a stop sent to it.
bool HeadModel::askBoth(const std::string& request)
{
    return ask(LAB_PAN, request) && ask(LAB_TILT, request);
}

bool HeadModel::drive(const Pair& speeds, const Pair& steps, bool fromStatus)
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

void HeadModel::look()
{
    refuse(!askBoth("GET_STATUS"), CODE_DEVICE);
}

void HeadModel::halt()
{
    cancelStep();
    refuse(!askBoth("STOP"), CODE_DEVICE);
}

void HeadModel::haltIfRunning()
{
    if (running())
        halt();
}

/// A cancelled step may have ended unprompted just before; afterwards its thread must stop nothing any more.
void HeadModel::cancelStep()
{
    const bool acts = !evidence_.loopIsDone();
    if (acts)
        judgeUpTo(evidence_.nextOfLoop());
    if (stepMove_ == StepMove::NONE)
        return;
    require(!stepStopsTilt_, "a step stopped pan only");
    motions.mayChange([](MotionState& state) { state.begins -= state.begins > 0 ? 1 : 0; });
    stepMove_ = acts ? StepMove::NONE : StepMove::FADES;
}

/// Every begin is followed by a move request of the same handler.
void HeadModel::begin(Begin kind)
{
    require(nextIs("MOVE"), "a move request is missing");
    const int64_t from = evidence_.lastOfLoopNs();
    atRest = false;
    cancelStep();
    motions.begin(kind, from, evidence_.entries[evidence_.nextOfLoop()].labNs);
    if (kind != Begin::MASK)
        leavesMask();
}

bool HeadModel::go(Begin kind, const Pair& speeds, const Pair& steps, bool fromStatus)
{
    begin(kind);
    return drive(speeds, steps, fromStatus);
}

/// A command takes the head somewhere else; out of the zone of a mask that is not on.
void HeadModel::leavesMask()
{
    if (mask_ || storing_ != Storing::NEVER)
        return;
    storing_ = Storing::ONCE_AT_REST;
    endsBefore_ = motions.ends();
}

void HeadModel::seeRest()
{
    if (storing_ == Storing::ONCE_AT_REST && motions.ends() > endsBefore_)
        storing_ = Storing::FREE;
}

void HeadModel::armSave()
{
    if (recover_)
        save_ = evidence_.lastOfLoopNs();
}

void HeadModel::commit()
{
    for (ModelAxis& axis : axes)
        axis.speedInFile = axis.speedOption;
}

/// A handler saves the position itself, if it may and the axes rest; one that is due is given up in any case. The
/// daemon reads the axes again only if it may save.
void HeadModel::saveNow(bool halted)
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
        // The head rests, and the status poll may have seen it just now. Not if it turned until this handler stopped
        // it.
        require(!halted, "a position is stored on the way out of the mask's zone");
        storing_ = Storing::FREE;
    }
    const Words before[] = {readings_[LAB_PAN], readings_[LAB_TILT]};
    if (askBoth("GET_STATUS") && !running()) {
        for (const LabAxisId axis : AXES)
            axes[axis].stored = static_cast<int32_t>(position(axis));
        commit();
    }
    std::copy(std::begin(before), std::end(before), readings_);
}

/// Follows an axis through a request.
void HeadModel::fold(const LabJournalEntry& entry)
{
    ModelAxis& axis = axes[entry.axis];
    if (entry.result == 0 && entry.request == "SET_POSITION")
        axis.count = clamped(entry.stepsWord(), axis.made.total_steps);
    require(axis.moving || (entry.count == axis.count && entry.shaft == axis.shaft),
            "the axis is not where it was: " + textOf(entry) + ", expected at " + std::to_string(axis.count));
    axis.moving = entry.rate != 0;
    axis.count = clamped(int64_t{entry.count} + entry.left, axis.made.total_steps);
    axis.shaft = clamped(int64_t{entry.shaft} + entry.left, axis.made.total_steps);
}

void HeadModel::start()
{
    recover_ = settings["@recover"] != "0";
    track_ = strcasecmp(settings["@track"].c_str(), "on") == 0;
    mask_ = world.held = strcasecmp(settings["@mask"].c_str(), "on") == 0;
    storing_ = mask_ ? Storing::NEVER : Storing::FREE;
    panorama_ = false;
    readPresets();
    world.factors = {1, 1};
    pendingPlan_.clear();
    flip_ = 0;
    (void)loadFlip();
    stepMove_ = StepMove::NONE;
    stepStopsTilt_ = saveReadPan_ = saveReadRunning_ = atRest = false;
    save_.reset();
    motions.restart();
    Pair goals = recover_ ? storedOrHome() : forEach([&](LabAxisId axis) { return toSteps(axis, axes[axis].home); });
    if (mask_)
        goals[LAB_TILT] = toSteps(LAB_TILT, MASK_COORDINATE);
    worker_.clear();
    queueCalibration(goals);
    require(askBoth("GET_CAPA"), "the capability is not read");
    evidence_.requireLoopDone("a request too many at the start");
}

void HeadModel::queueCalibration(const Pair& returnSteps)
{
    calibrating = true;
    motions.change([](MotionState& state) { state.calibration = 1; });
    for (const LabAxisId id : AXES) {
        ModelAxis& axis = axes[id];
        const int32_t total = axis.made.total_steps;
        const int32_t stored = axis.speedOption.value_or(-1);
        axis.speedOption = stored > 0 && stored <= axis.made.max_speed ? stored : DEFAULT_SPEED;
        worker_.push_back({id, "SET_POSITION", returnSteps[id]});
        worker_.push_back({id, "SET_SPEED", axis.made.max_speed});
        for (const int64_t way : {int64_t{-total}, int64_t{total}, returnSteps[id] - total})
            worker_.push_back({id, "ROTATE", way});
        worker_.push_back({id, "SET_SPEED", *axis.speedOption});
    }
}

void HeadModel::judgeUpTo(size_t end)
{
    while (evidence_.at < end)
        judgeThread(evidence_.entries[evidence_.at++]);
}

void HeadModel::judgeThreads()
{
    judgeUpTo(evidence_.nextOfLoop());
    evidence_.requireLoopDone("a request that no method made");
}

void HeadModel::judgeThread(const LabJournalEntry& entry)
{
    fold(entry);
    if (evidence_.lasting.contains(entry.thread)) {
        judgeTour(entry);
    } else if (entry.request == "GET_STATUS") {
        if (atRest)
            judgeSaveRead(entry);
    } else if (entry.request == "STOP" && stepMove_ != StepMove::NONE) {
        require(entry.axis == (stepStopsTilt_ ? LAB_TILT : LAB_PAN), "the end of a step stops the axes in disorder");
        if (stepStopsTilt_)
            stepMove_ = StepMove::NONE;
        stepStopsTilt_ = !stepStopsTilt_;
    } else {
        judgeWorker(entry);
    }
}

/// The touring thread looks at the axes, halts them if one runs, begins and drives.
void HeadModel::judgeTour(const LabJournalEntry& entry)
{
    atRest = false;
    const bool ran = isRunning(tourReadings_[LAB_PAN]) || isRunning(tourReadings_[LAB_TILT]);
    const std::map<std::string, std::string> mustFollow = {
        {"y GET_STATUS", "x GET_STATUS"},
        {"x STOP", ran ? "y GET_STATUS" : "a running axis"},
        {"y STOP", "x STOP"},
        {"x MOVE", ran ? "y STOP" : "y GET_STATUS"},
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
        const int64_t position = tourReadings_[entry.axis][STEPS_WORD];
        const int64_t steps =
            scans ? toSteps(LAB_PAN, state.scanCoord) - position : presetSteps(entry.axis, *preset, position);
        const float speed = static_cast<float>(axes[entry.axis].made.max_speed) * factors[entry.axis];
        return entry.in == Words{0, static_cast<int32_t>(speed), static_cast<int32_t>(steps), 0, 0};
    };
    const auto fits = [&](const MotionState& state) {
        return may(world.presets, world.factors, state) ||
               (world.justChanged(tourReadNs_) &&
                (may(world.presetsBefore, world.factors, state) || may(world.presets, world.factorsBefore, state)));
    };
    if (entry.axis == LAB_PAN)
        motions.tourDrives(entry.labNs, entry.result == 0, fits);
    else
        motions.keep(fits, "a tour drives tilt");
}

/// At rest nobody but a save that is due reads the axes.
void HeadModel::judgeSaveRead(const LabJournalEntry& entry)
{
    if (!save_ && saveCommitsFromNs_ && entry.labNs >= *saveCommitsFromNs_ + SAVE_PERIOD_NS)
        return;
    require(save_.has_value(), "a thread reads the axes at rest although no save is due");
    require(storing_ == Storing::FREE, "a save reads the axes although it may not store them");
    require(entry.labNs >= *save_ + SAVE_PERIOD_NS, "a save comes too early");
    require(entry.axis == (saveReadPan_ ? LAB_TILT : LAB_PAN), "a save reads the axes in disorder");
    saveReadPan_ = entry.result == 0 && !saveReadPan_;
    saveReadRunning_ = (saveReadRunning_ && !saveReadPan_) || (entry.result == 0 && isRunning(entry.out));
    if (saveReadPan_)
        return;
    if (entry.result != 0 || saveReadRunning_) { // it is tried again at the next expiry; a driver may slow down
        *save_ += SAVE_PERIOD_NS;
        return;
    }
    for (ModelAxis& axis : axes)
        axis.stored = axis.count;
    saveCommitsFromNs_ = *save_ + SAVE_PERIOD_NS;
    save_.reset();
    commit();
}

void HeadModel::judgeWorker(const LabJournalEntry& entry)
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

bool HeadModel::hasSettled() const
{
    return worker_.empty() && stepMove_ != StepMove::RUNS && motions.rests();
}

void HeadModel::settle()
{
    motions.keepResting();
    calibrating = false;
    seeRest();
    stepMove_ = StepMove::NONE;
    atRest = true;
    saveCommitsFromNs_.reset();
    for (ModelAxis& axis : axes)
        axis.moving = false;
}

/// The flag falls at a moment that nobody sees: what the daemon answered shows it, within what is possible.
bool HeadModel::stillCalibrating()
{
    if (!calibrating)
        return false;
    const size_t next = evidence_.nextOfLoop();
    if (replied_ == CODE_CALIBRATING && evidence_.loopIsDone())
        return true;
    judgeUpTo(next);
    require(worker_.empty(), "a calibration is not over, but its flag is");
    motions.follow(next < evidence_.entries.size() ? evidence_.entries[next].labNs : WHENEVER);
    motions.keep([](const MotionState& state) { return state.calibration == 0; },
                 "a calibration has not announced its end, but its flag is down");
    calibrating = false;
    return false;
}

void HeadModel::refuseBusy(bool panoramaCounts)
{
    refuse(stillCalibrating(), CODE_CALIBRATING);
    refuse(mask_, CODE_LENS_MASK);
    refuse(panorama_ && panoramaCounts, CODE_PANORAMA);
}

bool HeadModel::loadFlip()
{
    constexpr const char* NAMES[] = {"off", "left_and_right", "up_and_down", "center"};
    const std::string text = settings["@flip"] == "-" ? "" : settings["@flip"];
    const auto* const at = std::find_if(std::begin(NAMES), std::end(NAMES),
                                        [&](const char* name) { return std::string(name).starts_with(text); });
    if (at == std::end(NAMES))
        return false;
    flip_ = static_cast<int>(at - NAMES);
    return true;
}

std::map<std::string, std::string> HeadModel::storedOptions() const
{
    std::map<std::string, std::string> result{{"config.power_off_recover", settings.at("@recover")}};
    for (const ModelAxis& axis : axes) {
        result[axis.section + ".steps"] = axis.stored ? std::to_string(*axis.stored) : "-";
        result[axis.section + ".speed"] = axis.speedInFile ? std::to_string(*axis.speedInFile) : "-";
    }
    return result;
}

bool HeadModel::mayHold(const std::string& option, const std::string& value) const
{
    return std::any_of(std::begin(axes), std::end(axes), [&](const ModelAxis& axis) {
        return option == axis.section + ".speed" && axis.speedOption && value == std::to_string(*axis.speedOption);
    });
}

bool HeadModel::speedsDiffer() const
{
    return std::any_of(std::begin(axes), std::end(axes),
                       [](const ModelAxis& axis) { return axis.speedOption != axis.speedInFile; });
}

std::string HeadModel::describe() const
{
    return motions.describe() + (worker_.empty() ? "" : ", rotations missing") +
           (stepMove_ == StepMove::RUNS ? ", a step not ended" : "");
}
