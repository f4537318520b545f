#include "fault_head.h"

#include "lab/core/files.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <regex>
#include <set>

namespace fs = std::filesystem;

namespace {

constexpr double FROZEN = 0.001; // no timer expires and nothing turns while a call is answered
constexpr int32_t HOME[] = {1500, 550};
constexpr int32_t LAST_STEP[] = {3000, 1220};
constexpr int32_t UNDER_WAY_TO[] = {2500, 1110}; // of a motion that the call meets
constexpr const char* PACKAGES[] = {"ptzd", "image", "target_track", "tour", "diagd", "lens_mask", "ptz_plan"};
constexpr int32_t DRIFT = 60; // what a turning head may go on while it is frozen, in steps

constexpr const char* POSITION = "position"; // stored is where the head is

// Ten steps make a coordinate unit on both axes, whose middles are at 1500 and 610 steps.
constexpr FaultyCall CALLS[] = {
    {"getStatus", ""},
    {"move", R"({"x_coord":"-30","y_coord":"-10"})", {-300, -100, true}},
    {"moveTo", R"({"x_coord":"-30","y_coord":"-10"})", {1200, 510}},
    {"moveTo far", R"({"x_coord":"100","y_coord":"50"})"},
    {"moveStep 0", R"({"direction":"0"})", {3000, NOWHERE}},
    {"moveStep 90", R"({"direction":"90"})", {NOWHERE, 1220}},
    {"stop", ""},
    {"targetTrack", R"({"x_coord":"10","y_coord":"5","x_speed":"4","y_speed":"4"})", {1600, 600}, {"ptzd", POSITION}},
    {"targetTrack far", R"({"x_coord":"100","y_coord":"56","x_speed":"4","y_speed":"4"})"},
    {"targetTrackBack", "", {1500, 550}},
    {"reloadTargetTrackConfig", "", {1500, 550}},
    {"startPanorama", "", {0, 510}, {"ptzd", POSITION}},
    {"movePanorama", R"({"x_coord":"-30","y_coord":"-10"})", {-300, -100, true}},
    {"stopPanorama", "", {1500, 550}},
    {"lensMask on", "", {NOWHERE, 0}, {"ptzd", POSITION}},
    {"lensMask off", "", {1500, 550}},
    {"manualCalibrate", "", {1500, 550}},
    {"test", R"({"times":"1"})", {3000, 1220}},
    {"gotoPreset", R"({"id":"1"})", {750, 610}},
    {"setConfig", R"({"x_speed":"6","y_speed":"7"})", {}, {"ptzd", "speed '6'[^]*speed '7'"}},
    {"setPowerOffRecover", R"({"recover":"1"})", {}, {"ptzd", "power_off_recover '1'"}},
    {"setPresetConfig",
     R"({"image_freeze_enabled":"1","speed":"0.25"})",
     {},
     {"ptzd", "speed '0.250000'[^]*image_freeze_enabled '1'"}},
    {"reloadPresetConfig", ""},
    {"setPreset", R"({"id":"2","name":"gate","save_ptz":"1"})", {}, {"ptzd", "'gate'"}},
    {"delPreset", R"({"id":["1"]})", {}, {"ptzd", "!option enabled '1'"}},
    {"clearPreset", "", {}, {"ptzd", "!option enabled '1'"}},
    {"set_plan_config",
     R"({"monday":[{"monday_1":{"start_time":60,"end_time":90,"action_type":"disable","action_id":"NULL"}}]})",
     {},
     {"ptz_plan", "'90'"}},
    {"updateImageConfig", ""},
    {"reload_tour_info, scan", "", {500, NOWHERE}},
    {"reload_tour_info, presets", "", {750, 610}},
    {"status poll", nullptr},
    {"save timer", nullptr, {}, {"ptzd", POSITION}},
};

/// A plan whose every minute belongs to preset 1.
std::string wholeWeek()
{
    std::string text;
    for (const char* day : {"sunday", "monday", "tuesday", "wednesday", "thursday", "friday", "saturday"})
        text += std::string("config ") + day + " '" + day +
                "_1'\n\toption start_time '0'\n\toption end_time '1440'\n\toption action_type 'preset'\n"
                "\toption action_id '1'\n";
    return text;
}

std::string switchOf(const std::string& package, const char* enabled)
{
    return "config " + package + " '" + package + "_info'\n\toption enabled '" + enabled + "'\n";
}

} // namespace

