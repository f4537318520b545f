// Every allocation of every call and of the start, whoever makes it: the memory is not there, once, or from then on.

#include "fault_head.h"

#include <sys/wait.h>

#include <limits>
#include <regex>
#include <set>
#include <sstream>

namespace {

constexpr int SHARDS = 4; // of the rows, for the long form's sake
constexpr int NEVER = std::numeric_limits<int>::max();

FaultPoint allocation(int nth)
{
    return {.text = "allocation", .call = FAULT_ALLOCATION, .nth = nth};
}

/// What a failure in the middle may leave of a settings file: lines that are old or new, the positions' apart.
bool isWhole(const std::string& file, const std::string& before, const std::string& after)
{
    const std::string known = "\n" + before + "\n" + after + "\n";
    std::istringstream text(file);
    for (std::string line; std::getline(text, line);)
        if (!line.starts_with("\toption steps '") && known.find("\n" + line + "\n") == std::string::npos)
            return false;
    return file.ends_with('\n');
}

class Memory : public FaultyHead {
protected:
    /// The rows without failure: each call in each state once, or in one state only.
    static std::vector<PageRow> healthyRows()
    {
        std::vector<PageRow> rows;
        std::set<std::string> known;
        for (const char* heading : {"Requests to the motors", "Settings", "Bus", "Threads, timers and memory"})
            for (const PageRow& row : pageRows(heading))
                if (row["Fails"].empty() && known.insert(row["Call"] + (thorough ? row["Head"] : "")).second)
                    rows.push_back(row);
        return rows;
    }
    /// The row's call, which has been run healthy, while its nth allocation fails, or all from there on until it and
    /// the motion that it has started are over, or something is reported. @return false when it made fewer.
    bool starve(const PageRow& row, int nth, bool ever);

