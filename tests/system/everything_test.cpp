// An hour in which everything happens at once. Under the sanitizers of a debug build this looks for races, and for
// locks that are taken out of their order.

#include "load.h"

#include <algorithm>
#include <random>

namespace {

constexpr double SPEED = 20; // lab time in real time
constexpr int64_t SECOND = 1'000'000'000;

class Everything : public HeadInTheLab {
protected:
    /// One thing that happens to the head from outside.
    void disturb(std::mt19937& random)
    {
        constexpr struct {
            const char* tuple;
            const char* one;
            const char* other;
        } SETTINGS[] = {
            {"lens_mask.lens_mask_info.enabled", "on", "off"},
            {"target_track.target_track_info.enabled", "on", "off"},
            {"image.switch.flip_type", "center", "off"},
            {"tour.tour_info.enabled", "on", "off"},
            {"tour.tour_info.tour_type", "1", "2"},
        };
        const auto axis = static_cast<LabAxisId>(random() % 2);
        const auto request = static_cast<LabRequest>(LAB_SET_POSITION + random() % (LAB_STOP - LAB_SET_POSITION + 1));
        switch (random() % 6) {
        case 0:
            lab.motors.failRequest(axis, request, static_cast<int32_t>(1 + random() % 3));
            break;
        case 1:
            lab.motors.delayRequest(axis, request, static_cast<int32_t>(random() % 50));
            break;
        case 2:
            EXPECT_TRUE(lab.motors.clearFaults(axis));
            break;
        case 3:
            lab.cet.setAnswer(static_cast<LabCetMode>(random() % 4), 100); // not silent: that takes a second each
            break;
        case 4: {
            const auto& [tuple, one, other] = SETTINGS[random() % std::size(SETTINGS)];
            EXPECT_TRUE(lab.settings.set(tuple, random() % 2 ? one : other)) << lab.error();
            break;
        }
        default:
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 40));
    }
    /// Brings the head back to where a motion is possible and notified.
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
        std::this_thread::sleep_for(1s); // the touring thread, a rotation test
        done("stop");
        // A calibration that failed, or that a rotation test disturbed, has left the drivers with wrong positions.
        done("manualCalibrate");
        done("checkMotorStatus");
        EXPECT_TRUE(waitUntil([&] { return !lab.records.actions().empty() && lab.records.actions().back() == "stop"; },
                              DEADLINE));
    }
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
    {
        const Load load(lab, seed);
        while (lab.clock.nowNs() < end && lab.programs.ptzdPid() == daemon)
            disturb(random);
        EXPECT_GT(load.answered(), 100);
    }
    ASSERT_EQ(lab.programs.ptzdPid(), daemon) << lab.records.ptzdLog();

    calm();
    ASSERT_TRUE(waitUntil([&] { return rests(); }, DEADLINE));
    bool moving = false;
    for (const LabCetEntry& entry : lab.records.cetLog()) {
        if (entry.isEvent)
            continue;
        const bool begins = entry.name == "notify_motor_moving";
        EXPECT_NE(moving, begins) << entry.name << " twice, at " << static_cast<double>(entry.realNs) / 1e9 << " s";
        moving = begins;
    }
    EXPECT_FALSE(moving) << "a motion has not ended";
    lab.records.clear();
    EXPECT_EQ(lab.call("moveTo", coords(30, 10)), DONE);
    ASSERT_TRUE(settled());
    expectAt(1800, 710);
    std::string settings;
    EXPECT_EQ(lab.run({"uci", "show"}, settings), 0) << "a file was damaged";
}

TEST_F(HeadInTheLab, AnswersStopAmidACrowdOfCallers)
{
    constexpr unsigned CROWD = 64;
    using Milliseconds = std::chrono::duration<double, std::milli>;
    up(slowHead());
    const Load crowd(lab, 1, CROWD, false);
    ASSERT_TRUE(waitUntil([&] { return crowd.answered() > 2 * static_cast<int>(CROWD); }, DEADLINE));
    std::vector<double> took;
    for (int i = 0; i < repetitions(10, 2000); ++i) {
        std::this_thread::sleep_for(5ms);
        const auto sent = std::chrono::steady_clock::now();
        ASSERT_EQ(lab.invoke("ptzd", "stop", "", 10s).status, 0);
        took.push_back(Milliseconds(std::chrono::steady_clock::now() - sent).count());
    }
    std::sort(took.begin(), took.end());
    printf("stop answered in %.1f ms (median), %.1f (99 %%)\n", took[took.size() / 2], took[took.size() * 99 / 100]);
    EXPECT_LT(took[took.size() / 2], 5000) << "the crowd is served first";
}

} // namespace