const FaultyCall* FaultyHead::callOf(const std::string& name)
{
    const auto* found =
        std::find_if(std::begin(CALLS), std::end(CALLS), [&](const FaultyCall& c) { return name == c.name; });
    return found == std::end(CALLS) ? nullptr : found;
}

void FaultyHead::SetUp()
{
    const std::string path = lab.folder() + "/faults";
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, sizeof(FaultControl)), 0);
    void* memory = mmap(nullptr, sizeof(FaultControl), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    ASSERT_NE(memory, MAP_FAILED);
    control_ = static_cast<FaultControl*>(memory);
}

void FaultyHead::TearDown()
{
    if (lab.programs.isRunning("ubusd")) {
        disarm();
        lab.clock.setSpeed(1);
    }
    HeadInTheLab::TearDown();
    munmap(control_, sizeof(FaultControl));
}

LabOptions FaultyHead::withFaults()
{
    // The loader splits LD_PRELOAD at blanks: a name in the lab's folder has none.
    const std::string library = lab.folder() + "/inject.so";
    std::error_code ignored;
    fs::create_symlink(FAULTS_LIBRARY, library, ignored);
    LabOptions options;
    options.factor = FACTOR;
    for (const std::string& variable : lab.environment())
        if (variable.starts_with("LD_PRELOAD="))
            options.environment = {"LD_PRELOAD=" + library + ":" + variable.substr(variable.find('=') + 1)};
    options.environment.push_back("PTZD_FAULTS=" + lab.folder() + "/faults");
    options.environment.push_back("MALLOC_PERTURB_=165"); // what has been freed, or not been set, shows
    return options;
}

void FaultyHead::upWithFaults()
{
    LabOptions options = withFaults();
    options.config["ptz_plan"] = wholeWeek();
    options.config["tour"] = tourPackage("off", 0, -100, 100);
    up(options);
    lab.clock.setSpeed(FAST);
    expectDone("setPowerOffRecover", R"({"recover":"0"})");
    expectDone("setConfig", R"({"x_speed":"4","y_speed":"4","sustain":"50"})");
    expectDone("moveTo", coords(-75, 0));
    EXPECT_TRUE(waitUntil([&] { return rests(); }, DEADLINE));
    expectDone("setPreset", R"({"id":"1","name":"door","save_ptz":"1"})");
    ASSERT_TRUE(settled()); // else what is armed next may meet the last notification
    for (const char* package : PACKAGES)
        pristine_[package] = settings(package);
}

void FaultyHead::expectDone(const std::string& method, const std::string& arguments)
{
    EXPECT_NE(lab.call(method, arguments).find("code\":0"), std::string::npos)
        << method << " after " << (last_ ? last_->name : "the start");
}

void FaultyHead::setFactors(int32_t factor)
{
    for (const LabAxisId axis : {LAB_PAN, LAB_TILT})
        lab.motors.setFactor(axis, factor);
}

void FaultyHead::arm(const FaultPoint& point, bool ever)
{
    if (point.axis) {
        lab.motors.failRequest(*point.axis, point.request, ever ? LAB_FOR_EVER : 1, EIO, point.nth - 1);
        return;
    }
    FaultRecord& record = control_->calls[point.call];
    (void)snprintf(record.subject, sizeof(record.subject), "%s", point.subject.c_str());
    constexpr int32_t LIBRARY_STATUS = 4; // some failure in either library
    const bool library = point.call >= FAULT_UBUS_CONNECT && point.call <= FAULT_UCI_DELETE;
    record.error.store(point.delayMs > 0          ? -point.delayMs
                       : library                  ? LIBRARY_STATUS
                       : point.call >= FAULT_OPEN ? ENOSPC
                                                  : EAGAIN);
    record.passes.store(point.nth - 1);
    record.seen.store(0);
    record.met.store(0);
    record.failures.store(ever ? FAULT_EVER : point.times, std::memory_order_release);
}

void FaultyHead::disarm()
{
    for (FaultRecord& record : control_->calls) {
        record.failures.store(0);
        record.subject[0] = '\0';
    }
    EXPECT_TRUE(lab.motors.clearFaults(LAB_PAN) && lab.motors.clearFaults(LAB_TILT));
}

