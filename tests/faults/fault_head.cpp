#include "fault_head.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

namespace fs = std::filesystem;

namespace {

constexpr double FROZEN = 0.001; // no timer expires and nothing turns while a call is answered
constexpr int32_t HOME[] = {1500, 550};
constexpr int32_t LAST_STEP[] = {3000, 1220};
constexpr const char* PACKAGES[] = {"ptzd", "image", "diagd", "lens_mask", "target_track", "ptz_plan", "tour"};
constexpr int32_t DRIFT = 60; // what a turning head may go on while it is frozen, in steps

constexpr int32_t NOWHERE = -1;
constexpr const char* POSITION = "position"; // stored is where the head stands

// Ten steps make a coordinate unit on both axes, whose middles are at 1500 and 610 steps.
constexpr FaultyCall CALLS[] = {
    {"getStatus", "getStatus", ""},
    {"move", "move", R"({"x_coord":"-30","y_coord":"-10"})", -300, -100, true},
    {"moveTo", "moveTo", R"({"x_coord":"-30","y_coord":"-10"})", 1200, 510},
    {"moveStep 0", "moveStep", R"({"direction":"0"})", 3000, NOWHERE},
    {"moveStep 90", "moveStep", R"({"direction":"90"})", NOWHERE, 1220},
    {"stop", "stop", ""},
    {"targetTrack", "targetTrack", R"({"x_coord":"10","y_coord":"5","x_speed":"4","y_speed":"4"})", 1600, 600, false,
     "ptzd", POSITION},
    {"targetTrackBack", "targetTrackBack", "", 1500, 550},
    {"reloadTargetTrackConfig", "reloadTargetTrackConfig", "", 1500, 550},
    {"startPanorama", "startPanorama", "", 0, 510, false, "ptzd", POSITION},
    {"movePanorama", "movePanorama", R"({"x_coord":"-30","y_coord":"-10"})", -300, -100, true},
    {"stopPanorama", "stopPanorama", "", 1500, 550},
    {"lensMask on", "lensMask", "", NOWHERE, 0, false, "ptzd", POSITION},
    {"lensMask off", "lensMask", "", 1500, 550},
    {"manualCalibrate", "manualCalibrate", "", 1500, 550, false, nullptr, nullptr, "setConfig 4 4"},
    {"test", "test", R"({"times":"1"})", 3000, 1220},
    {"gotoPreset", "gotoPreset", R"({"id":"1"})", 750, 610},
    {"setConfig", "setConfig", R"({"x_speed":"6","y_speed":"7"})", NOWHERE, NOWHERE, false, "ptzd",
     "speed '6'*speed '7'", "setConfig 4 4"},
    {"setConfig 4 4", "setConfig", R"({"x_speed":"4","y_speed":"4"})"},
    {"setPowerOffRecover", "setPowerOffRecover", R"({"recover":"1"})", NOWHERE, NOWHERE, false, "ptzd",
     "power_off_recover '1'", "setPowerOffRecover 0"},
    {"setPowerOffRecover 0", "setPowerOffRecover", R"({"recover":"0"})"},
    {"setPresetConfig", "setPresetConfig", R"({"image_freeze_enabled":"1","speed":"0.25"})", NOWHERE, NOWHERE, false,
     "ptzd", "speed '0.250000'*image_freeze_enabled '1'"},
    {"reloadPresetConfig", "reloadPresetConfig", ""},
    {"setPreset", "setPreset", R"({"id":"2","name":"gate","save_ptz":"1"})", NOWHERE, NOWHERE, false, "ptzd", "'gate'",
     "delPreset 2"},
    {"delPreset", "delPreset", R"({"id":["1"]})", NOWHERE, NOWHERE, false, "ptzd", "!option enabled '1'",
     "setPreset 1"},
    {"delPreset 2", "delPreset", R"({"id":["2"]})"},
    {"clearPreset", "clearPreset", "", NOWHERE, NOWHERE, false, "ptzd", "!option enabled '1'", "setPreset 1"},
    {"set_plan_config", "set_plan_config",
     R"({"monday":[{"monday_1":{"start_time":60,"end_time":90,"action_type":"disable","action_id":"NULL"}}]})", NOWHERE,
     NOWHERE, false, "ptz_plan", "'90'"},
    {"updateImageConfig", "updateImageConfig", ""},
    {"checkMotorStatus", "checkMotorStatus", ""},
    {"reload_tour_info, scan", "reload_tour_info", "", 500, NOWHERE},
    {"reload_tour_info, presets", "reload_tour_info", "", 750, 610},
    {"status poll", nullptr, nullptr},
    {"save timer", nullptr, nullptr, NOWHERE, NOWHERE, false, "ptzd", POSITION, "setPowerOffRecover 0"},
};

std::string textOf(const fs::path& path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

/// A plan whose every minute belongs to preset 1, or a tour's settings.
std::string wholeWeek()
{
    std::string text;
    for (const char* day : {"sunday", "monday", "tuesday", "wednesday", "thursday", "friday", "saturday"})
        text += std::string("config ") + day + " '" + day +
                "_1'\n\toption start_time '0'\n\toption end_time '1440'\n\toption action_type 'preset'\n"
                "\toption action_id '1'\n";
    return text;
}

std::string tourOf(const char* enabled, int type)
{
    return std::string("config tour 'tour_info'\n\toption enabled '") + enabled + "'\n\toption tour_type '" +
           std::to_string(type) +
           "'\n\nconfig scan_tour 'scan_tour'\n\toption x_coord_start '-100'\n\toption x_coord_end '100'\n"
           "\toption start_time '0'\n\toption end_time '0'\n";
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
    if (!control_)
        return; // skipped
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
    options.config["tour"] = tourOf("off", 0);
    up(options);
    thaw();
    ASSERT_EQ(lab.call("setPowerOffRecover", R"({"recover":"0"})"), DONE);
    ASSERT_EQ(lab.call("setConfig", R"({"x_speed":"4","y_speed":"4","sustain":"50"})"), DONE);
    makePreset();
    ASSERT_TRUE(settled()); // else what is armed next may meet the last notification
    for (const char* package : PACKAGES)
        pristine_[package] = settings(package);
}

void FaultyHead::makePreset()
{
    EXPECT_EQ(lab.call("moveTo", coords(-75, 0)), DONE);
    EXPECT_TRUE(waitUntil([&] { return rests(); }, DEADLINE));
    EXPECT_EQ(lab.call("setPreset", R"({"id":"1","name":"door","save_ptz":"1"})"),
              R"({"name":"door","id":"1","error_code":0})");
}

void FaultyHead::freeze()
{
    lab.clock.setSpeed(FROZEN);
}

void FaultyHead::thaw()
{
    lab.clock.setSpeed(FAST);
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
    record.error.store(library ? LIBRARY_STATUS : point.call >= FAULT_OPEN ? ENOSPC : EAGAIN);
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
    return textOf(lab.folder() + path);
}

std::string FaultyHead::settings(const std::string& package) const
{
    return fileText("/etc/config/" + package);
}

void FaultyHead::writeSettings(const std::string& package, const std::string& text) const
{
    std::ofstream(lab.folder() + "/etc/config/" + package) << text;
}

std::vector<std::string> FaultyHead::told() const
{
    std::vector<std::string> result;
    for (const LabCetEntry& entry : lab.records.cetLog()) {
        const std::string call = "notify_motor_";
        result.push_back(entry.isEvent ? entry.text : entry.name.substr(call.size()) + " " + entry.text);
    }
    return result;
}

/// Takes back what the last row has left, with healthy calls that must succeed.
void FaultyHead::undo()
{
    const std::string call = last_ ? last_->name : "";
    const auto expectDone = [&](const char* method, const char* arguments = "") {
        EXPECT_NE(lab.call(method, arguments).find("code\":0"), std::string::npos) << method << " after " << call;
    };
    ASSERT_TRUE(waitUntil([&] { return lab.call("checkMotorStatus") == R"({"err_code":0})"; }, DEADLINE));
    // Only where the row says that it was entered: otherwise `stop` must be possible right away.
    if ((lastState_ == "in a panorama" && call != "stopPanorama") || (call == "startPanorama" && lastDone_))
        expectDone("stopPanorama");
    if (lastState_ == "masked" || (call == "lensMask on" && lastDone_)) {
        writeSettings("lens_mask", switchOf("lens_mask", "off"));
        expectDone("lensMask");
    }
    if (lastState_ == "recovery on")
        expectDone("setPowerOffRecover", R"({"recover":"0"})");
    const FaultyCall* back = last_ && last_->undo ? callOf(last_->undo) : nullptr;
    if (back)
        expectDone(back->method, back->arguments);
    else if (last_ && last_->undo)
        makePreset();
}

void FaultyHead::restoreSettings()
{
    for (const char* package : PACKAGES) {
        std::error_code ignored;
        const fs::path pending = lab.folder() + "/tmp/.uci/" + package;
        const bool waiting = fs::exists(pending) && fs::file_size(pending, ignored) > 0;
        if (!waiting && settings(package) == pristine_[package])
            continue;
        fs::remove(pending, ignored);
        writeSettings(package, pristine_[package]);
        const std::string name = package;
        if (name == "lens_mask" || name == "ptz_plan")
            continue; // read anew each time
        const char* reload = name == "ptzd"           ? "reloadPresetConfig"
                             : name == "image"        ? "updateImageConfig"
                             : name == "target_track" ? "reloadTargetTrackConfig"
                                                      : "reload_tour_info";
        EXPECT_NE(lab.call(reload).find("code\":0"), std::string::npos) << reload;
        if (name == "tour")
            std::this_thread::sleep_for(60ms); // three cycles of the touring thread
    }
}

void FaultyHead::home()
{
    disarm();
    for (const LabAxisId axis : {LAB_PAN, LAB_TILT})
        lab.motors.setFactor(axis, FACTOR);
    thaw();
    undo();
    restoreSettings();
    EXPECT_EQ(lab.call("reloadPresetConfig"), DONE); // loads what a failure may have left unloaded
    EXPECT_NE(lab.call("getPresetAll").find(R"("id":["1"],"name":["door"])"), std::string::npos);
    last_ = nullptr;
    lastDone_ = false;
    lastState_.clear();
    ASSERT_EQ(lab.call("stop"), DONE);
    lab.records.clear();
    ASSERT_EQ(lab.call("moveTo", coords(0, -6)), DONE);
    const std::vector<std::string> whole = {"moving 0", "start", "idle 0", "stop"};
    ASSERT_TRUE(waitUntil(
        [&] {
            std::vector<std::string> all = told();
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
    lastState_ = state;
    const auto settle = [&](size_t entries) {
        ASSERT_TRUE(waitUntil([&] { return told().size() == entries && rests(); }, DEADLINE)) << state;
    };
    const auto call = [&](const char* name) {
        const FaultyCall* found = callOf(name);
        EXPECT_NE(lab.call(found->method, found->arguments).find("code\":0"), std::string::npos) << name;
    };
    const std::string track = R"({"x_coord":"100","y_coord":"56","x_speed":"4","y_speed":"4"})";
    const bool switched = state.ends_with("switched off");
    if (switched) {
        writeSettings("target_track", switchOf("target_track", "on"));
        call("reloadTargetTrackConfig");
    }
    if (state == "in a panorama" || state == "masked") {
        writeSettings("lens_mask", switchOf("lens_mask", "on"));
        call(state == "masked" ? "lensMask on" : "startPanorama");
        settle(4);
    } else if (state.starts_with("tracked")) {
        EXPECT_EQ(lab.call("targetTrack", track), DONE);
        settle(2);
    } else if (state == "recovery on") {
        call("setPowerOffRecover");
    } else if (state == "save due") {
        call("setPowerOffRecover");
        call("moveTo");
        settle(4);
    }
    if (state == "masked" || state == "in a panorama")
        writeSettings("lens_mask", switchOf("lens_mask", "off"));
    if (state.ends_with("mask wanted"))
        writeSettings("lens_mask", switchOf("lens_mask", "on"));
    if (state == "scan due" || state == "preset due")
        writeSettings("tour", tourOf("on", state == "scan due" ? 1 : 2));
    if (switched)
        writeSettings("target_track", switchOf("target_track", "off"));
    lab.records.clear();
    freeze();
    if (state.starts_with("moving")) {
        EXPECT_EQ(lab.call("moveTo", coords(100, 50)), DONE);
        before_[LAB_PAN] = 2500;
        before_[LAB_TILT] = 1110;
        goOnABit();
    } else if (state.starts_with("tracking")) {
        EXPECT_EQ(lab.call("targetTrack", track), DONE);
        before_[LAB_PAN] = 2500;
        before_[LAB_TILT] = 1110;
        goOnABit();
    } else if (state == "stepping") {
        for (const LabAxisId axis : {LAB_PAN, LAB_TILT})
            lab.motors.setFactor(axis, SLOWLY);
        call("moveStep 0");
        ASSERT_TRUE(waitUntil([&] { return told().size() == 2; }, DEADLINE)); // by the step's own thread
    }
    for (const LabAxisId axis : {LAB_PAN, LAB_TILT})
        start_[axis] = lab.motors.now(axis).shaft;
}

/// Lets the head turn until it is well away from home, in no lab time worth a tick of the poll.
void FaultyHead::goOnABit()
{
    for (const LabAxisId axis : {LAB_PAN, LAB_TILT})
        lab.motors.setFactor(axis, 400 * FACTOR);
    ASSERT_TRUE(waitUntil([&] { return lab.motors.now(LAB_PAN).shaft > HOME[LAB_PAN] + 200; }, DEADLINE));
    for (const LabAxisId axis : {LAB_PAN, LAB_TILT})
        lab.motors.setFactor(axis, FACTOR);
}

std::vector<std::string> FaultyHead::reports(size_t consoleFrom, size_t logFrom)
{
    const std::regex form("\\[\\w+:[0-9]+\\]: (.*)");
    const std::string tag = " 5 PTZD: ";
    std::vector<std::string> texts;
    std::vector<std::string> logged;
    std::vector<std::string> entries;
    const auto alike = [&] {
        texts.clear();
        logged.clear();
        entries.clear();
        std::istringstream console(lab.records.ptzdLog().substr(consoleFrom));
        std::smatch match;
        for (std::string line; std::getline(console, line);) {
            const bool ours = std::regex_match(line, match, form); // else the C library's, on standard error only
            texts.push_back(ours ? match[1].str() : line);
            if (ours)
                logged.push_back(match[1]);
        }
        std::istringstream log(lab.records.messageLog().substr(logFrom));
        for (std::string line; std::getline(log, line);)
            if (const size_t at = line.find(tag); at != std::string::npos)
                entries.push_back(line.substr(at + tag.size()));
        std::sort(logged.begin(), logged.end());
        std::sort(entries.begin(), entries.end());
        return logged == entries;
    };
    (void)waitUntil(alike, 1s); // a thread may be between the two
    EXPECT_EQ(logged, entries) << "console and message log differ";
    std::sort(texts.begin(), texts.end());
    return texts;
}

/// @return whether the call was answered with 0.
bool FaultyHead::expectAnswer(const PageRow& row, const FaultyCall& call, const std::string& answer)
{
    const std::string& code = row["Answer"];
    if (code == "no data") {
        EXPECT_EQ(answer, "");
        return false;
    }
    const bool bare = code != "0" && std::string(call.method) != "setPreset";
    const std::string shape = R"("err(or)?_code":)" + code;
    EXPECT_TRUE(std::regex_search(answer, std::regex(bare ? "^\\{" + shape + "\\}$" : shape + "[,}]"))) << answer;
    return code == "0";
}

bool FaultyHead::turning() const
{
    return lastState_.starts_with("moving") || lastState_ == "stepping" || lastState_.starts_with("tracking");
}

/// Where the row says that an axis ends; `tolerance` in steps either way.
bool FaultyHead::standsAsStated(const PageRow& row, LabAxisId axis)
{
    const std::string& word = row[axis == LAB_PAN ? "Pan" : "Tilt"];
    const int32_t shaft = lab.motors.now(axis).shaft;
    const int32_t named = axis == LAB_PAN ? last_->pan : last_->tilt;
    if (word == "short")
        return shaft > start_[axis] && shaft < LAST_STEP[axis] - DRIFT;
    const int32_t goal = named == NOWHERE ? start_[axis] : last_->relative ? start_[axis] + named : named;
    const int32_t wanted = word == "goes"       ? goal
                           : word == "goes on"  ? before_[axis]
                           : word == "zero end" ? 0
                           : word == "far end"  ? LAST_STEP[axis]
                                                : start_[axis];
    return std::abs(shaft - wanted) <= (turning() ? DRIFT : 0);
}

bool FaultyHead::isStored(const FaultyCall& call)
{
    const std::string text = settings(call.package);
    const std::string wanted = call.stored;
    if (wanted == POSITION) {
        const std::regex steps("option steps '([0-9]+)'");
        size_t axis = 0;
        bool equal = true;
        for (auto at = std::sregex_iterator(text.begin(), text.end(), steps); at != std::sregex_iterator();
             ++at, ++axis)
            equal = equal && axis < LAB_AXIS_COUNT &&
                    std::abs(std::stoi((*at)[1]) - start_[axis]) <= (turning() ? DRIFT : 0);
        return equal && axis == LAB_AXIS_COUNT;
    }
    const bool present = wanted[0] != '!';
    for (const std::string& part : partsOf(present ? wanted : wanted.substr(1), '*'))
        if ((text.find(part) != std::string::npos) != present)
            return false;
    return true;
}

void FaultyHead::run(const PageRow& row, const FaultPoint* point, bool ever)
{
    SCOPED_TRACE("line " + std::to_string(row.line) + " of the page: " + row["Call"] + ", " + row["Head"] + ", " +
                 (point ? point->text + (ever ? " for ever" : "") : "healthy"));
    home();
    prepare(row["Head"]);
    if (HasFatalFailure())
        return;
    const FaultyCall* call = callOf(row["Call"]);
    ASSERT_NE(call, nullptr);
    last_ = call;
    if (call->method && std::string(call->method) == "moveStep")
        for (const LabAxisId axis : {LAB_PAN, LAB_TILT})
            lab.motors.setFactor(axis, SLOWLY);
    std::map<std::string, std::string> stored;
    for (const char* package : {"ptzd", "ptz_plan"})
        stored[package] = settings(package);
    const size_t console = lab.records.ptzdLog().size();
    const size_t log = lab.records.messageLog().size();
    for (FaultRecord& record : control_->calls)
        record.seen.store(0);
    const std::vector<std::string> expectedTold = toldBy(row["Told"]);
    const std::vector<std::string> expectedReports = reportsBy(row["Report"]);
    if (point)
        arm(*point, ever);
    if (point && point->call == FAULT_UBUS_LOOKUP_ID)
        thaw(); // the pauses between look-ups are the lab's
    callNs_ = lab.clock.nowNs();
    if (call->method)
        lastDone_ = expectAnswer(row, *call, lab.call(call->method, call->arguments));
    for (uint32_t one = 0; one < FAULT_CALL_COUNT; ++one)
        seen_[one] = control_->calls[one].seen.load();
    lab.clock.setSpeed(lastState_ == "save due" ? 10 * FAST : FAST);
    if (point) {
        ASSERT_TRUE(waitUntil([&] { return met(*point) != 0; }, DEADLINE)) << "was not met";
        const auto lines = [&] {
            const std::string text = lab.records.ptzdLog();
            return static_cast<size_t>(std::count(text.begin() + static_cast<long>(console), text.end(), '\n'));
        };
        (void)waitUntil([&] { return lines() >= expectedReports.size(); }, DEADLINE / 4);
        if (ever)
            std::this_thread::sleep_for(30ms); // a few ticks and cycles
        disarm();
    }
    const bool mustBeStored = row["Stored"] == "yes";
    (void)waitUntil(
        [&] {
            return told() == expectedTold && rests() && standsAsStated(row, LAB_PAN) && standsAsStated(row, LAB_TILT) &&
                   (!mustBeStored || isStored(*call)) &&
                   (row["Stored"] != "part" || settings(call->package) != stored[call->package]);
        },
        DEADLINE / 4);
    std::this_thread::sleep_for(10ms); // two more ticks of the poll: nothing else may come
    EXPECT_EQ(told(), expectedTold);
    EXPECT_EQ(reports(console, log), expectedReports);
    for (const LabAxisId axis : {LAB_PAN, LAB_TILT})
        EXPECT_TRUE(standsAsStated(row, axis)) << (axis == LAB_PAN ? "pan " : "tilt ") << lab.motors.now(axis).shaft;
    for (const auto& [package, text] : stored) {
        const bool affected = call->package && package == call->package;
        if (affected && mustBeStored)
            EXPECT_TRUE(isStored(*call)) << settings(package);
        else if (affected && row["Stored"] == "part")
            EXPECT_TRUE(!isStored(*call) && settings(package) != text) << settings(package);
        else
            EXPECT_EQ(settings(package), text) << package;
        after_[package] = settings(package);
    }
}
