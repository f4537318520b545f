#include "fakes/stored_head.h"
#include "motion/move.h"
#include "motion/quiet_period.h"
#include "motor/motion_state.h"
#include "preset/goto_preset.h"
#include "preset/preset_methods.h"
#include "preset/preset_store.h"
#include "tour/plan.h"
#include "tour/tour_config.h"
#include "tour/touring.h"
#include "ubus/notify.h"

#include <ctime>

extern "C" time_t __wrap_time(time_t* out);

static time_t wallClock;

time_t __wrap_time(time_t* out)
{
    if (out)
        *out = wallClock;
    return wallClock;
}

namespace {

class Tour : public StoredHead {
protected:
    void SetUp() override
    {
        StoredHead::SetUp();
        setenv("TZ", "UTC0", 1);
        at(1, 0); // a Monday
        settings("on", 1, "-20", "20", 0, 0);
        ASSERT_EQ(TourInit(), 0);
        scan = {gContext.tour.scanTourInfo->x_coord_start, 1};
    }
    void TearDown() override
    {
        TourDeinit();
        StoredHead::TearDown();
    }
    static void settings(const std::string& enabled, int type, const std::string& from, const std::string& to,
                         int start, int end)
    {
        write("tour", "config tour 'tour_info'\n\toption enabled '" + enabled + "'\n\toption tour_type '" +
                          std::to_string(type) + "'\nconfig scan_tour 'scan_tour'\n\toption x_coord_start '" + from +
                          "'\n\toption x_coord_end '" + to + "'\n\toption start_time '" + std::to_string(start) +
                          "'\n\toption end_time '" + std::to_string(end) + "'\n");
    }
    /// 1 January 1978 was a Sunday.
    static void at(int weekday, int minute)
    {
        wallClock = 8 * 365 * 86400L + 2 * 86400L + weekday * 86400L + minute * 60L;
    }
    /// Has both packages loaded, as the two reload methods do.
    void reload()
    {
        EXPECT_EQ(call(ubusReloadTourInfo), R"({"error_code":0})");
        EXPECT_EQ(call(ubusReloadScanTour), R"({"error_code":0})");
    }
    /// One cycle that reports nothing; the pan coordinate that it sent the head to, or NOWHERE.
    int cycle()
    {
        fakeMotor.requests.clear();
        EXPECT_EQ(tourCycle(scan), nullptr);
        const auto moves = fakeMotor.sent(MOTOR_IOC_MOVE);
        return moves.empty() ? NOWHERE : (fakeMotor.status[PAN].position + moves[0].steps - 1500) / 10;
    }
    /// The motion ends and the head rests for its quiet periods.
    static void rest()
    {
        motorStatusPoll(nullptr);
        scanMoveStopTimeout(nullptr);
        usrMoveStopTimeout(nullptr);
    }
    void presetTour()
    {
        settings("on", 2, "0", "0", 0, 0);
        reload();
        fakeMotor.status[PAN].position = 2250;
        for (int i = 0; i < 3; ++i)
            call(ubusSetPreset, R"({"save_ptz":"1"})");
        fakeMotor.status[PAN].position = 1500;
        EXPECT_EQ(
            call(plan_modify_plan,
                 R"({"monday":[{"monday_1":{"start_time":480,"end_time":720,"action_type":"preset",)"
                 R"("action_id":"3"}},{"monday_2":{"start_time":720,"end_time":721,"action_type":"preset",)"
                 R"("action_id":"5"}},{"monday_3":{"start_time":721,"end_time":1440,"action_type":"disable"}}]})"),
            R"({"error_code":0})");
    }

