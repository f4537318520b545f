// An hour in which everything happens at once. Under the sanitizers of a debug build this looks for races, and for
// locks that are taken out of their order.

#include "head.h"

#include <atomic>
#include <random>
#include <thread>

namespace {

constexpr double SPEED = 20; // lab time in real time
constexpr int64_t SECOND = 1'000'000'000;

struct RandomCall {
    const char* method;
    const char* arguments; // "#" stands for an integer of at most three digits, "%" for one from 1 to 8
};

constexpr RandomCall CALLS[] = {
    {"moveTo", R"({"x_coord":"#","y_coord":"#"})"},
    {"moveTo", R"({"x_coord":"%","y_coord":"%"})"},
    {"move", R"({"x_coord":"#","y_coord":"#"})"},
    {"moveStep", R"({"direction":"%"})"},
    {"moveStep", R"({"direction":"2%0"})"},
    {"stop", ""},
    {"targetTrack", R"({"x_coord":"#","y_coord":"#","x_speed":"%","y_speed":"%"})"},
    {"targetTrackBack", ""},
    {"reloadTargetTrackConfig", ""},
    {"startPanorama", ""},
    {"movePanorama", R"({"x_coord":"#","y_coord":"%"})"},
    {"stopPanorama", ""},
    {"stopPanorama", ""},
    {"lensMask", ""},
    {"manualCalibrate", ""},
    {"test", R"({"times":"1"})"},
    {"setConfig", R"({"x_speed":"%","y_speed":"%","sustain":"#"})"},
    {"setPowerOffRecover", R"({"recover":"1"})"},
    {"setPreset", R"({"id":"%","name":"at %","save_ptz":"1"})"},
    {"setPreset", R"({"save_ptz":"0"})"},
    {"gotoPreset", R"({"id":"%","speed_pan":"0.%"})"},
    {"delPreset", R"({"id":["%","%"]})"},
    {"setPresetConfig", R"({"image_freeze_enabled":"1","speed":"0.%"})"},
    {"reloadPresetConfig", ""},
    {"getPresetAll", ""},
    {"getPresetPage", R"({"start_id":"0","count":"%"})"},
    {"set_plan_config",
     R"({"monday":[{"monday_1":{"start_time":0,"end_time":60%,"action_type":"preset","action_id":"%"}},)"
     R"({"monday_2":{"start_time":700,"end_time":1440,"action_type":"preset","action_id":"%"}}]})"},
    {"reload_tour_info", ""},
    {"reload_scan_tour", ""},
    {"updateImageConfig", ""},
    {"getStatus", ""},
    {"getCapa", ""},
    {"checkMotorStatus", ""},
};

std::string filledIn(const char* arguments, std::mt19937& random)
{
    std::string text;
    for (; *arguments != '\0'; ++arguments) {
        if (*arguments == '#')
            text += std::to_string(static_cast<int>(random() % 320) - 160);
        else if (*arguments == '%')
            text += std::to_string(1 + random() % 8);
        else
            text += *arguments;
    }
    return text;
}

class Everything : public HeadInTheLab {
protected:
    /// A client that calls without end.
    void callOn(unsigned seed)
    {
        std::mt19937 random(seed);
        while (!ending_.load()) {
            const RandomCall& call = CALLS[random() % std::size(CALLS)];
            const LabReply reply = lab.invoke("ptzd", call.method, filledIn(call.arguments, random), 1s);
            ++(reply.status == 0 ? answered_ : unanswered_);
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 20));
        }
    }
    /// One thing that happens to the head from outside.
    void disturb(std::mt19937& random)
    {
        const auto axis = static_cast<LabAxisId>(random() % 2);
        const auto request = static_cast<LabRequest>(LAB_SET_POSITION + random() % (LAB_STOP - LAB_SET_POSITION + 1));
        const auto set = [&](const char* tuple, const char* one, const char* other) {
            EXPECT_TRUE(lab.settings.set(tuple, random() % 2 ? one : other)) << lab.error();
        };
        switch (random() % 16) {
        case 0:
        case 1:
        case 2:
            lab.motors.failRequest(axis, request, static_cast<int32_t>(1 + random() % 3));
            break;
        case 3:
            lab.motors.delayRequest(axis, request, static_cast<int32_t>(random() % 50));
            break;
        case 4:
            EXPECT_TRUE(lab.motors.clearFaults(axis));
            break;
        case 5:
            lab.cet.setAnswer(static_cast<LabCetMode>(random() % 4), 100); // not silent: that takes a second each
            break;
        case 6:
            set("lens_mask.lens_mask_info.enabled", "on", "off");
            break;
        case 7:
            set("target_track.target_track_info.enabled", "on", "off");
            break;
        case 8:
            set("image.switch.flip_type", "center", "off");
            break;
        case 9:
            set("tour.tour_info.enabled", "on", "off");
            break;
        case 10:
            set("tour.tour_info.tour_type", "1", "2");
            break;
        case 11:
            if (lab.clock.nowNs() < nextRestartNs_)
                break; // the daemon is back two seconds after the last one
            EXPECT_TRUE(lab.programs.stopBus() && lab.programs.startBus()) << lab.error();
            nextRestartNs_ = lab.clock.nowNs() + 100 * SECOND;
            ++busRestarts_;
            break;
        default:
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 50));
            break;
        }
    }
    /// Brings the head back to where a motion is possible and told.
    void calm()
    {
        EXPECT_TRUE(lab.motors.clearFaults(LAB_PAN) && lab.motors.clearFaults(LAB_TILT));
        lab.cet.setAnswer(CET_OK);
        EXPECT_TRUE(lab.settings.set("tour.tour_info.enabled", "off") &&
                    lab.settings.set("image.switch.flip_type", "off") &&
                    lab.settings.set("lens_mask.lens_mask_info.enabled", "off"));
        const auto done = [&](const char* method) {
            EXPECT_TRUE(waitUntil([&] { return lab.call(method).find("code\":0") != std::string::npos; }, DEADLINE))
                << method << ": " << lab.call(method);
        };
        done("checkMotorStatus");
        for (const char* method : {"reload_tour_info", "stopPanorama", "lensMask", "updateImageConfig"})
            done(method);
        std::this_thread::sleep_for(1s); // the touring thread, a rotation test, CET's own reconnection
        done("stop");
        // A calibration that failed, or that a rotation test disturbed, has left the drivers with wrong positions.
        done("manualCalibrate");
        done("checkMotorStatus");
        EXPECT_TRUE(waitUntil([&] { return !lab.records.actions().empty() && lab.records.actions().back() == "stop"; },
                              DEADLINE));
    }

    std::atomic<bool> ending_{false};
    std::atomic<int> answered_{0};
    std::atomic<int> unanswered_{0};
    int busRestarts_ = 0;
    int64_t nextRestartNs_ = 0;
};

TEST_F(Everything, AtOnceHarmsNothing)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    LabOptions options = fastHead();
    options.factor = 500;
    options.clockSpeed = SPEED;
    options.wallClock = "2031-05-05 11:30:00"; // a Monday, whose second range is near
    up(options);
    const pid_t daemon = lab.programs.ptzdPid();
    const int64_t end = lab.clock.nowNs() + repetitions(100, 3600) * SECOND;
    nextRestartNs_ = lab.clock.nowNs() + 20 * SECOND;
    std::vector<std::thread> clients;
    for (unsigned client = 0; client < 4; ++client)
        clients.emplace_back([this, client, seed] { callOn(seed + client); });
    while (lab.clock.nowNs() < end && lab.programs.ptzdPid() == daemon)
        disturb(random);
    ending_.store(true);
    for (std::thread& client : clients)
        client.join();
    ASSERT_EQ(lab.programs.ptzdPid(), daemon) << lab.records.ptzdLog();
    std::printf("%d calls answered, %d not, %d bus restarts\n", answered_.load(), unanswered_.load(), busRestarts_);
    EXPECT_GT(answered_.load(), 100); // those that come while the bus is gone fail at once

    calm();
    ASSERT_TRUE(waitUntil([&] { return rests(); }, DEADLINE));
    lab.records.clear();
    EXPECT_EQ(lab.call("moveTo", coords(30, 10)), DONE);
    ASSERT_TRUE(settled());
    expectAt(1800, 710);
    std::string settings;
    EXPECT_EQ(lab.run({"uci", "show"}, settings), 0) << "a file was damaged";
}

} // namespace