    static inline const bool thorough = std::getenv("PTZD_LONG_TESTS") != nullptr;
    uint32_t made_ = 0; // allocations of the latest starve()
};

bool Memory::starve(const PageRow& row, int nth, bool ever)
{
    SCOPED_TRACE(row["Call"] + ", " + row["Head"] + ": allocation " + std::to_string(nth) + (ever ? " and on" : ""));
    begin(row);
    const pid_t daemon = lab.programs.ptzdPid();
    const std::vector<std::string> expectedNotified = notifiedBy(row["Notified"]);
    const std::vector<std::string> expectedLog = loggedBy(row["Log"]);
    // While a call stores, the poll may find the end of the motion that it has halted, and notify of it.
    const auto done = [&] { return (turning() || notified() == expectedNotified) && isDone(row); };
    const auto doneOrReported = [&] { return done() || hasReported(expectedLog.size() + 1); };
    if (turning() && !isStep_)
        setFactors(SLOWLY / 5);
    lab.clock.setSpeed(lastState_ == "save due" ? 10 * FAST : FAST); // the pauses between look-ups are the lab's
    arm(allocation(nth), ever);
    const LabReply reply =
        last_->arguments ? lab.invoke("ptzd", last_->method(), last_->arguments, 3s) : LabReply{0, DONE};
    std::smatch code;
    const bool answered = std::regex_search(reply.text, code, std::regex(R"("err(or)?_code":(-?[0-9]+)[,}])"));
    lastDone_ = !answered || code[2] == "0";
    if (turning() && !isStep_)
        setFactors(FACTOR);
    const bool succeeded = answered && lastDone_;
    if (succeeded)
        (void)waitUntil(doneOrReported, 500ms);
    const bool wasMet = met(allocation(nth)) != 0;
    made_ = control_->calls[FAULT_ALLOCATION].seen.load();
    disarm();
    EXPECT_TRUE(reply.status == 0 && (answered || reply.text.empty())) << reply.status << " " << reply.text;
    if (lab.programs.ptzdPid() != daemon) {
        ADD_FAILURE() << "the daemon has ended";
        return false;
    }
    if (succeeded)
        (void)waitUntil(doneOrReported, DEADLINE / 4);
    EXPECT_TRUE(waitUntil([&] { return rests(); }, DEADLINE));
    std::this_thread::sleep_for(10ms);
    if (logged(console_, log_) == expectedLog) {
        const bool went =
            start_[LAB_PAN] != lab.motors.now(LAB_PAN).shaft || start_[LAB_TILT] != lab.motors.now(LAB_TILT).shaft;
        const bool mayLose = row["Call"] == "set_plan_config"; // an option of an entry, without a report
        EXPECT_TRUE(!succeeded || mayLose || done()) << "success without effect";
        EXPECT_TRUE(!went || turning() || isStep_ || expectedNotified.empty() || !notified().empty())
            << "has moved without a notification";
    }
    for (const auto& [package, text] : before_)
        EXPECT_TRUE(isWhole(settings(package), text, after_[package])) << settings(package);
    return wasMet;
}

class MemoryOfCalls : public Memory, public testing::WithParamInterface<int> {};

TEST_P(MemoryOfCalls, LackingHarmsNothing)
{
    upWithFaults();
    int index = 0;
    for (const PageRow& row : healthyRows()) {
        if (index++ % SHARDS != GetParam())
            continue;
        run(row, nullptr, false);
        EXPECT_FALSE(starve(row, NEVER, false));
        const bool each = thorough || row["Call"] == "moveTo"; // which notifies of a whole motion
        const int made = static_cast<int>(made_);
        for (const bool ever : {false, true})
            for (int nth = 1; lab.programs.ptzdPid() != 0 && starve(row, nth, ever);)
                nth += each ? 1 : ever ? 1 + made : 1 + made / 2;
        ASSERT_NE(lab.programs.ptzdPid(), 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Shard, MemoryOfCalls, testing::Range(0, SHARDS));

TEST_F(Memory, LackingAtTheStartEndsItOrHarmsNothing)
{
    upWithFaults();
    const std::string presets = lab.call("getPresetAll"); // longer than the reply buffer at first
    const std::string stored = settings("ptzd");
    EXPECT_EQ(lab.programs.killPtzd(SIGTERM), 0);
    LabOptions options = withFaults();
    options.startPtzd = false;
    options.waitCalibrated = false;
    ASSERT_TRUE(lab.up(options)) << lab.error();
    /// Starts the daemon, and has it answer without memory too. Returns false when the start made fewer allocations.
    const auto starve = [&](int nth, bool ever) {
        SCOPED_TRACE("allocation " + std::to_string(nth) + (ever ? " and on" : ""));
        console_ = lab.records.ptzdLog().size();
        lab.clock.setSpeed(FAST);
        arm(allocation(nth), ever);
        (void)lab.programs.startPtzd(); // does not wait
        const auto over = [&] { return lab.programs.isReady() || !lab.programs.isRunning("ptzd"); };
        (void)waitUntil(over, 500ms);
        const bool wasMet = met(allocation(nth)) != 0;
        made_ = control_->calls[FAULT_ALLOCATION].seen.load();
        disarm();
        EXPECT_TRUE(waitUntil(over, DEADLINE));
        EXPECT_TRUE(isWhole(settings("ptzd"), stored, stored)) << settings("ptzd");
        if (!lab.programs.isRunning("ptzd")) {
            const auto status = lab.programs.waitPtzd(DEADLINE);
            EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 255) << status.value_or(-1);
            const std::string log = lab.records.ptzdLog().substr(console_);
            EXPECT_TRUE(std::regex_search(log, std::regex("(initialize|timer) failed\\.\n$"))) << log;
            return wasMet;
        }
        arm(allocation(nth % 3 + 1), ever);
        const std::string starved = lab.call("getPresetAll");
        disarm();
        const std::string whole = lab.call("getPresetAll");
        EXPECT_TRUE(starved == whole || starved == REFUSED_DEVICE || starved.empty()) << starved;
        EXPECT_TRUE(whole == presets || hasReported(1)) << "has lost presets without a line in the log: " << whole;
        EXPECT_EQ(lab.call("moveTo", coords(0, 0)), DONE);
        EXPECT_TRUE(waitUntil([&] { return rests() && lab.motors.now(LAB_PAN).shaft == 1500; }, DEADLINE));
        EXPECT_EQ(lab.programs.killPtzd(SIGTERM), 0);
        return wasMet;
    };
    EXPECT_FALSE(starve(NEVER, false));
    const int stride = thorough ? 1 : static_cast<int>(made_) / 5;
    for (const bool ever : {false, true})
        for (int nth = 1; starve(nth, ever);)
            nth += stride;
}

} // namespace
