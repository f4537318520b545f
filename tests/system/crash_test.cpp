// A busy head whose daemon is killed, or whose bus goes away, at any instant.

#include "head.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <random>
#include <sstream>
#include <thread>

namespace {

/// Callers that ask for everything at once, until the object goes.
class Load {
public:
    explicit Load(const Lab& lab, unsigned seed) : lab_(lab)
    {
        for (unsigned caller = 0; caller < 3; ++caller)
            callers_.emplace_back([this, seed, caller] { run(seed + caller); });
    }
    ~Load()
    {
        ending_.store(true);
        for (std::thread& caller : callers_)
            caller.join();
    }
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;
    int answered() const
    {
        return answered_.load();
    }

private:
    void run(unsigned seed)
    {
        std::mt19937 random(seed);
        while (!ending_.load()) {
            const auto below = [&](unsigned n) { return std::to_string(random() % n); };
            const std::string id = std::to_string(random() % 8 + 1);
            const std::string there = R"({"x_coord":")" + below(150) + R"(","y_coord":")" + below(39) + "\"}";
            const std::pair<const char*, std::string> calls[] = {
                {"moveTo", there},
                {"moveTo", there},
                {"move", there},
                {"moveStep", R"({"direction":")" + below(360) + "\"}"},
                {"stop", ""},
                {"setPreset", R"({"id":")" + id + R"(","save_ptz":")" + below(2) + "\"}"},
                {"setPreset", R"({"name":"n)" + below(100000) + "\"}"},
                {"delPreset", R"({"id":[")" + id + "\"]}"},
                {"gotoPreset", R"({"id":")" + id + "\"}"},
                {"set_plan_config", R"({"monday":[)" + planEntry("monday_1", 0, 720, id) + "," +
                                        planEntry("monday_2", 720, 1440, "") + "]}"},
                {"setConfig", R"({"x_speed":")" + below(8) + R"(","y_speed":"4"})"},
                {"targetTrack", R"({"x_coord":"5","y_coord":"1","x_speed":"4","y_speed":"4"})"},
                {"targetTrackBack", ""},
                {"reload_tour_info", ""},
                {"getPresetAll", ""},
                {"getStatus", ""},
            };
            const auto& [method, arguments] = calls[random() % std::size(calls)];
            if (lab_.invoke("ptzd", method, arguments, std::chrono::milliseconds(200)).status == 0)
                ++answered_;
            // Now and then long enough for a save of the position.
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 8 == 0 ? random() % 60 : 0));
        }
    }

    const Lab& lab_;
    std::atomic<bool> ending_{false};
    std::atomic<int> answered_{0};
    std::vector<std::thread> callers_;
};

class Crash : public HeadInTheLab {
protected:
    std::mt19937 random{std::random_device{}()};

    /// A head that moves and tours, and saves its position a tenth of a second after it has come to rest.
    void upBusy()
    {
        LabOptions options = fastHead();
        options.factor = 500'000;
        options.clockSpeed = 100;
        options.config["tour"] = tourPackage("on", 1, -100, 100);
        up(options);
    }
    /// How many options each section of a package has, or nothing when it is unreadable.
    std::map<std::string, int> sections(const std::string& package)
    {
        std::string text;
        EXPECT_EQ(lab.run({"uci", "show", package}, text), 0) << package << " is unreadable";
        std::map<std::string, int> options;
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
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
        // A deletion takes the first entry, a preset's, out of the plan.
        std::map<std::string, int> plan = sections("ptz_plan");
        EXPECT_TRUE(!plan.contains("monday_1") || plan["monday_1"] == 4) << plan["monday_1"];
        EXPECT_TRUE(plan.empty() || plan["monday_2"] == 3) << testing::PrintToString(plan);
    }
    /// Starts the daemon and expects the head where the settings say that it stood.
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
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 250'000));
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

TEST_F(Crash, OfTheBusUnderLoadIsSurvived)
{
    upBusy();
    const pid_t pid = lab.programs.ptzdPid();
    const int64_t open = descriptors(pid);
    int answered = 0;
    const int restarts = repetitions(4, 200);
    for (int round = 0; round < restarts && !HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        const Load load(lab, static_cast<unsigned>(random()));
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 150'000));
        ASSERT_TRUE(lab.programs.stopBus());
        ASSERT_TRUE(lab.programs.startBus()) << lab.error();
        ASSERT_TRUE(waitUntil([&] { return lab.call("checkMotorStatus") == R"({"err_code":0})"; }, DEADLINE));
        answered += load.answered();
    }
    std::printf("%d restarts of the bus between %d answered calls\n", restarts, answered);
    EXPECT_EQ(lab.programs.ptzdPid(), pid);
    lab.clock.realTime();
    ASSERT_TRUE(waitUntil([&] { return lab.invoke("CET", "notify_motor_idle").status == 0; }, DEADLINE));
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
