// When a tour moves the head, and commands that overtake its step.

#include "core/lens_mask_library.h"
#include "fakes/stored_head.h"
#include "motion/lens_mask.h"
#include "motion/move.h"
#include "motor/motion_state.h"
#include "motor/quiet_period.h"
#include "motor/status_poll.h"
#include "preset/goto_preset.h"
#include "preset/preset_methods.h"
#include "preset/preset_store.h"
#include "tour/plan.h"
#include "tour/tour_config.h"
#include "tour/tour_state.h"
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
        standAt(2250, 610);
        call(ubusSetPreset, R"({"id":"3","save_ptz":"1"})");
        standAt(1500, 610);
        EXPECT_EQ(call(plan_modify_plan,
                       R"({"monday":[{"monday_1":{"start_time":480,"end_time":720,"action_type":"preset",)"
                       R"("action_id":"3"}}]})"),
                  R"({"error_code":0})");
    }

    static constexpr int NOWHERE = -999;
    ScanProgress scan{};
};

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

TEST_F(Tour, AMotionUnderWayBecomesTheUsersByAPresetAndByTheLensMask)
{
    presetTour();
    at(1, 500);
    EXPECT_EQ(cycle(), 75);
    fakeMotor.status[PAN].running = 1;
    EXPECT_EQ(call(ubusGotoPreset, R"({"id":"3"})"), R"({"error_code":0})");
    EXPECT_EQ(motion.user_moved_recently.load(), 1);
    motorStatusPoll(nullptr);
    EXPECT_EQ(fakes.notifications.back(), (FakeNotification{NOTIFY_IDLE, ORIGIN_USER}));
    rest();

    EXPECT_EQ(cycle(), 75) << "the tour goes on";
    fakeMotor.status[PAN].running = 1;
    write("lens_mask", "config lens_mask 'lens_mask_info'\n\toption enabled 'on'\n");
    EXPECT_EQ(call(ubusLensMask), R"({"err_code":0})");
    EXPECT_EQ(motion.user_moved_recently.load(), 1);
    EXPECT_EQ(gContext.motion.tourCurrentPresetId.load(), 0);
}

// A user's command at each point of a tour's step: the head obeys the user, and the motion counts as the user's.
class Overtaken : public Tour, public testing::WithParamInterface<bool> {
protected:
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
        atNext(PAN, MOTOR_IOC_GET_STATUS, [running] {
            EXPECT_EQ(moveHeadTo(-100, 0), RESULT_OK);
            fakeMotor.status[PAN].running = running;
        });
        EXPECT_EQ(cycle(), -100);
        EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_MOVE).size(), 2u) << "the user's only";
        EXPECT_TRUE(fakeMotor.sent(MOTOR_IOC_STOP).empty()) << "the user's motion is not halted";
        EXPECT_EQ(motion.motion_origin.load(), ORIGIN_USER);
        EXPECT_EQ(motion.user_moved_recently.load(), 1);
        EXPECT_EQ(gContext.motion.tourCurrentPresetId.load(), 0);
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
    EXPECT_TRUE(fakes.armed(timers.usrMoveStopTimer));
    EXPECT_EQ(cycle(), NOWHERE);
    rest();
    EXPECT_NE(cycle(), NOWHERE) << "after the quiet period the tour goes on";
}

TEST_P(Overtaken, ByAStopAfterItsBegin)
{
    start();
    afterBegin([] { EXPECT_EQ(stopHead(), RESULT_OK); });
    EXPECT_EQ(cycle(), NOWHERE);
    EXPECT_EQ(motion.motion_active.load(), 0);
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
    atNext(PAN, MOTOR_IOC_STOP, [&] {
        fakeMotor.requests.clear();
        EXPECT_EQ(tourCycle(scan), nullptr);
        sent = static_cast<int>(fakeMotor.sent(MOTOR_IOC_MOVE).size());
        fakeMotor.status[TILT].running = 0;
    });
    EXPECT_EQ(stopHead(), RESULT_OK);
    EXPECT_EQ(sent, GetParam() ? 2 : 1);
    EXPECT_EQ(motion.motion_active.load(), 1) << "the poll ends it";
    motorStatusPoll(nullptr);
    EXPECT_EQ(fakes.notifications.back(), (FakeNotification{NOTIFY_IDLE, ORIGIN_TOUR}));
}

TEST_P(Overtaken, ByTheLensMaskOrACalibrationAtAnyTime)
{
    start();
    atNext(PAN, MOTOR_IOC_GET_STATUS, [] { lensMaskSetEnabled(1); });
    EXPECT_EQ(cycle(), NOWHERE);
    EXPECT_TRUE(fakes.notifications.empty());
    lensMaskSetEnabled(0);
    afterBegin([this] { motion.calibrating.store(1); });
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
