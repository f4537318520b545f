// The model's common steps, and what the daemon's threads do.

#include "head_model.h"

#include <algorithm>
#include <cstdlib>
#include <strings.h>

namespace {

constexpr LabAxisId AXES[] = {LAB_PAN, LAB_TILT};
constexpr int32_t DEFAULT_SPEED = 4;
constexpr int32_t MASK_COORDINATE = -61;
constexpr int64_t SAVE_PERIOD_NS = 10'000'000'000;

bool isOn(const std::optional<std::string>& text)
{
    return text && strcasecmp(text->c_str(), "on") == 0;
}

int32_t clamped(int64_t value, int32_t most)
{
    return static_cast<int32_t>(std::clamp<int64_t>(value, 0, most));
}

} // namespace

HeadModel::HeadModel(Evidence& evidence, const LabAxisSetting& pan, const LabAxisSetting& tilt)
    : motions(evidence, world), evidence_(evidence)
{
    axes[LAB_PAN] = {.made = pan, .lower = -150, .upper = 150, .home = 0, .section = "x_motor"};
    axes[LAB_TILT] = {.made = tilt, .lower = -39, .upper = 61, .home = -6, .section = "y_motor"};
}

int32_t HeadModel::toSteps(LabAxisId axis, int64_t coordinate) const
{
    const LabAxisSetting& made = axes[axis].made;
    return static_cast<int32_t>(coordinate * made.total_steps / made.range + made.total_steps / 2);
}

int32_t HeadModel::toCoordinate(LabAxisId axis, int32_t steps) const
{
    const LabAxisSetting& made = axes[axis].made;
    return static_cast<int32_t>(int64_t{made.range} * steps / made.total_steps - made.range / 2);
}

int32_t HeadModel::position(LabAxisId axis) const
{
    return readings_[axis].position();
}

int32_t HeadModel::relative(LabAxisId axis, int64_t coordinates) const
{
    const LabAxisSetting& made = axes[axis].made;
    const int64_t goal = position(axis) + coordinates * made.total_steps / made.range;
    const int32_t most = toSteps(axis, axes[axis].upper);
    const int32_t least = toSteps(axis, axes[axis].lower);
    return static_cast<int32_t>((goal > most ? most : goal < least ? least : goal) - position(axis));
}

int32_t HeadModel::sign(LabAxisId axis) const
{
    return (flip_ & (axis == LAB_PAN ? 1 : 2)) != 0 ? -1 : 1;
}

bool HeadModel::running() const
{
    return readings_[LAB_PAN].running() || readings_[LAB_TILT].running();
}

std::vector<int32_t> HeadModel::command(LabAxisId axis, int32_t speed, int32_t steps, bool fromStatus) const
{
    std::vector<int32_t> words = fromStatus ? readings_[axis].words : std::vector<int32_t>(5);
    words[1] = speed;
    words[2] = steps;
    return words;
}

int32_t HeadModel::storedOrHome(LabAxisId axis) const
{
    const int32_t stored = axes[axis].stored.value_or(-1);
    return stored < 0 ? toSteps(axis, axes[axis].home) : stored;
}

bool HeadModel::nextIs(const std::string& request) const
{
    const size_t next = evidence_.nextOfLoop();
    return next < evidence_.entries.size() && evidence_.entries[next].request == request;
}

bool HeadModel::ask(LabAxisId axis, const std::string& request, const std::vector<int32_t>* words)
{
    const size_t next = evidence_.nextOfLoop();
    std::string wanted = std::string(axis == LAB_PAN ? "x " : "y ") + request;
    for (const int32_t word : words ? *words : std::vector<int32_t>{})
        wanted += " " + std::to_string(word);
    require(next < evidence_.entries.size(),
            "the request \"" + wanted + "\" is missing after " + std::to_string(next) + " entries");
    while (evidence_.at < next)
        judgeThread(evidence_.entries[evidence_.at++]);
    const LabJournalEntry& entry = evidence_.entries[evidence_.at++];
    require(entry.axis == axis && entry.request == request && (!words || entry.in == *words),
            "the request \"" + textOf(entry) + "\" instead of \"" + wanted + "\"");
    fold(entry);
    if (request == "GET_STATUS" && entry.result == 0)
        readings_[axis].words = entry.out;
    return entry.result == 0;
}

