// When a tour moves the head, and commands that overtake its step.

#include "head.h"
#include "motor/quiet_period.h"
#include "tour/touring.h"
#include "ubus/notify.h"

#include <semaphore>
#include <thread>

namespace {

class Tour : public Head {
protected:
    void SetUp() override
    {
        Head::SetUp();
        at(1, 0); // a Monday
        scanTour("on", -20, 20, 0, 0);
        ASSERT_EQ(TourInit(), 0);
        fakes.workers.clear(); // the cycles are called here
        scan = {gContext.tour.scanTourInfo->x_coord_start, 1};
    }
    static void scanTour(const std::string& enabled, int from, int to, int start, int end, const char* type = "1")
    {
        rig::store("tour", section("tour", "tour_info", {{"enabled", enabled}, {"tour_type", type}}) +
                               section("scan_tour", "scan_tour",
                                       {{"x_coord_start", std::to_string(from)},
                                        {"x_coord_end", std::to_string(to)},
                                        {"start_time", std::to_string(start)},
                                        {"end_time", std::to_string(end)}}));
    }
    /// Mondays from 8:00 to 12:00 at preset 3, coordinate 75, and then for an hour at preset 4, coordinate -75.
    void presetTour()
    {
        scanTour("on", 0, 0, 0, 0, "2");
        reload();
        for (const auto& [id, pan] : {std::pair{"3", 2250}, {"4", 750}}) {
            standAt(pan, 305);
            (void)call("setPreset", std::string(R"({"save_ptz":"1","id":")") + id + "\"}");
        }
        standAt(1500, 610);
        rig::store("ptz_plan", planned("monday_1", "480", "720", "preset", "3") +
                                   planned("monday_2", "720", "780", "preset", "4") +
                                   planned("monday_3", "780", "800", "disable", "3"));
        gContext.tour.planChanged.store(1);
    }
    /// 1 January 1978 was a Sunday.
    static void at(int weekday, int minute)
    {
        fakes.now = 8 * 365 * 86400L + 2 * 86400L + weekday * 86400L + minute * 60L;
    }
    /// Has both packages loaded, as the two reload methods do.
    static void reload()
    {
        EXPECT_EQ(call("reload_tour_info"), code(RESULT_OK));
        EXPECT_EQ(call("reload_scan_tour"), code(RESULT_OK));
    }
    /// One cycle that reports nothing; the pan coordinate that it sent the head to, or NOWHERE.
    int cycle()
    {
        fakeMotor.requests.clear();
        EXPECT_TRUE(tourCycle(scan));
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

    static constexpr int NOWHERE = -999;
    ScanProgress scan{};
};

TEST_F(Tour, ScansWithinItsDailySpan)
{
    const std::tuple<int, int, int, bool> cases[] = {
        {1320, 360, 1319, false}, {1320, 360, 1320, true}, {1320, 360, 0, true},  {1320, 360, 359, true},
        {1320, 360, 360, false},  {480, 720, 479, false},  {480, 720, 480, true}, {480, 720, 719, true},
        {480, 720, 720, false},   {300, 300, 299, true},   {300, 300, 300, true},
    };
    for (const auto& [start, end, minute, scans] : cases) {
        scanTour("on", 0, 0, start, end);
        reload();
        at(3, minute);
        EXPECT_EQ(cycle(), scans ? 0 : NOWHERE) << start << " " << end << " " << minute;
        rest();
    }
    scanTour("off", 0, 0, 0, 0);
    reload();
    EXPECT_EQ(cycle(), NOWHERE);
}

TEST_F(Tour, ScansToAndFroWithAPauseAtEachStep)
{
    gContext.preset.panSpeedFactor.store(0.5F);
    gContext.preset.tiltSpeedFactor.store(0.25F);
    for (const int coord : {-20, -10, 0, 10, 20, 10, 0, -10, -20, -10}) {
        ASSERT_EQ(cycle(), coord);
        EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_MOVE).back().speed, 4) << "half of pan's eight, and no tilt";
        restAt(1500 + 10 * coord, 610);
        EXPECT_EQ(fakes.timers[&timers.scanMoveStopTimer], (FakeTimer{15'000'000'000, 15'000'000'000}));
        EXPECT_FALSE(fakes.armed(timers.usrMoveStopTimer)) << "it is no user's motion";
        EXPECT_EQ(cycle(), NOWHERE) << "the pause";
        scanMoveStopTimeout(nullptr);
    }
}