    static constexpr int NOWHERE = -999;
    ScanProgress scan{};
};

TEST_F(Tour, ScansThereAndBackWithARestAfterEachStep)
{
    gContext.tour.tourCurrentPresetId.store(3);
    for (int expected : {-20, -10, 0, 10, 20, 10, 0, -10, -20, -10}) {
        EXPECT_EQ(cycle(), expected);
        ASSERT_EQ(fakeMotor.sent(MOTOR_IOC_MOVE).size(), 1u) << "tilt does not move";
        EXPECT_EQ(fakes.notifications.back(), (FakeNotification{NOTIFY_MOVING, ORIGIN_TOUR}));
        EXPECT_EQ(gContext.tour.tourCurrentPresetId.load(), 0) << "a preset tour sends the head again";
        EXPECT_EQ(cycle(), NOWHERE) << "not rested";
        motorStatusPoll(nullptr);
        EXPECT_EQ(fakes.timers[&gContext.timers.scanMoveStopTimer].firstNs, 15'000'000'000);
        EXPECT_FALSE(fakes.armed(gContext.timers.usrMoveStopTimer));
        EXPECT_EQ(cycle(), NOWHERE);
        scanMoveStopTimeout(nullptr);
    }
    EXPECT_EQ(fakes.notifications.back(), (FakeNotification{NOTIFY_IDLE, ORIGIN_TOUR}));
    EXPECT_TRUE(reported("motorTouring", "cur_xoord is 20"));
}

TEST_F(Tour, ScansWithinItsDailySpan)
{
    const struct {
        int start, end, minute;
        bool scans;
    } cases[] = {
        {1320, 360, 1319, false}, {1320, 360, 1320, true}, {1320, 360, 0, true},   {1320, 360, 359, true},
        {1320, 360, 360, false},  {1320, 360, 720, false}, {480, 720, 479, false}, {480, 720, 480, true},
        {480, 720, 719, true},    {480, 720, 720, false},  {300, 300, 299, true},  {300, 300, 300, true},
    };
    for (const auto& c : cases) {
        settings("on", 1, "0", "0", c.start, c.end);
        reload();
        at(3, c.minute);
        EXPECT_EQ(cycle(), c.scans ? 0 : NOWHERE) << c.start << " " << c.end << " " << c.minute;
        rest();
    }
}

TEST_F(Tour, StaysAwayFromAHeadThatIsNotItsToMove)
{
    const auto blocked = [&](std::atomic<int32_t>& word, int32_t value) {
        const int32_t before = word.exchange(value);
        EXPECT_EQ(cycle(), NOWHERE);
        EXPECT_TRUE(fakeMotor.requests.empty());
        word.store(before);
    };
    blocked(gContext.motion.user_moved_recently, 1);
    blocked(gContext.motion.calibrating, 1);
    blocked(gContext.motion.motion_active, 1);
    blocked(gContext.motion.track_back_done, 0);
    blocked(gContext.panorama.panoramaRunning, 1);
    lensMaskSetEnabled(1);
    EXPECT_EQ(cycle(), NOWHERE);
    lensMaskSetEnabled(0);
    EXPECT_EQ(cycle(), -20);
}

TEST_F(Tour, FollowsItsSwitchAndTypeOnceReloaded)
{
    settings("off", 1, "50", "60", 0, 0);
    EXPECT_EQ(cycle(), -20) << "not reloaded yet";
    rest();
    call(ubusReloadTourInfo);
    EXPECT_EQ(cycle(), NOWHERE);
    for (const int type : {0, 3}) {
        settings("on", type, "50", "60", 0, 0);
        reload();
        EXPECT_EQ(cycle(), NOWHERE) << type;
    }
    settings("yes", 1, "50", "60", 0, 0);
    reload();
    gContext.motion.user_moved_recently.store(1);
    EXPECT_EQ(cycle(), 50) << "a reload lets the tour start anew";
}

TEST_F(Tour, AFailedReloadIsTriedAgain)
{
    write("tour", "config tour 'tour_info'\n\toption enabled 'on'\n");
    reload();
    for (int i = 0; i < 2; ++i)
        EXPECT_STREQ(tourCycle(scan), "load tour config err\n");
    settings("on", 1, "30", "x", 0, 0);
    EXPECT_STREQ(tourCycle(scan), "load tour scan info err\n");
    EXPECT_EQ(gContext.tour.scanTourInfo->x_coord_start, 30) << "read before the failure";
    EXPECT_TRUE(reported("scan_tour_load_config", "tour info x_coord_end is NULL"));
    settings("on", 1, "30", "40", 0, 0);
    write("ptz_plan", "config sunday 'sunday_1'\n");
    gContext.tour.planChanged.store(1);
    EXPECT_STREQ(tourCycle(scan), "load tour preset plan err\n");
    write("ptz_plan", "");
    EXPECT_EQ(cycle(), 30);
    EXPECT_EQ(gContext.tour.planChanged.load(), 0);
}

TEST_F(Tour, GoesToThePlannedPresetOnce)
{
    presetTour();
    at(1, 479);
    EXPECT_EQ(cycle(), NOWHERE);
    at(1, 480);
    EXPECT_EQ(cycle(), 75);
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_MOVE).size(), 2u);
    rest();
    EXPECT_EQ(cycle(), NOWHERE) << "it is there";
    gContext.tour.tourCurrentPresetId.store(0); // as after another motion
    at(1, 719);
    EXPECT_EQ(cycle(), 75);
    rest();
    gContext.tour.tourCurrentPresetId.store(0);
    at(1, 720);
    EXPECT_EQ(cycle(), NOWHERE) << "there is no preset 5";
    at(1, 800);
    EXPECT_EQ(cycle(), NOWHERE) << "disabled";
    at(2, 480);
    EXPECT_EQ(cycle(), NOWHERE) << "another day";
}

