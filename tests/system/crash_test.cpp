// A busy head whose daemon is killed, or whose bus goes away, at any instant.

#include "load.h"

#include <filesystem>
#include <random>
#include <set>
#include <sstream>

namespace {

using std::chrono::microseconds;

class Crash : public HeadInTheLab {
protected:
    const unsigned seed = std::random_device{}();
    const testing::ScopedTrace trace{__FILE__, __LINE__, "seed " + std::to_string(seed)};
    std::mt19937 random{seed};

    microseconds below(microseconds limit)
    {
        return microseconds(static_cast<long>(random()) % (limit.count() + 1));
    }
    /// A head that moves and tours, and saves its position a tenth of a second after it has come to rest.
    void upBusy()
    {
        LabOptions options = fastHead();
        options.factor = 500'000;
        options.clockSpeed = 100;
        options.config["tour"] = tourPackage("on", 1, -100, 100);
        up(options);
    }
    /// The lines in which a package is shown, in no order.
    std::set<std::string> shown(const std::string& package)
    {
        std::string text;
        EXPECT_EQ(lab.run({"uci", "show", package}, text), 0) << package << " is unreadable";
        std::set<std::string> lines;
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);)
            lines.insert(line);
        return lines;
    }
    /// How many options each section of a package has.
    std::map<std::string, int> sections(const std::string& package)
    {
        std::map<std::string, int> options;
        for (const std::string& line : shown(package)) {
            const std::string key = line.substr(package.size() + 1, line.find('=') - package.size() - 1);
            const size_t dot = key.find('.');
            options[key.substr(0, dot)] += dot == key.npos ? 0 : 1;
        }
        return options;
    }
    /// All of what is saved as one is there, or none of it.
    void expectWholeSettings()
    {
        const std::map<std::string, int> settings = sections("ptzd");
        int presets = 0;
        for (const auto& [section, options] : settings) {
            if (!section.starts_with("preset_") || section == "preset_config")
                continue;
            ++presets;
            EXPECT_EQ(options, 7) << section;
        }
        EXPECT_TRUE(presets == 0 || presets == 8) << presets;
        for (const char* always : {"config", "x_motor", "y_motor", "preset_config"})
            EXPECT_TRUE(settings.contains(always)) << always;
        EXPECT_EQ(lab.settings.get("ptzd.x_motor.steps").has_value(),
                  lab.settings.get("ptzd.y_motor.steps").has_value());
        for (const auto& [section, options] : sections("ptz_plan"))
            EXPECT_EQ(options, 4) << section;
    }
    /// Starts the daemon and expects the head where the settings say that it was.
    void expectRightStart()
    {
        const std::string pan = lab.settings.get("ptzd.x_motor.steps").value_or("1500");
        const std::string tilt = lab.settings.get("ptzd.y_motor.steps").value_or("550");
        ASSERT_TRUE(lab.programs.startPtzd()) << lab.error();
        ASSERT_TRUE(waitUntil([&] { return rests(); }, DEADLINE));
        expectAt(std::stoi(pan), std::stoi(tilt));
        const std::string status = lab.call("getStatus");
        EXPECT_TRUE(status.starts_with(R"({"error_code":0,"status":)")) << status;
        EXPECT_EQ(lab.records.ptzdLog().find("week["), std::string::npos) << "a plan that is not valid";
    }
    /// Open descriptors of a process.
    static int64_t descriptors(pid_t pid)
    {
        return std::distance(std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd"), {});
    }
};

TEST_F(Crash, LeavesEverythingWholeAndTheNextStartRight)
{
    upBusy();
    int answered = 0;
    int saved = 0;
    const int kills = repetitions(20, 1000);
    for (int round = 0; round < kills && !HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        const std::string before = lab.settings.get("ptzd.x_motor.steps").value_or("");
        const bool orderly = round % 5 == 4; // every state for SIGTERM, too
        {
            const Load load(lab, static_cast<unsigned>(random()));
            std::this_thread::sleep_for(below(250ms));
            const auto status = lab.programs.killPtzd(orderly ? SIGTERM : SIGKILL);
            ASSERT_TRUE(status.has_value()) << lab.records.ptzdLog();
            EXPECT_TRUE(!orderly || *status == 0) << *status << "\n" << lab.records.ptzdLog();
            answered += load.answered();
        }
        if (round % 2 == 0)
            lab.motors.powerLoss();
        lab.records.clear();
        expectWholeSettings();
        saved += lab.settings.get("ptzd.x_motor.steps").value_or("") == before ? 0 : 1;
        expectRightStart();
    }
    std::printf("%d ends in the middle of %d answered calls; %d of them left another position\n", kills, answered,
                saved);
    EXPECT_GT(answered, kills) << "hardly busy";
    EXPECT_GT(saved, 0) << "never a save";
}

// A call may reach the daemon together with the bus daemon's answer to the registration of its object.
TEST_F(Crash, LeavesCallersThatTheNextDaemonServes)
{
    up();
    const Load load(lab, seed);
    for (int start = 0; start < repetitions(5, 50); ++start) {
        ASSERT_TRUE(lab.programs.killPtzd(SIGKILL).has_value());
        (void)lab.programs.startPtzd(); // under this load it may take long to be idle once
        const int before = load.answered();
        EXPECT_TRUE(waitUntil([&] { return load.answered() > before + 10; }, DEADLINE)) << "start " << start;
    }
}

TEST_F(Crash, OfTheBusUnderLoadIsSurvived)
{
    upBusy();
    const pid_t pid = lab.programs.ptzdPid();
    const int64_t open = descriptors(pid);
    const int restarts = repetitions(4, 200);
    for (int round = 0; round < restarts && !HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        const Load load(lab, static_cast<unsigned>(random()));
        std::this_thread::sleep_for(below(150ms));
        ASSERT_TRUE(lab.programs.stopBus());
        ASSERT_TRUE(lab.programs.startBus()) << lab.error();
        ASSERT_TRUE(waitUntil([&] { return lab.invoke("ptzd", "checkMotorStatus").status == 0; }, DEADLINE));
    }
    EXPECT_EQ(lab.programs.ptzdPid(), pid);
    lab.clock.realTime();
    ASSERT_TRUE(waitUntil([&] { return lab.invoke("CET", "notify_motor_idle").status == 0; }, DEADLINE));
    EXPECT_TRUE(waitUntil([&] { return lab.call("checkMotorStatus") == R"({"err_code":0})"; }, DEADLINE));
    (void)lab.call("stopPanorama"); // refused unless the load has left one
    EXPECT_EQ(lab.call("stop"), DONE);
    ASSERT_TRUE(waitUntil([&] { return rests(); }, DEADLINE));
    std::this_thread::sleep_for(100ms); // two ticks of the poll
    lab.records.clear();
    EXPECT_EQ(lab.call("moveTo", coords(-70, 30)), DONE);
    EXPECT_TRUE(settled()) << "both notifications come again";
    expectAt(800, 910);
    EXPECT_TRUE(waitUntil([&] { return descriptors(pid) <= open; }, DEADLINE)) << descriptors(pid) << " of " << open;
    expectWholeSettings();
}

} // namespace
