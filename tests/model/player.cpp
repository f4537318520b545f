#include "player.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

/// A save that is due sooner than this is waited for before the next command.
constexpr int64_t SAVE_MARGIN_NS = SAVE_PERIOD_NS / 2;

/// "section.option" of a settings file; lists and comments are none of ours.
std::map<std::string, std::string> optionsOf(const std::string& path)
{
    std::map<std::string, std::string> result;
    std::ifstream file(path);
    std::string section;
    for (std::string line; std::getline(file, line);) {
        std::erase(line, '\'');
        std::istringstream words(line);
        std::string kind;
        std::string name;
        std::string value;
        words >> kind >> name >> value;
        if (kind == "config")
            section = value;
        else if (kind == "option")
            result[section + "." + name] = value;
    }
    return result;
}

std::string optionLine(const std::string& name, const std::string& value)
{
    return value == "-" ? "" : "\toption " + name + " '" + value + "'\n";
}

std::optional<int32_t> numberOf(const Step& step)
{
    return step.text == "-" ? std::nullopt : std::optional(static_cast<int32_t>(number(step.text)));
}

LabRequest requestNamed(const std::string& name)
{
    uint32_t request = 0;
    while (request + 1 < LAB_REQUEST_COUNT && name != LAB_REQUEST_NAMES[request])
        ++request;
    return static_cast<LabRequest>(request);
}

} // namespace

LabOptions headOptions(int head)
{
    constexpr LabAxisSetting PANS[HEADS] = {{300, 8, 3000}, {301, 7, 2999}, {300, 5, 100}};
    constexpr LabAxisSetting TILTS[HEADS] = {{122, 8, 1220}, {123, 6, 1001}, {124, 3, 90}};
    LabOptions options;
    options.pan = PANS[head];
    options.tilt = TILTS[head];
    options.factor = head == 2 ? 20 : 500;
    options.clockSpeed = MODEL_CLOCK_SPEED;
    options.slowdown = head == 0 ? 0 : 3;
    options.environment = {"TZ=UTC0"};
    return options;
}

Player::Player(Lab& lab, const LabOptions& options) : lab_(lab), model_(evidence_, options.pan, options.tilt)
{
}

Verdict Player::play(const Sequence& sequence)
{
    std::string at = "the start";
    try {
        begin(sequence);
        for (const Step& step : sequence.steps) {
            at = step.print();
            run(step);
        }
        at = "the end";
        settle();
        require(lab_.records.ptzdLog().find("Sanitizer") == std::string::npos, lab_.records.ptzdLog());
    } catch (const Mismatch& mismatch) {
        return {at + ": " + mismatch.text};
    } catch (const Inconclusive&) {
        return {"", true};
    }
    return {};
}

/// A daemon on settings of the sequence's own.
void Player::begin(const Sequence& sequence)
{
    endDaemon(); // it might still save into the fresh settings
    lab_.clock.setSpeed(MODEL_CLOCK_SPEED);
    model_.storedPresets = {};
    model_.world.plans = {Plan{}};
    model_.world.settings = {TourSettings{}};
    write("ptz_plan", "");
    for (const Step& step : sequence.setup)
        change(step);
    const auto stored = model_.storedOptions();
    std::string text =
        "config ptzd 'config'\n" + optionLine("power_off_recover", stored.at("config.power_off_recover"));
    for (const ModelAxis& axis : model_.axes)
        text += "config motor '" + axis.section + "'\n" + optionLine("steps", stored.at(axis.section + ".steps")) +
                optionLine("speed", stored.at(axis.section + ".speed"));
    write("ptzd", text + "config preset_config 'preset_config'\n");
    lab_.motors.clearFaults(LAB_PAN);
    lab_.motors.clearFaults(LAB_TILT);
    restart(true);
}

/// In one go: a thread of the daemon may be reading the package.
void Player::write(const std::string& package, const std::string& text)
{
    const std::string folder = lab_.folder() + "/etc/config/";
    std::ofstream(folder + "." + package) << text;
    fs::rename(folder + "." + package, folder + package);
}