TEST_F(Tour, AFailedScanStepIsTriedAgainAtTheSamePlaceAndAFailedPresetMoveIsNot)
{
    fakeMotor.fail(PAN, MOTOR_IOC_MOVE);
    EXPECT_STREQ(tourCycle(scan), "scan tour move err\n");
    rest();
    fakeMotor.failing.clear();
    EXPECT_EQ(cycle(), -20);
    rest();
    scan.coord = 151;
    EXPECT_STREQ(tourCycle(scan), "scan tour move err\n");

    presetTour();
    at(1, 500);
    fakeMotor.fail(PAN, MOTOR_IOC_GET_STATUS);
    EXPECT_EQ(cycle(), NOWHERE);
    fakeMotor.failing.clear();
    EXPECT_EQ(cycle(), NOWHERE);
    EXPECT_EQ(gContext.tour.tourCurrentPresetId.load(), 3);
    ASSERT_EQ(reloadPresetList(), RESULT_OK);
    EXPECT_EQ(cycle(), 75);
}

// A user's command at each point of a tour's step: the head obeys the user, and the motion counts as the user's.
class Overtaken : public Tour, public testing::WithParamInterface<bool> {
protected:
    /// Runs `command` once, when the step makes its first request of a kind, or while it announces its motion.
    static void during(unsigned long request, const std::function<void()>& command)
    {
        fakeMotor.onRequest = [=](const FakeRequest& made) {
            if (made.number != request)
                return;
            const auto once = command; // outlives the function that it is called from
            fakeMotor.onRequest = nullptr;
            once();
        };
    }
    void start()
    {
        if (GetParam())
            presetTour();
        at(1, 500);
    }
    /// Not from the notification itself, which holds a lock that the command takes: from the arming that follows it.
    static void afterBegin(const std::function<void()>& command)
    {
        fakes.afterTimerStart = [=] {
            const auto once = command;
            fakes.afterTimerStart = nullptr;
            once();
        };
    }
};

TEST_P(Overtaken, ByAMoveBeforeItsBegin)
{
    start();
    for (const int running : {0, 1}) { // or that it takes for a motion to halt
        during(MOTOR_IOC_GET_STATUS, [running] {
            EXPECT_EQ(moveHeadTo(-100, 0), RESULT_OK);
            fakeMotor.status[PAN].running = running;
        });
        EXPECT_EQ(cycle(), -100);
        EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_MOVE).size(), 2u) << "the user's only";
        EXPECT_TRUE(fakeMotor.sent(MOTOR_IOC_STOP).empty()) << "the user's motion is not halted";
        EXPECT_EQ(gContext.motion.motion_origin.load(), ORIGIN_USER);
        EXPECT_EQ(gContext.motion.user_moved_recently.load(), 1);
        EXPECT_EQ(gContext.tour.tourCurrentPresetId.load(), 0);
        rest();
    }
}