TEST_F(Tour, GoesByThePlan)
{
    presetTour();
    const struct {
        int minute, coord;
    } cases[] = {{479, NOWHERE}, {480, 75}, {719, NOWHERE}, {720, -75}, {779, NOWHERE}, {780, NOWHERE}};
    for (const auto& [minute, coord] : cases) {
        at(1, minute);
        EXPECT_EQ(cycle(), coord) << minute;
        motorStatusPoll(nullptr);
        EXPECT_FALSE(fakes.armed(timers.usrMoveStopTimer)) << "a tour's motion is no user's";
    }
    at(1, 420);
    setenv("TZ", "Later-2", 1); // nine o'clock there
    EXPECT_EQ(cycle(), 75);
    setenv("TZ", "UTC0", 1);
    motorStatusPoll(nullptr);
    at(1, 721);
    fakeMotor.fail(PAN, MOTOR_IOC_GET_STATUS);
    EXPECT_EQ(cycle(), NOWHERE);
    fakeMotor.failing.clear();
    EXPECT_EQ(cycle(), NOWHERE) << "what fails is not tried again";
}

TEST_F(Tour, AFailedReloadIsTriedAgain)
{
    rig::store("tour", "config tour 'tour_info'\n\toption enabled 'on'\n");
    reload();
    for (int i = 0; i < 2; ++i)
        EXPECT_FALSE(tourCycle(scan));
    EXPECT_EQ(fakes.reports.back(), (FakeReport{"TestBody", "load tour config err\n"}));
    scanTour("on", 30, 40, 0, 0);
    EXPECT_EQ(cycle(), 30);
}

TEST_F(Tour, SettingsThatChangeEndTheQuietPeriod)
{
    EXPECT_EQ(call("moveTo", xy(50, 0)), code(RESULT_OK));
    motorStatusPoll(nullptr);
    EXPECT_EQ(cycle(), NOWHERE);
    reload();
    EXPECT_EQ(cycle(), -20);
}

TEST_F(Tour, RestsWhileSomethingIsTracked)
{
    rig::store("ptzd", position(1500, 610));
    cfg_uci_pkg_reload(UCI_PTZD);
    presetTour();
    at(1, 500);
    EXPECT_EQ(cycle(), 75);
    EXPECT_EQ(driven(), "pan move 750 at 8, tilt move -305 at 6");
    restAt(2250, 610);
    EXPECT_EQ(call("targetTrack", R"({"x_coord":"1","y_coord":"0","x_speed":"1","y_speed":"1"})"), code(RESULT_OK));
    restAt(2260, 610);
    rest();
    EXPECT_EQ(gContext.motion.track_back_done.load(), 0);
    EXPECT_EQ(cycle(), NOWHERE);
    EXPECT_EQ(call("targetTrackBack"), code(RESULT_OK));
    EXPECT_EQ(driven(), "pan move -10 at 4, tilt move 0 at 3");
    EXPECT_EQ(cycle(), NOWHERE);
    standAt(2250, 610);
    rest();
    EXPECT_EQ(cycle(), 75) << "and goes on";
}