/// Changes a setting as another program of the camera would.
void Player::change(const Step& step)
{
    struct Switch {
        const char* package;
        const char* head;
        const char* option;
    };
    static const std::map<std::string, Switch> SWITCHES = {
        {"@flip", {"image", "config switch 'switch'\n", "flip_type"}},
        {"@mask", {"lens_mask", "config lens_mask 'lens_mask_info'\n", "enabled"}},
        {"@track", {"target_track", "config target_track 'target_track_info'\n", "enabled"}},
    };
    if (const auto at = SWITCHES.find(step.verb); at != SWITCHES.end())
        write(at->second.package, at->second.head + optionLine(at->second.option, step.text));
    model_.settings[step.verb] = step.text;
    for (ModelAxis& axis : model_.axes) {
        if (step.verb == "@steps")
            axis.stored = numberOf(step);
        else if (step.verb == "@speed")
            axis.speedOption = axis.speedInFile = numberOf(step);
    }
    if (step.verb == "@wall") {
        model_.world.setWall(step.text, lab_.clock.nowNs());
        lab_.clock.setWall(step.text);
    }
    if (step.verb == "@tour")
        model_.motions.mayReload();
    TourSettings tour = model_.world.settings.back();
    if (step.verb == "@tour") {
        std::istringstream(step.text) >> tour.enabled >> tour.type >> tour.from >> tour.to >> tour.start >> tour.end;
        model_.world.settings.push_back(tour);
    }
    const auto line = [](const char* name, int value) { return optionLine(name, std::to_string(value)); };
    write("tour", "config tour 'tour_info'\n" + optionLine("enabled", tour.enabled) + line("tour_type", tour.type) +
                      "config scan_tour 'scan_tour'\n" + line("x_coord_start", tour.from) +
                      line("x_coord_end", tour.to) + line("start_time", tour.start) + line("end_time", tour.end));
}

void Player::run(const Step& step)
{
    const bool mayTour = step.verb.starts_with("reload_") || step.verb.starts_with("@tour") || step.verb == "@wall" ||
                         step.verb == "set_plan_config";
    const auto armedNs = model_.saveArmedNs();
    if (armedNs && (mayTour || lab_.clock.nowNs() > *armedNs + SAVE_MARGIN_NS)) {
        settle();
        awaitSave();
    }
    if (step.verb == "@rest") {
        settle();
    } else if (step.verb == "@saved" || step.verb == "@idle") {
        settle();
        awaitSave();
        if (step.verb == "@saved")
            return;
        // For longer than the period of any save nobody may look at the axes.
        const int64_t end = lab_.clock.nowNs() + SAVE_PERIOD_NS * 11 / 10;
        require(waitUntil([&] { return lab_.clock.nowNs() >= end; }, timeout), "the lab's clock does not run");
        settle();
    } else if (step.verb == "@tours") {
        for (int i = std::stoi(step.text); i > 0 && awaitTour(); --i)
            settle();
    } else if (step.verb == "@nap") {
        std::this_thread::sleep_for(std::chrono::microseconds(std::stol(step.text)));
    } else if (step.verb == "@fault") {
        lab_.motors.failRequest(step.text[0] == 'x' ? LAB_PAN : LAB_TILT, requestNamed(step.text.substr(2)));
    } else if (step.verb == "@crash" || step.verb == "@power") {
        restart(step.verb == "@power");
    } else if (step.verb[0] == '@') {
        change(step);
    } else {
        callMethod(step);
    }
}

void Player::callMethod(const Step& step)
{
    // What the rules leave open: rotations beside motions that nobody keeps apart, and presets that are saved while a
    // calibration corrects the speeds.
    if (step.verb == "test" || ((step.verb == "movePanorama" || step.verb == "stopPanorama") && model_.calibrating) ||
        (step.verb.ends_with("Preset") && model_.calibrating && model_.speedsDiffer()))
        settle();
    const auto armedNs = model_.saveArmedNs();
    const int64_t calledNs = lab_.clock.nowNs();
    const std::string reply = lab_.call(step.verb, step.text);
    const int64_t repliedNs = lab_.clock.nowNs();
    if (armedNs && repliedNs >= *armedNs + SAVE_PERIOD_NS)
        throw Inconclusive{};
    evidence_.load(lab_);
    const std::string expected = model_.expect(step, reply, calledNs, repliedNs);
    require(reply == expected, "answered " + reply + " instead of " + expected);
    evidence_.requireLoopDone("a request too many");
    compareFile();
    if (step.verb == "test")
        settle();
}

void Player::endDaemon()
{
    if (lab_.programs.ptzdPid() != 0)
        require(lab_.programs.killPtzd(SIGKILL).has_value(), "the daemon cannot be killed");
}

void Player::restart(bool powerLoss)
{
    endDaemon();
    (void)lab_.invoke("CET", "none"); // what the daemon sent last has arrived then
    std::error_code ignored;
    fs::remove_all(lab_.folder() + "/tmp/.uci", ignored);
    if (powerLoss)
        lab_.motors.powerLoss();
    for (const LabAxisId axis : AXES) {
        const LabAxisNow now = lab_.motors.now(axis);
        model_.axes[axis].count = now.count;
        model_.axes[axis].shaft = now.shaft;
        model_.axes[axis].moving = now.running != 0;
    }
    lab_.records.clear();
    evidence_ = Evidence{};
    require(lab_.programs.startPtzd(), "the daemon does not start: " + lab_.error());
    if (resident_ == 0)
        learnThreads();
    evidence_.load(lab_);
    model_.start();
    settle();
    for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(lab_.programs.ptzdPid()) + "/task"))
        evidence_.lasting.insert(static_cast<pid_t>(std::stol(task.path().filename())));
    evidence_.lasting.erase(lab_.programs.ptzdPid());
}

