// A night of the scan on a fast clock, in the daemon's own threads and timers.

#include "head.h"

#include <algorithm>
#include <ctime>

namespace {

constexpr int64_t SECOND = 1'000'000'000;
constexpr int64_t MINUTE = 60 * SECOND;

/// A scan from 22:00 to 6:00 between -50 and 50.
class ScannedNight : public HeadInTheLab {
protected:
    void TearDown() override
    {
        if (lab.programs.ptzdPid() != 0)
            lab.clock.setSpeed(1); // the daemon gets as much time to end as always
        HeadInTheLab::TearDown();
    }
    pid_t tour = 0; // the touring thread

    std::vector<LabJournalEntry> tourSteps()
    {
        std::vector<LabJournalEntry> steps = driving(LAB_PAN);
        std::erase_if(steps, [&](const LabJournalEntry& entry) {
            return entry.request != "MOVE" || (tour != 0 && entry.thread != tour);
        });
        return steps;
    }
    void waitForAStep()
    {
        const size_t made = tourSteps().size();
        ASSERT_TRUE(waitUntil([&] { return tourSteps().size() > made; }, DEADLINE)) << lab.records.ptzdLog();
    }
    /// How long the head had rested before a step: since the latest idle notification.
    int64_t quietBefore(const LabJournalEntry& step)
    {
        int64_t rest = 0;
        for (const LabCetEntry& entry : lab.records.cetLog())
            if (!entry.isEvent && entry.name == "notify_motor_idle" && entry.labNs < step.labNs)
                rest = entry.labNs;
        return step.labNs - rest;
    }
    void waitMinutes(int minutes)
    {
        const int64_t since = lab.clock.nowNs();
        ASSERT_TRUE(waitUntil([&] { return lab.clock.nowNs() - since > minutes * MINUTE; }, DEADLINE));
    }
    /// Sets the clock to a moment of May, in UTC, and expects that the tour goes on, or does not, in the ten minutes
    /// from two minutes later on.
    void expectTour(const char* time, bool goesOn)
    {
        tm parts{};
        ASSERT_NE(strptime((std::string("2031-05-") + time).c_str(), "%Y-%m-%d %H:%M", &parts), nullptr);
        const time_t moment = timegm(&parts);
        char local[32]; // setWall() takes this process's time
        strftime(local, sizeof(local), "%Y-%m-%d %H:%M:%S", localtime_r(&moment, &parts));
        lab.clock.setSpeed(1);
        ASSERT_TRUE(lab.clock.setWall(local)) << lab.error();
        lab.clock.setSpeed(400);
        waitMinutes(2);
        const size_t before = tourSteps().size();
        waitMinutes(10);
        EXPECT_EQ(tourSteps().size() > before, goesOn) << time;
    }
    /// Calls what holds the tour, and what ends that after three minutes; a minute of rest follows.
    void interrupt(const char* hold, const std::string& arguments, const char* release)
    {
        // A command that meets a step of the tour only redirects it, so come right after one.
        lab.clock.setSpeed(20);
        waitForAStep();
        const auto over = [&] {
            return lab.records.callsToCet("notify_motor_idle") == lab.records.callsToCet("notify_motor_moving");
        };
        ASSERT_TRUE(waitUntil(over, DEADLINE));
        const auto done = [&](const char* mask, const char* method, const std::string& json) {
            EXPECT_TRUE(lab.settings.set("lens_mask.lens_mask_info.enabled", mask)) << lab.error();
            EXPECT_NE(lab.call(method, json).find("code\":0"), std::string::npos) << method;
        };
        done("on", hold, arguments); // counts for lensMask only
        lab.clock.setSpeed(100);     // a minute is 0.6 s
        const size_t before = tourSteps().size();
        if (release) {
            waitMinutes(3);
            EXPECT_EQ(tourSteps().size(), before) << hold << " holds the tour";
            done("off", release, "");
        }
        ASSERT_TRUE(waitUntil([&] { return tourSteps().size() > before; }, DEADLINE));
        const int64_t quiet = quietBefore(tourSteps()[before]);
        EXPECT_GE(quiet, 60 * SECOND) << hold;
        EXPECT_LT(quiet, 240 * SECOND) << hold;
    }
};

TEST_F(ScannedNight, WrapsPastMidnightAndIsHeldAsLongAsNeeded)
{
    LabOptions options = fastHead();
    options.config["tour"] = tourPackage("on", 1, -50, 50, 1320, 360);
    options.clockSpeed = 20;
    up(options);
    ASSERT_TRUE(lab.clock.setZone("AAA0")) << lab.error();
    expectTour("03 19:55", false);
    ASSERT_TRUE(lab.clock.setZone("AAA-2")) << lab.error(); // where it is 22:07
    waitForAStep();
    tour = tourSteps().front().thread; // nobody else has moved the head yet
    lab.clock.setSpeed(20);
    waitForAStep();
    waitForAStep();
    EXPECT_GE(quietBefore(tourSteps().back()), 15 * SECOND);
    interrupt("moveTo", coords(-140, 20), nullptr);
    interrupt("targetTrack", R"({"x_coord":"7","y_coord":"3","x_speed":"8","y_speed":"8"})", "targetTrackBack");
    interrupt("startPanorama", "", "stopPanorama");
    interrupt("lensMask", "", "lensMask");
    expectTour("03 21:55", true);
    expectTour("04 03:45", true);
    expectTour("04 03:58", false);
}

} // namespace