// A user's command at each point of a tour's step: the head obeys the user, and the motion counts as the user's.
class Overtaken : public Tour {
protected:
    void SetUp() override
    {
        Tour::SetUp();
        presetTour();
        at(1, 500);
    }
    static void moveAway()
    {
        EXPECT_EQ(call("moveTo", xy(-100, 0)), code(RESULT_OK));
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

TEST_F(Overtaken, ByAMoveAfterItsBegin)
{
    afterBegin(moveAway);
    EXPECT_EQ(cycle(), -100);
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_MOVE).size(), 2u) << "the user's only";
    reload(); // settings that change amid the user's motion do not make it the tour's again
    EXPECT_EQ(cycle(), NOWHERE);
    motorStatusPoll(nullptr);
    EXPECT_EQ(fakes.notifications.size(), 2u) << "one moving, one idle";
    EXPECT_EQ(cycle(), NOWHERE);
    rest();
    EXPECT_NE(cycle(), NOWHERE) << "after the quiet period the tour goes on";
}

TEST_F(Overtaken, ByAMoveThatHasHaltedTheHeadBeforeItsBegin)
{
    std::binary_semaphore begun{0};
    std::binary_semaphore driven{0};
    std::thread tour;
    fakeMotor.status[PAN].running = 1; // the move halts it, and a step of the tour begins before the move does
    atNext(TILT, MOTOR_IOC_STOP, [&] {
        fakeMotor.status[PAN].running = 0;
        afterBegin([&] {
            begun.release();
            driven.acquire();
        });
        tour = std::thread([&] { EXPECT_TRUE(tourCycle(scan)); });
        begun.acquire();
    });
    moveAway();
    driven.release();
    tour.join();
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_MOVE).size(), 2u) << "the user's only";
    EXPECT_EQ(motion.user_moved_recently.load(), 1);
}

TEST_F(Overtaken, AStopThatHasHaltedLeavesAMotionThatBeginsAfterwards)
{
    atNext(PAN, MOTOR_IOC_STOP, [&] {
        fakeMotor.requests.clear();
        EXPECT_TRUE(tourCycle(scan));
        EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_MOVE).size(), 2u);
        fakeMotor.status[TILT].running = 0;
    });
    EXPECT_EQ(call("stop"), code(RESULT_OK));
    motorStatusPoll(nullptr);
    EXPECT_EQ(fakes.notifications.back(), (FakeNotification{NOTIFY_IDLE, ORIGIN_TOUR}));
}

TEST_F(Overtaken, AMotionUnderWayBecomesTheUsersByAPresetAndByTheLensMask)
{
    EXPECT_EQ(cycle(), 75);
    fakeMotor.status[PAN].running = 1;
    EXPECT_EQ(call("gotoPreset", R"({"id":"3"})"), code(RESULT_OK));
    EXPECT_EQ(motion.user_moved_recently.load(), 1);
    motorStatusPoll(nullptr);
    EXPECT_EQ(fakes.notifications.back(), (FakeNotification{NOTIFY_IDLE, ORIGIN_USER}));
    rest();

    EXPECT_EQ(cycle(), 75) << "the tour goes on";
    fakeMotor.status[PAN].running = 1;
    mask("on");
    EXPECT_EQ(motion.user_moved_recently.load(), 1);
    EXPECT_EQ(gContext.motion.tourCurrentPresetId.load(), 0);
}

TEST_F(Overtaken, ByWhateverTakesTheHeadAway)
{
    const std::function<void()> others[] = {
        [] { lensMaskSetEnabled(1); },
        [this] { motion.calibrating.store(1); },
        [this] { motion.user_moved_recently.store(1); }, // a step's thread, whose axis is at its limit
        [this] { motion.track_back_done.store(0); },
    };
    for (const auto& other : others) {
        atNext(TILT, MOTOR_IOC_GET_STATUS, other);
        EXPECT_EQ(cycle(), NOWHERE);
        EXPECT_TRUE(fakes.notifications.empty());
        Overtaken::SetUp();
    }
    atNext(PAN, MOTOR_IOC_GET_STATUS, [this] { EXPECT_EQ(cycle(), NOWHERE); });
    EXPECT_EQ(call("startPanorama"), code(RESULT_OK)) << "from its first look on the head is the panorama's";
}

} // namespace