int Player::threads() const
{
    // The links of the folder, not its entries: a thread that ends while they are listed hides the ones after it.
    std::error_code problem;
    const auto links = fs::hard_link_count("/proc/" + std::to_string(lab_.programs.ptzdPid()) + "/task", problem);
    return problem ? 0 : static_cast<int>(links) - 2;
}

/// Timers only start threads now and then, so that the fewest that are seen are those that stay.
void Player::learnThreads()
{
    resident_ = threads();
    for (int i = 0; i < 200; ++i) {
        std::this_thread::sleep_for(1ms);
        resident_ = std::min(resident_, threads());
    }
}

/// Nothing moves, no thread of a timer or a step is left, and every begin has had its end.
bool Player::settled()
{
    const auto busy = [this] {
        return lab_.motors.now(LAB_PAN).running != 0 || lab_.motors.now(LAB_TILT).running != 0 || threads() > resident_;
    };
    if (busy())
        return false;
    evidence_.load(lab_);
    if (busy())
        return false; // a save whose reads are in the evidence may be in the middle of its commit
    model_.judgeThreads();
    model_.motions.follow(WHENEVER);
    return model_.hasSettled() && evidence_.wrongEvents().empty();
}

void Player::settle()
{
    // Twice: a thread may still have been about to read the axes when the idle notification was seen.
    if (!waitUntil([this] { return settled() && settled(); }, timeout)) {
        require(lab_.programs.ptzdPid() != 0, "the daemon has ended:\n" + lab_.records.ptzdLog());
        throw Mismatch{"the head does not come to rest, " + model_.describe() + ", " + evidence_.wrongEvents() + ", " +
                       std::to_string(threads()) + " threads of " + std::to_string(resident_)};
    }
    const auto armedNs = model_.saveArmedNs();
    if (!model_.atRest && armedNs && saveIsLate(*armedNs))
        throw Inconclusive{};
    const LabAxisNow now[] = {lab_.motors.now(LAB_PAN), lab_.motors.now(LAB_TILT)};
    const size_t seen = evidence_.entries.size();
    evidence_.load(lab_);
    if (evidence_.entries.size() != seen)
        return settle(); // a tour goes on
    model_.settle();
    for (const LabAxisId axis : AXES) {
        const ModelAxis& expected = model_.axes[axis];
        require(now[axis].count == expected.count && now[axis].shaft == expected.shaft,
                expected.section + " rests at " + std::to_string(now[axis].count) + " instead of " +
                    std::to_string(expected.count));
    }
    compareFile();
}

/// Waits for the tour's next step if there is to be one. @return false when there is none.
bool Player::awaitTour()
{
    settle();
    std::this_thread::sleep_for(50ms); // several cycles of the touring thread
    settle();
    model_.motions.keepReloaded();
    const std::set<bool> moves = model_.motions.tourMoves(lab_.clock.nowNs());
    if (moves.size() != 1)
        return false;
    const auto steps = [this] {
        return std::count_if(evidence_.notifications.begin(), evidence_.notifications.end(),
                             [](const Notification& seen) { return seen.moving && seen.origin == ORIGIN_TOUR; });
    };
    const auto before = steps();
    const int64_t end = lab_.clock.nowNs() + (*moves.begin() ? WHENEVER / 2 : 5 * SECOND_NS);
    const auto doneOrOver = [&] {
        evidence_.load(lab_);
        return steps() > before || lab_.clock.nowNs() > end;
    };
    lab_.clock.setSpeed(4 * MODEL_CLOCK_SPEED);
    const bool done = waitUntil(doneOrOver, timeout);
    lab_.clock.setSpeed(MODEL_CLOCK_SPEED);
    require(done, "the tour does not move the head, " + model_.describe());
    return steps() > before;
}

void Player::awaitSave()
{
    const auto saved = [this] {
        if (!model_.atRest)
            settle(); // after a tour's step
        evidence_.load(lab_);
        model_.judgeThreads();
        return !model_.saveArmedNs();
    };
    require(waitUntil(saved, timeout), "the position is not saved");
    settle(); // once the save's thread has ended
}

/// A save that was armed then may have come unseen.
bool Player::saveIsLate(int64_t armedNs) const
{
    return lab_.clock.nowNs() >= armedNs + SAVE_PERIOD_NS;
}

void Player::compareFile()
{
    auto seen = optionsOf(lab_.folder() + "/etc/config/ptzd");
    const auto armedNs = model_.saveArmedNs();
    if (armedNs && saveIsLate(*armedNs))
        return;
    for (const auto& [name, value] : model_.storedOptions()) {
        const std::string found = seen.contains(name) ? seen[name] : "-";
        require(found == value || model_.mayHold(name, found),
                name + " is " + found + " in the file instead of " + value);
    }
}
