#include "fakes/motion_fixture.h"

namespace {

using Notifications = std::vector<FakeNotification>;
const FakeNotification MOVING{NOTIFY_MOVING, ORIGIN_USER};
const FakeNotification IDLE{NOTIFY_IDLE, ORIGIN_USER};

class Motion : public MotionTest {
protected:
    MotionState& motion = gContext.motion;

    static void run(bool running)
    {
        fakeMotor.status[PAN].running = running;
    }
    /// A motion that has been started and runs.
    static void startMotion()
    {
        EXPECT_EQ(beginAndDrive(MotionBegin::User, {}, {}), RESULT_OK);
        run(true);
    }
};

TEST_F(Motion, BeginsOnceAndSettlesOnceWhenBothAxesRest)
{
    startMotion();
    EXPECT_EQ(fakes.timers[&timers.statusPollTimer].firstNs, 50'000'000);
    EXPECT_EQ(fakes.timers[&timers.statusPollTimer].intervalNs, 50'000'000);
    motorStatusPoll(nullptr);
    EXPECT_EQ(fakes.notifications, Notifications{MOVING}) << "settled while an axis runs";

    run(false);
    fakeMotor.status[TILT].running = 1;
    motorStatusPoll(nullptr);
    EXPECT_EQ(motion.motion_active.load(), 1) << "settled while tilt runs";

    fakeMotor.status[TILT].running = 0;
    fakeMotor.fail(TILT, MOTOR_IOC_GET_STATUS);
    motorStatusPoll(nullptr);
    EXPECT_TRUE(fakes.armed(timers.statusPollTimer)) << "settled while tilt cannot be read";
    EXPECT_EQ(motion.motion_active.load(), 1);

    fakeMotor.failing.clear();
    motorStatusPoll(nullptr);
    motorStatusPoll(nullptr);
    EXPECT_EQ(fakes.notifications, (Notifications{MOVING, IDLE}));
    EXPECT_FALSE(fakes.armed(timers.statusPollTimer));
    EXPECT_EQ(fakes.timers[&timers.usrMoveStopTimer].firstNs, 60'000'000'000);
    EXPECT_FALSE(fakes.armed(timers.scanMoveStopTimer)) << "no scan step waits for its rest";
}

TEST_F(Motion, AMotionUnderWayKeepsItsOriginAndGetsNoSecondNotification)
{
    startMotion();
    motion.motion_origin.store(ORIGIN_TOUR);
    gContext.tour.tourCurrentPresetId.store(5);
    motion.user_moved_recently.store(0);
    startMotion();
    run(false);
    motorStatusPoll(nullptr);
    EXPECT_EQ(fakes.notifications, (Notifications{MOVING, {NOTIFY_IDLE, ORIGIN_TOUR}}));
    EXPECT_EQ(motion.user_moved_recently.load(), 0);
    EXPECT_EQ(gContext.tour.tourCurrentPresetId.load(), 5);
    EXPECT_FALSE(fakes.armed(timers.usrMoveStopTimer));
}

TEST_F(Motion, NobodyTakesTheRestBeforeTheMoveRequestsForTheEnd)
{
    motionBegin(MotionBegin::User); // the requests are not sent yet, the axes still rest
    motorStatusPoll(nullptr);
    motionSettle(MotionSettle::Stop);
    EXPECT_EQ(fakes.notifications, Notifications{MOVING});
    EXPECT_TRUE(fakes.armed(timers.statusPollTimer));
    motionStarted();
    motorStatusPoll(nullptr); // a motion of no steps rests at once
    EXPECT_EQ(fakes.notifications, (Notifications{MOVING, IDLE}));
}

TEST_F(Motion, ATickThatLookedBeforeANewerMotionDoesNotEndIt)
{
    startMotion();
    run(false);
    // The newer motion begins and is driven after the tick has read pan and before it decides.
    fakeMotor.onRequest = [](const FakeRequest& request) {
        if (request.axis != TILT || request.number != MOTOR_IOC_GET_STATUS)
            return;
        fakeMotor.onRequest = nullptr;
        EXPECT_EQ(beginAndDrive(MotionBegin::User, {}, {}), RESULT_OK);
    };
    motorStatusPoll(nullptr);
    EXPECT_EQ(motion.motion_active.load(), 1);
    EXPECT_TRUE(fakes.armed(timers.statusPollTimer));
    EXPECT_EQ(fakes.notifications, Notifications{MOVING});
    motorStatusPoll(nullptr);
    EXPECT_EQ(fakes.notifications, (Notifications{MOVING, IDLE}));
}

TEST_F(Motion, StopEndsTheMotionAndThePollAddsNothing)
{
    startMotion();
    gContext.tour.scanStepDone.store(0);
    gContext.tour.tourCurrentPresetId.store(3);
    motion.motion_origin.store(ORIGIN_TRACK);
    run(false);
    motionSettle(MotionSettle::Stop);
    motorStatusPoll(nullptr);
    motionSettle(MotionSettle::Stop);
    EXPECT_EQ(fakes.notifications, (Notifications{MOVING, IDLE})) << "the origin is the user's, exactly once";
    EXPECT_FALSE(fakes.armed(timers.statusPollTimer));
    EXPECT_EQ(fakes.timers[&timers.scanMoveStopTimer].intervalNs, 15'000'000'000);
    EXPECT_EQ(gContext.tour.tourCurrentPresetId.load(), 0);
}

TEST_F(Motion, ACalibrationEndsTheMotionItInterruptsAndIsNotPolled)
{
    startMotion();
    run(false);
    motionBegin(MotionBegin::Calibration);
    EXPECT_EQ(fakes.notifications, (Notifications{MOVING, IDLE, MOVING}));
    EXPECT_FALSE(fakes.armed(timers.statusPollTimer));
    motorStatusPoll(nullptr); // a tick under way finds the axes resting between two rotations
    EXPECT_EQ(motion.motion_active.load(), 1);
    motionSettle(MotionSettle::Calibration);
    EXPECT_EQ(fakes.notifications, (Notifications{MOVING, IDLE, MOVING, IDLE}));
    EXPECT_EQ(motion.motion_active.load(), 0);
    EXPECT_EQ(motion.user_moved_recently.load(), 1);
    EXPECT_TRUE(fakes.armed(timers.usrMoveStopTimer));
}

} // namespace
