// Begin, rest and quiet period of a motion when two threads meet in the middle of them.

#include "head.h"
#include "motor/quiet_period.h"
#include "ubus/notify.h"

#include <atomic>
#include <chrono>
#include <thread>

namespace {

using Texts = std::vector<std::string>;
using Notifications = std::vector<FakeNotification>;
const FakeNotification MOVING{NOTIFY_MOVING, ORIGIN_USER};
const FakeNotification IDLE{NOTIFY_IDLE, ORIGIN_USER};

class MotionRace : public Head {
protected:
    static void startMotion()
    {
        const MotionStartScope start;
        EXPECT_EQ(beginAndDrive(MotionBegin::User, {}, {}), RESULT_OK);
    }
};

TEST_F(MotionRace, NobodyTakesTheRestBeforeTheMoveRequestsForTheEnd)
{
    motionStarting();
    motionBegin(MotionBegin::User); // the requests are not sent yet, the axes still rest
    motorStatusPoll(nullptr);
    EXPECT_EQ(fakes.notifications, Notifications{MOVING});
    EXPECT_TRUE(fakes.armed(timers.statusPollTimer));
    motionStarted();
    motorStatusPoll(nullptr); // a motion of no steps rests at once
    EXPECT_EQ(fakes.notifications, (Notifications{MOVING, IDLE}));
}

TEST_F(MotionRace, ATickThatLookedBeforeANewerMotionDoesNotEndIt)
{
    startMotion();
    // The newer motion begins and is driven after the tick has read pan and before it decides.
    atNext(TILT, MOTOR_IOC_GET_STATUS, startMotion);
    motorStatusPoll(nullptr);
    EXPECT_EQ(motion.motion_active.load(), 1);
    EXPECT_EQ(fakes.timers[&timers.statusPollTimer], (FakeTimer{50'000'000, 50'000'000}));
    fakeMotor.status[TILT].running = 1;
    motorStatusPoll(nullptr);
    EXPECT_EQ(fakes.notifications, Notifications{MOVING}) << "tilt moves on";
    fakeMotor.status[TILT].running = 0;
    motorStatusPoll(nullptr);
    EXPECT_EQ(fakes.timers[&timers.usrMoveStopTimer], (FakeTimer{60'000'000'000, 60'000'000'000}));
}

TEST_F(MotionRace, ASubscriberGetsABeginBeforeTheReplyAndOneEndWhenATickMeetsANewerMotion)
{
    static ubus_context connection{};
    gContext.ubus.gUbusctx = &connection;
    gContext.ubus.subscribed.store(true);
    EXPECT_EQ(call("moveTo", xy(10, 0)), code(RESULT_OK));
    EXPECT_EQ(fakes.motions, (Texts{R"({"id":1,"state":"moving","origin":"user","x":"10","y":"0"})"}));
    fakeMotor.status[PAN].position = 1600;
    // The tick has read pan when the newer motion begins, which finds the head at its target, too.
    atNext(TILT, MOTOR_IOC_GET_STATUS, [] { (void)call("moveTo", xy(20, 0)); });
    motorStatusPoll(nullptr);
    const auto amidMotion = [](const char* method, const std::string& arguments) {
        fakeMotor.status[PAN].running = 1;
        atNext(PAN, MOTOR_IOC_STOP, [] {
            fakeMotor.status[PAN].running = 0;
            motorStatusPoll(nullptr); // the halt is no rest
        });
        EXPECT_EQ(call(method, arguments), code(RESULT_OK));
    };
    amidMotion("moveTo", xy(0, 0));
    amidMotion("stop", "{}");
    fakes.motions.erase(fakes.motions.begin());
    EXPECT_EQ(fakes.motions, (Texts{R"({"id":1,"state":"idle","x":"10","y":"0","outcome":"reached"})",
                                    R"({"id":2,"state":"moving","origin":"user","x":"20","y":"0"})",
                                    R"({"id":2,"state":"idle","x":"10","y":"0","outcome":"superseded","by":3})",
                                    R"({"id":3,"state":"moving","origin":"user","x":"0","y":"0"})",
                                    R"({"id":3,"state":"idle","x":"10","y":"0","outcome":"stopped"})"}));
}

TEST_F(MotionRace, ATickUnderWayDoesNotEndACalibrationBetweenTwoRotations)
{
    startMotion();
    motionStarting();
    motionBegin(MotionBegin::Calibration);
    EXPECT_EQ(fakes.notifications, (Notifications{MOVING, IDLE, MOVING})) << "the motion that it interrupts has ended";
    EXPECT_FALSE(fakes.armed(timers.statusPollTimer));
    motorStatusPoll(nullptr);
    EXPECT_EQ(motion.motion_active.load(), 1);
    motionSettle(MotionSettle::Calibration, MotionOutcome::Reached);
    EXPECT_EQ(fakes.notifications, (Notifications{MOVING, IDLE, MOVING, IDLE}));
}

TEST_F(MotionRace, TheQuietPeriodsEndOnlyWhenTheHeadRests)
{
    timerStart(&timers.usrMoveStopTimer, 1, 1);
    timerStart(&timers.scanMoveStopTimer, 1, 1);
    motion.user_moved_recently.store(1);
    gContext.motion.scanStepDone.store(0);
    for (const int moving : {1, 0}) {
        motion.motion_active.store(moving);
        usrMoveStopTimeout(nullptr);
        scanMoveStopTimeout(nullptr);
        EXPECT_EQ(motion.user_moved_recently.load(), moving);
        EXPECT_EQ(gContext.motion.scanStepDone.load(), 1 - moving);
        EXPECT_EQ(fakes.armed(timers.usrMoveStopTimer), moving == 1);
        EXPECT_EQ(fakes.armed(timers.scanMoveStopTimer), moving == 1);
    }
}

TEST_F(MotionRace, AnExpiryThatWaitedWhileTheHeadCameToRestDoesNotEndTheNewQuietPeriod)
{
    // An expiry that reaches the lock only after the rest has begun is a new one to everybody: try until one waits.
    const auto ignored = [&] {
        motion.user_moved_recently.store(1);
        std::atomic<bool> expired{false};
        gContext.motion.MotionStateLock.lock();
        std::thread expiry([&] {
            expired.store(true);
            usrMoveStopTimeout(nullptr);
        });
        const auto soon = std::chrono::steady_clock::now() + std::chrono::milliseconds(2); // sleeps are faked here
        while (!expired.load() || std::chrono::steady_clock::now() < soon)
            std::this_thread::yield();
        quietPeriodsStart();
        gContext.motion.MotionStateLock.unlock();
        expiry.join();
        return motion.user_moved_recently.load() == 1 && fakes.armed(timers.usrMoveStopTimer);
    };
    bool once = false;
    for (int attempt = 0; attempt < 50 && !once; ++attempt)
        once = ignored();
    EXPECT_TRUE(once);
}

} // namespace