uint32_t FaultyHead::met(const FaultPoint& point)
{
    if (!point.axis)
        return control_->calls[point.call].met.load();
    const std::vector<LabJournalEntry> journal = lab.records.journal();
    return static_cast<uint32_t>(std::count_if(journal.begin(), journal.end(), [&](const LabJournalEntry& entry) {
        return entry.axis == *point.axis && entry.request == LAB_REQUEST_NAMES[point.request] && entry.result != 0;
    }));
}

std::string FaultyHead::fileText(const std::string& path) const
{
    return readFile(lab.folder() + path);
}

std::string FaultyHead::settings(const std::string& package) const
{
    return fileText("/etc/config/" + package);
}

void FaultyHead::writeSettings(const std::string& package, const std::string& text) const
{
    EXPECT_TRUE(writeFile(lab.folder() + "/etc/config/" + package, text));
}

std::vector<std::string> FaultyHead::notified() const
{
    std::vector<std::string> result;
    for (const LabCetEntry& entry : lab.records.cetLog()) {
        const std::string call = "notify_motor_";
        result.push_back(entry.isEvent ? entry.text : entry.name.substr(call.size()) + " " + entry.text);
    }
    return result;
}

/// Shows that the last row has left the daemon able to go on.
void FaultyHead::expectRecovered()
{
    ASSERT_TRUE(waitUntil([&] { return lab.call("checkMotorStatus") == R"({"err_code":0})"; }, DEADLINE));
    // Only where the row says that it was entered: otherwise `stop` must be possible right away.
    const std::string call = last_->name;
    if ((lastState_ == "in a panorama" && call != "stopPanorama") || (call == "startPanorama" && lastDone_))
        expectDone("stopPanorama");
    if (lastState_ == "masked" || (call == "lensMask on" && lastDone_)) {
        writeSettings("lens_mask", switchOf("lens_mask", "off"));
        expectDone("lensMask");
    }
    expectDone("stop");
    expectDone("getPresetAll");
}

void FaultyHead::home()
{
    disarm();
    setFactors(FACTOR);
    lab.clock.setSpeed(FAST);
    if (last_)
        expectRecovered();
    const bool moves = !last_ || last_->goal.pan != NOWHERE || last_->goal.tilt != NOWHERE;
    const bool restarts = !moves || lastState_.ends_with("switched off") || lastState_.ends_with(" due") ||
                          lastState_ == "recovery on"; // else no settings differ in memory
    EXPECT_TRUE(!restarts || lab.programs.killPtzd(SIGKILL).has_value());
    for (const std::string package : PACKAGES) {
        fs::remove(lab.folder() + "/tmp/.uci/" + package);
        if (settings(package) != pristine_[package])
            writeSettings(package, pristine_[package]);
    }
    lab.records.clear();
    if (restarts) {
        (void)lab.programs.startPtzd(); // its calibration ends at home, too
    } else {
        expectDone("reloadPresetConfig"); // and with it the stored position
        expectDone("moveTo", coords(0, -6));
    }
    const std::vector<std::string> whole = {"moving 0", "start", "idle 0", "stop"};
    ASSERT_TRUE(waitUntil(
        [&] {
            std::vector<std::string> all = notified();
            if (all.size() == 5 && all.front() == "stop")
                all.erase(all.begin()); // the event of the last motion's end
            return all == whole && rests();
        },
        DEADLINE));
    expectAt(HOME[LAB_PAN], HOME[LAB_TILT]);
    lab.records.clear();
}