TEST_P(Overtaken, ByAMoveAfterItsBegin)
{
    start();
    afterBegin([] { EXPECT_EQ(moveHeadTo(-100, 0), RESULT_OK); });
    EXPECT_EQ(cycle(), -100);
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_MOVE).size(), 2u);
    motorStatusPoll(nullptr);
    EXPECT_EQ(fakes.notifications.size(), 2u) << "one moving, one idle";
    EXPECT_TRUE(fakes.armed(gContext.timers.usrMoveStopTimer));
    EXPECT_EQ(cycle(), NOWHERE);
    rest();
    EXPECT_NE(cycle(), NOWHERE) << "after the quiet period the tour goes on";
}

TEST_P(Overtaken, ByAStopAfterItsBegin)
{
    start();
    afterBegin([] { EXPECT_EQ(stopHead(), RESULT_OK); });
    EXPECT_EQ(cycle(), NOWHERE);
    EXPECT_EQ(gContext.motion.motion_active.load(), 0);
    EXPECT_EQ(fakes.notifications,
              (std::vector<FakeNotification>{{NOTIFY_MOVING, ORIGIN_TOUR}, {NOTIFY_IDLE, ORIGIN_USER}}));
    motorStatusPoll(nullptr);
    EXPECT_EQ(fakes.notifications.size(), 2u);
    EXPECT_EQ(cycle(), NOWHERE);
    rest();
    EXPECT_NE(cycle(), NOWHERE);
}

TEST_P(Overtaken, AStopThatHasHaltedLeavesAMotionThatBeginsAfterwards)
{
    start();
    int sent = NOWHERE;
    during(MOTOR_IOC_STOP, [&] {
        fakeMotor.requests.clear();
        EXPECT_EQ(tourCycle(scan), nullptr);
        sent = static_cast<int>(fakeMotor.sent(MOTOR_IOC_MOVE).size());
        fakeMotor.status[TILT].running = 0;
    });
    EXPECT_EQ(stopHead(), RESULT_OK);
    EXPECT_EQ(sent, GetParam() ? 2 : 1);
    EXPECT_EQ(gContext.motion.motion_active.load(), 1) << "the poll ends it";
    motorStatusPoll(nullptr);
    EXPECT_EQ(fakes.notifications.back(), (FakeNotification{NOTIFY_IDLE, ORIGIN_TOUR}));
}

TEST_P(Overtaken, ByTheLensMaskOrACalibrationAtAnyTime)
{
    start();
    during(MOTOR_IOC_GET_STATUS, [] { lensMaskSetEnabled(1); });
    EXPECT_EQ(cycle(), NOWHERE);
    EXPECT_TRUE(fakes.notifications.empty());
    lensMaskSetEnabled(0);
    afterBegin([] { gContext.motion.calibrating.store(1); });
    EXPECT_EQ(cycle(), NOWHERE);
}

INSTANTIATE_TEST_SUITE_P(Tours, Overtaken, testing::Bool());

TEST_F(Tour, CannotStartWithAPlanThatCannotBeRead)
{
    TourDeinit();
    write("ptz_plan", "config sunday 'sunday_1'\n");
    EXPECT_EQ(TourInit(), -1);
    EXPECT_TRUE(reported("TourInit", "error to init tour!"));
    EXPECT_EQ(gContext.tour.tourInfo, nullptr);
    EXPECT_EQ(gContext.tour.activePlan.tables[6], nullptr);
    EXPECT_EQ(call(plan_modify_plan, R"({"sunday":[]})"), R"({"error_code":64302})") << "no table to build it on";
    write("ptz_plan", "");
    fakes.threadCreationFails = true;
    EXPECT_EQ(TourInit(), -1);
}

} // namespace