bool HeadModel::readStatus()
{
    return ask(LAB_PAN, "GET_STATUS") && ask(LAB_TILT, "GET_STATUS");
}

/// A cancelled step may have ended by itself just before; afterwards its thread must stop nothing any more.
void HeadModel::cancelStep()
{
    const size_t next = evidence_.nextOfLoop();
    while (evidence_.at < next && next < evidence_.entries.size())
        judgeThread(evidence_.entries[evidence_.at++]);
    if (stepMove_ == StepMove::NONE)
        return;
    require(!stepStopsTilt_, "a step stopped pan only");
    motions.forgetBegin();
    stepMove_ = next < evidence_.entries.size() ? StepMove::NONE : StepMove::FADES;
}

bool HeadModel::halt()
{
    cancelStep();
    return ask(LAB_PAN, "STOP") && ask(LAB_TILT, "STOP");
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

Code HeadModel::drive(const std::vector<int32_t>& pan, const std::vector<int32_t>& tilt)
{
    const bool panMoves = ask(LAB_PAN, "MOVE", &pan);
    const bool tiltMoves = ask(LAB_TILT, "MOVE", &tilt);
    return panMoves && tiltMoves ? CODE_OK : CODE_DEVICE;
}

/// A command takes the head somewhere else; out of the zone of a mask that is not on.
void HeadModel::leavesMask()
{
    if (mask_ || storing != Storing::NEVER)
        return;
    storing = Storing::ONCE_AT_REST;
    endsBefore_ = motions.ends();
}

void HeadModel::seeRest()
{
    if (storing == Storing::ONCE_AT_REST && motions.ends() > endsBefore_)
        storing = Storing::FREE;
}

void HeadModel::armSave()
{
    if (recover_)
        save = PendingSave{evidence_.lastOfLoopNs(), INT64_MAX};
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
    save.reset();
    motions.follow(evidence_.lastOfLoopNs());
    seeRest();
    const bool reads = nextIs("GET_STATUS");
    require(reads || storing != Storing::FREE, "the position is not stored");
    require(!reads || storing != Storing::NEVER, "a position of the mask's zone is stored");
    if (!reads)
        return;
    if (storing == Storing::ONCE_AT_REST) {
        // The head rests, and the status poll may have seen it just now. Not if it turned until this handler stopped
        // it.
        require(!halted, "a position is stored on the way out of the mask's zone");
        storing = Storing::FREE;
    }
    if (!readStatus() || running())
        return;
    for (const LabAxisId axis : AXES)
        axes[axis].stored = position(axis);
    commit();
}

void HeadModel::fold(const LabJournalEntry& entry)
{
    ModelAxis& axis = axes[entry.axis];
    if (entry.result == 0 && entry.request == "SET_POSITION")
        axis.count = clamped(entry.stepsWord(), axis.made.total_steps);
    if (!axis.moving)
        require(entry.count == axis.count && entry.shaft == axis.shaft,
                "the axis is not where it was: \"" + textOf(entry) + "\", expected at " + std::to_string(axis.count));
    axis.moving = entry.rate != 0;
    axis.count = clamped(int64_t{entry.count} + entry.left, axis.made.total_steps);
    axis.shaft = clamped(int64_t{entry.shaft} + entry.left, axis.made.total_steps);
}

void HeadModel::start()
{
    recover_ = settings.recover != 0;
    mask_ = isOn(settings.mask);
    storing = mask_ ? Storing::NEVER : Storing::FREE;
    track_ = isOn(settings.track);
    panorama_ = false;
    world.held = mask_;
    readPresets();
    world.factors = {1, 1};
    pendingPlan_.clear();
    flip_ = 0;
    (void)loadFlip();
    stepMove_ = StepMove::NONE;
    stepStopsTilt_ = saveReadPan_ = saveReadRunning_ = atRest = false;
    save.reset();
    motions.restart();
    for (ModelAxis& axis : axes)
        axis.speedOption = axis.speedInFile;
    int32_t goals[LAB_AXIS_COUNT];
    for (const LabAxisId axis : AXES)
        goals[axis] = recover_ ? storedOrHome(axis) : toSteps(axis, axes[axis].home);
    if (mask_)
        goals[LAB_TILT] = toSteps(LAB_TILT, MASK_COORDINATE);
    worker_.clear();
    queueCalibration(goals);
    for (const LabAxisId axis : AXES)
        require(ask(axis, "GET_CAPA"), "the capability is not read");
    require(evidence_.nextOfLoop() == evidence_.entries.size(), "the start sends more requests");
}

void HeadModel::queueCalibration(const int32_t (&returnSteps)[LAB_AXIS_COUNT])
{
    calibrating = true;
    motions.addCalibration();
    for (const LabAxisId id : AXES) {
        ModelAxis& axis = axes[id];
        const int32_t total = axis.made.total_steps;
        worker_.push_back({id, "SET_POSITION", returnSteps[id]});
        worker_.push_back({id, "SET_SPEED", axis.made.max_speed});
        for (const int32_t way : {-total, total, returnSteps[id] - total})
            worker_.push_back({id, "ROTATE", way});
        const int32_t stored = axis.speedOption.value_or(-1);
        const int32_t speed = stored > 0 && stored <= axis.made.max_speed ? stored : DEFAULT_SPEED;
        worker_.push_back({id, "SET_SPEED", speed});
        axis.speedOption = speed;
    }
}

void HeadModel::judgeThreads()
{
    while (evidence_.at < evidence_.entries.size()) {
        const LabJournalEntry& entry = evidence_.entries[evidence_.at++];
        require(entry.thread != entry.pid, "a request that no method made: \"" + textOf(entry) + "\"");
        judgeThread(entry);
    }
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
    const std::string request = std::string(entry.axis == LAB_PAN ? "x " : "y ") + entry.request;
    const bool ran = tourReadings_[LAB_PAN].running() || tourReadings_[LAB_TILT].running();
    const bool inOrder = request == "x GET_STATUS" || (request == "y GET_STATUS" && tourDid_ == "x GET_STATUS") ||
                         (request == "x STOP" && tourDid_ == "y GET_STATUS" && ran) ||
                         (request == "y STOP" && tourDid_ == "x STOP") ||
                         (request == "x MOVE" && tourDid_ == (ran ? "y STOP" : "y GET_STATUS")) ||
                         (request == "y MOVE" && tourDid_ == "x MOVE");
    require(inOrder, "a tour sends "
                     " + textOf(entry) + "
                     " after " +
                         tourDid_);
    if (entry.request == "GET_STATUS")
        tourReadings_[entry.axis].words = entry.result == 0 ? entry.out : std::vector<int32_t>(5);
    tourReadNs_ = request == "x GET_STATUS" ? entry.labNs : tourReadNs_;
    tourDid_ = entry.result == 0 || entry.request == "MOVE" ? request : "";
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
        const Reading& reading = tourReadings_[entry.axis];
        const int32_t steps =
            scans ? toSteps(LAB_PAN, state.scanCoord) - reading.position() : presetSteps(entry.axis, *preset, reading);
        const float speed = static_cast<float>(axes[entry.axis].made.max_speed) * factors[entry.axis];
        return entry.in == std::vector<int32_t>{0, static_cast<int32_t>(speed), steps, 0, 0};
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
    if (!save && saveCommitsFromNs_ && entry.labNs >= *saveCommitsFromNs_ + SAVE_PERIOD_NS)
        return;
    require(save.has_value(), "a thread reads the axes at rest although no save is due");
    require(storing == Storing::FREE, "a save reads the axes although it may not store them");
    require(entry.labNs >= save->earliestNs + SAVE_PERIOD_NS, "a save comes too early");
    require(entry.axis == (saveReadPan_ ? LAB_TILT : LAB_PAN), "a save reads the axes in disorder");
    if (entry.result != 0) { // it is tried again at the next expiry
        saveReadPan_ = false;
        save->earliestNs += SAVE_PERIOD_NS;
        return;
    }
    saveReadPan_ = !saveReadPan_;
    saveReadRunning_ = (saveReadRunning_ && !saveReadPan_) || entry.out.at(3) != 0;
    if (saveReadPan_)
        return;
    if (saveReadRunning_) { // a driver that slows down
        save->earliestNs += SAVE_PERIOD_NS;
        return;
    }
    for (ModelAxis& axis : axes)
        axis.stored = axis.count;
    saveCommitsFromNs_ = save->earliestNs + SAVE_PERIOD_NS;
    save.reset();
    commit();
}

void HeadModel::judgeWorker(const LabJournalEntry& entry)
{
    if (entry.request != JOURNAL_ROTATE_END) {
        require(!worker_.empty() && stepMove_ != StepMove::RUNS,
                "a thread sends \"" + textOf(entry) + "\", which nobody asked for");
        stepMove_ = StepMove::NONE;
        const WorkerRequest& due = worker_.front();
        const int32_t word = due.request == "SET_SPEED" ? entry.speedWord() : entry.stepsWord();
        require(entry.axis == due.axis && entry.request == due.request && word == due.word,
                "a thread sends \"" + textOf(entry) + "\" instead of " + due.request + " " + std::to_string(due.word));
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
    if (replied_ == CODE_CALIBRATING && next == evidence_.entries.size())
        return true;
    while (evidence_.at < next)
        judgeThread(evidence_.entries[evidence_.at++]);
    require(worker_.empty(), "a calibration is not over, but its flag is");
    motions.follow(next < evidence_.entries.size() ? evidence_.entries[next].labNs : WHENEVER);
    motions.keep([](const MotionState& state) { return state.calibration == 0; },
                 "a calibration has not announced its end, but its flag is down");
    calibrating = false;
    return false;
}

Code HeadModel::busy(bool panoramaCounts)
{
    if (stillCalibrating())
        return CODE_CALIBRATING;
    if (mask_)
        return CODE_LENS_MASK;
    return panorama_ && panoramaCounts ? CODE_PANORAMA : CODE_OK;
}

bool HeadModel::loadFlip()
{
    constexpr const char* NAMES[] = {"off", "left_and_right", "up_and_down", "center"};
    const std::string text = settings.flip.value_or("");
    for (int i = 0; i < 4; ++i) {
        if (!std::string(NAMES[i]).starts_with(text))
            continue;
        flip_ = i;
        return true;
    }
    return false;
}

std::map<std::string, std::optional<std::string>> HeadModel::storedOptions() const
{
    std::map<std::string, std::optional<std::string>> result;
    const auto text = [](const std::optional<int32_t>& value) {
        return value ? std::optional(std::to_string(*value)) : std::nullopt;
    };
    for (const ModelAxis& axis : axes) {
        result[axis.section + ".steps"] = text(axis.stored);
        result[axis.section + ".speed"] = text(axis.speedInFile);
    }
    result["config.power_off_recover"] = std::to_string(settings.recover);
    return result;
}

bool HeadModel::mayHold(const std::string& option, const std::string& value) const
{
    for (const ModelAxis& axis : axes)
        if (option == axis.section + ".speed" && axis.speedOption && value == std::to_string(*axis.speedOption))
            return true;
    return false;
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