void FaultyHead::prepare(const std::string& state)
{
    const auto call = [&](const char* name, size_t entries = 0) {
        const FaultyCall* found = callOf(name);
        expectDone(found->method(), found->arguments);
        ASSERT_TRUE(entries == 0 || waitUntil([&] { return notified().size() == entries && rests(); }, DEADLINE))
            << state;
    };
    const bool panorama = state == "in a panorama";
    const bool masked = state == "masked";
    const bool switched = state.ends_with("switched off");
    if (switched) {
        writeSettings("target_track", switchOf("target_track", "on"));
        call("reloadTargetTrackConfig");
    }
    if (panorama || masked) {
        writeSettings("lens_mask", switchOf("lens_mask", "on"));
        call(masked ? "lensMask on" : "startPanorama", 4);
    } else if (state.starts_with("tracked")) {
        call("targetTrack far", 2);
    } else if (state == "recovery on" || state == "save due") {
        call("setPowerOffRecover");
        if (state == "save due")
            call("moveTo", 4);
    }
    if (panorama || masked || state.ends_with("mask wanted"))
        writeSettings("lens_mask", switchOf("lens_mask", panorama || masked ? "off" : "on"));
    if (state == "scan due" || state == "preset due")
        writeSettings("tour", tourPackage("on", state == "scan due" ? 1 : 2, -100, 100));
    if (switched)
        writeSettings("target_track", switchOf("target_track", "off"));
    lab.records.clear();
    lab.clock.setSpeed(FROZEN);
    if (state.starts_with("moving") || state.starts_with("tracking")) {
        call(state.starts_with("moving") ? "moveTo far" : "targetTrack far");
        setFactors(400 * FACTOR); // until it is well away from home, in no lab time worth a tick of the poll
        ASSERT_TRUE(waitUntil([&] { return lab.motors.now(LAB_PAN).shaft > HOME[LAB_PAN] + 200; }, DEADLINE));
        setFactors(FACTOR);
    } else if (state == "stepping") {
        setFactors(SLOWLY);
        call("moveStep 0");
        ASSERT_TRUE(waitUntil([&] { return notified().size() == 2; }, DEADLINE)); // by the step's own thread
    }
    for (const LabAxisId axis : {LAB_PAN, LAB_TILT})
        start_[axis] = lab.motors.now(axis).shaft;
}

void FaultyHead::begin(const PageRow& row)
{
    home();
    lastDone_ = false;
    lastState_ = row["Head"];
    last_ = callOf(row["Call"]);
    ASSERT_NE(last_, nullptr) << row["Call"];
    prepare(lastState_);
    isStep_ = row["Call"].starts_with("moveStep");
    if (isStep_)
        setFactors(SLOWLY);
    before_ = {{"ptzd", settings("ptzd")}, {"ptz_plan", settings("ptz_plan")}};
    console_ = lab.records.ptzdLog().size();
    log_ = lab.records.messageLog().size();
}

std::vector<std::string> FaultyHead::logged(size_t consoleFrom, size_t logFrom)
{
    static const std::regex form("\\[\\w+:[0-9]+\\]: (.*)");
    const std::string tag = " 5 PTZD: ";
    std::vector<std::string> console;
    std::multiset<std::string> ours;
    std::multiset<std::string> entries;
    const auto alike = [&] {
        console = partsOf(lab.records.ptzdLog().substr(consoleFrom), '\n');
        ours.clear();
        entries.clear();
        for (std::string& line : console)
            if (std::smatch match; std::regex_match(line, match, form)) // else the C library's, on standard error only
                line = *ours.insert(match[1].str());
        for (const std::string& line : partsOf(lab.records.messageLog().substr(logFrom), '\n'))
            if (const size_t at = line.find(tag); at != std::string::npos)
                entries.insert(line.substr(at + tag.size()));
        return ours == entries;
    };
    (void)waitUntil(alike, 1s); // a thread may be between the two
    EXPECT_EQ(ours, entries) << "console and message log differ";
    std::sort(console.begin(), console.end());
    return console;
}

bool FaultyHead::turning() const
{
    return lastState_.starts_with("moving") || lastState_ == "stepping" || lastState_.starts_with("tracking");
}

bool FaultyHead::isAsStated(const PageRow& row, LabAxisId axis)
{
    const std::string& word = row[axis == LAB_PAN ? "Pan" : "Tilt"];
    const int32_t shaft = lab.motors.now(axis).shaft;
    const int32_t named = axis == LAB_PAN ? last_->goal.pan : last_->goal.tilt;
    if (word == "short")
        return shaft > start_[axis] && shaft < LAST_STEP[axis] - DRIFT;
    const int32_t goal = named == NOWHERE ? start_[axis] : last_->goal.relative ? start_[axis] + named : named;
    const int32_t wanted = word == "goes"       ? goal
                           : word == "goes on"  ? UNDER_WAY_TO[axis]
                           : word == "zero end" ? 0
                           : word == "far end"  ? LAST_STEP[axis]
                                                : start_[axis];
    return std::abs(shaft - wanted) <= (turning() ? DRIFT : 0);
}

bool FaultyHead::isStored()
{
    const std::string text = settings(last_->stored.package);
    const std::string wanted = last_->stored.text;
    if (wanted == POSITION) {
        const std::regex steps("option steps '([0-9]+)'");
        size_t axis = 0;
        for (auto at = std::sregex_iterator(text.begin(), text.end(), steps); at != std::sregex_iterator();
             ++at, ++axis)
            if (axis == LAB_AXIS_COUNT || std::abs(std::stoi((*at)[1]) - start_[axis]) > (turning() ? DRIFT : 0))
                return false;
        return axis == LAB_AXIS_COUNT;
    }
    const bool present = wanted[0] != '!';
    return std::regex_search(text, std::regex(wanted.substr(present ? 0 : 1))) == present;
}

bool FaultyHead::isDone(const PageRow& row)
{
    return rests() && isAsStated(row, LAB_PAN) && isAsStated(row, LAB_TILT) && (row["Stored"] != "yes" || isStored()) &&
           (row["Stored"] != "part" || settings(last_->stored.package) != before_[last_->stored.package]);
}

bool FaultyHead::hasReported(size_t lines)
{
    const std::string text = lab.records.ptzdLog();
    return std::count(text.begin() + static_cast<long>(console_), text.end(), '\n') >= static_cast<long>(lines);
}

void FaultyHead::run(const PageRow& row, const FaultPoint* point, bool ever)
{
    SCOPED_TRACE("line " + std::to_string(row.line) + " of the page: " + row["Call"] + ", " + row["Head"] + ", " +
                 (point ? point->text + (ever ? " for ever" : "") : "healthy"));
    begin(row);
    if (HasFatalFailure())
        return;
    const std::vector<std::string> expectedNotified = notifiedBy(row["Notified"]);
    const std::vector<std::string> expectedLog = loggedBy(row["Log"]);
    if (point)
        arm(*point, ever);
    if (point && point->call == FAULT_UBUS_LOOKUP_ID)
        lab.clock.setSpeed(FAST); // the pauses between look-ups are the lab's
    if (last_->arguments) {
        const std::string answer = lab.call(last_->method(), last_->arguments);
        const std::string& code = row["Answer"];
        const bool bare = code != "0" && last_->method() != "setPreset";
        const std::string shape = R"("err(or)?_code":)" + code;
        lastDone_ = code == "0";
        EXPECT_TRUE(code == "no data"
                        ? answer.empty()
                        : std::regex_search(answer, std::regex(bare ? "^\\{" + shape + "\\}$" : shape + "[,}]")))
            << answer;
    }
    lab.clock.setSpeed(lastState_ == "save due" ? 10 * FAST : FAST);
    if (point) {
        ASSERT_TRUE(waitUntil([&] { return met(*point) != 0; }, DEADLINE)) << "was not met";
        (void)waitUntil([&] { return hasReported(expectedLog.size()); }, DEADLINE / 4);
        if (ever)
            std::this_thread::sleep_for(30ms); // a few ticks and cycles
        disarm();
    }
    (void)waitUntil([&] { return notified() == expectedNotified && isDone(row); }, DEADLINE / 4);
    std::this_thread::sleep_for(10ms); // two more ticks of the poll: nothing else may come
    EXPECT_EQ(notified(), expectedNotified);
    EXPECT_EQ(logged(console_, log_), expectedLog);
    for (const LabAxisId axis : {LAB_PAN, LAB_TILT})
        EXPECT_TRUE(isAsStated(row, axis)) << (axis == LAB_PAN ? "pan " : "tilt ") << lab.motors.now(axis).shaft;
    for (const auto& [package, text] : before_) {
        after_[package] = settings(package);
        const bool affected = last_->stored.package && package == last_->stored.package;
        if (affected && row["Stored"] == "yes")
            EXPECT_TRUE(isStored()) << after_[package];
        else if (affected && row["Stored"] == "part")
            EXPECT_TRUE(!isStored() && after_[package] != text) << after_[package];
        else
            EXPECT_EQ(after_[package], text) << package;
    }
}
