#include "fakes/motion_fixture.h"
#include "motion/panorama.h"
#include "motor/position_store.h"

#include <limits>

namespace {

class Panorama : public MotionTest {
protected:
    static int32_t running()
    {
        return gContext.panorama.panoramaRunning.load();
    }
};

TEST_F(Panorama, StoresThePositionAndGoesToItsStartAtFullSpeed)
{
    standAt(1600, 700);
    saveStepsArm();
    EXPECT_EQ(fakes.call(ubusStartPanorama), RESULT_OK);
    EXPECT_EQ(running(), 1);
    EXPECT_EQ(fakes.options, (Options{{"x_motor.steps", "1600"}, {"y_motor.steps", "700"}}));
    // Pan's limit, -150, is step 0; tilt's -10 is 100 steps below the middle, 610.
    EXPECT_EQ(driven(), (std::vector<FakeRequest>{move(PAN, 8, -1600), move(TILT, 8, -190)}));
    EXPECT_FALSE(fakes.armed(timers.saveStepsTimer));
    EXPECT_TRUE(fakes.armed(timers.statusPollTimer));
    EXPECT_EQ(fakes.notifications, (std::vector<FakeNotification>{{NOTIFY_MOVING, ORIGIN_USER}}));
}

TEST_F(Panorama, FollowsTheFlipSigns)
{
    const struct {
        int32_t startPan, startTilt, pan, tilt;
    } steps[4] = {{-1500, -100, 300, 50}, {1500, -100, -300, 50}, {-1500, 100, 300, -50}, {1500, 100, -300, -50}};
    for (int32_t type = 0; type < 4; ++type) {
        resetDaemon();
        gContext.image.imageFlipType.store(type);
        EXPECT_EQ(panoramaStart(), RESULT_OK);
        EXPECT_EQ(panoramaMove(30, 5), RESULT_OK);
        const auto& [startPan, startTilt, pan, tilt] = steps[type];
        EXPECT_EQ(driven(), (std::vector<FakeRequest>{move(PAN, 8, startPan), move(TILT, 8, startTilt),
                                                      move(PAN, 8, pan), move(TILT, 8, tilt)}))
            << type;
    }
}

TEST_F(Panorama, AFailedStartLeavesNonePending)
{
    lensMaskSetEnabled(1);
    gContext.motion.calibrating.store(1);
    gContext.panorama.panoramaRunning.store(1);
    EXPECT_EQ(panoramaStart(), ERR_CALIBRATING);
    EXPECT_EQ(running(), 0);
    gContext.motion.calibrating.store(0);
    EXPECT_EQ(panoramaStart(), ERR_LENS_MASK);
    lensMaskSetEnabled(0);
    expectUntouched();
    fakeMotor.status[PAN].running = 1;
    for (const auto& [axis, request] :
         {std::pair{TILT, MOTOR_IOC_GET_STATUS}, {PAN, MOTOR_IOC_STOP}, {PAN, MOTOR_IOC_MOVE}}) {
        EXPECT_EQ(fakes.commits, 0) << "stored before the head rests";
        fakeMotor.failing.clear();
        fakeMotor.fail(axis, request);
        EXPECT_EQ(panoramaStart(), ERR_DEVICE);
        EXPECT_EQ(running(), 0);
        gContext.panorama.panoramaRunning.store(1);
        EXPECT_EQ(fakes.call(ubusStopPanorama), ERR_DEVICE);
        EXPECT_EQ(running(), 0) << "it ends whatever fails";
        fakeMotor.status[PAN].running = request != MOTOR_IOC_STOP;
    }
    EXPECT_EQ(fakes.commits, 1);
}

TEST_F(Panorama, KeepsTheStoredPositionWhileTheHeadStillRuns)
{
    storePosition(1, 2);
    fakeMotor.status[PAN].running = 1;
    fakeMotor.onRequest = [](const FakeRequest& request) {
        if (request.number == MOTOR_IOC_GET_STATUS)
            fakeMotor.status[PAN].running = 1; // a driver that takes its time to stop
    };
    EXPECT_EQ(panoramaStart(), RESULT_OK);
    EXPECT_EQ(fakes.options, (Options{{"x_motor.steps", "1"}, {"y_motor.steps", "2"}}));
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_STOP).size(), 2u);
}

TEST_F(Panorama, SweepsWithinTheLimitsWhateverElseForbidsMotions)
{
    gContext.motion.calibrating.store(1);
    lensMaskSetEnabled(1);
    standAt(2000, 610);
    EXPECT_EQ(panoramaMove(150, 0), RESULT_OK);
    EXPECT_EQ(driven(), (std::vector<FakeRequest>{move(PAN, 8, 1000), move(TILT, 8, 0)})) << "cut at the upper limit";
    EXPECT_FALSE(fakes.armed(timers.saveStepsTimer));
}

TEST_F(Panorama, RefusesASweepInOrder)
{
    constexpr int32_t lowest = std::numeric_limits<int32_t>::min();
    standAt(3000, 610);
    fakeMotor.status[TILT].running = 1;
    fakeMotor.fail(PAN, MOTOR_IOC_GET_STATUS);
    EXPECT_EQ(fakes.call(ubusMovePanorama, {{"x_coord", "1"}}), ERR_PARAM);
    EXPECT_EQ(fakes.reports, (std::vector<FakeReport>{{"ubusMovePanorama", "UBUS: Invalied parameter.\n"}}));
    for (const auto& [x, y] : {std::pair{151, 0}, {-151, 0}, {0, 62}, {0, -40}, {lowest, 0}})
        EXPECT_EQ(panoramaMove(x, y), ERR_PARAM) << x << " " << y;
    gContext.image.imageFlipType.store(2);
    EXPECT_EQ(panoramaMove(0, 40), ERR_PARAM);
    EXPECT_EQ(panoramaMove(0, 39), ERR_DEVICE);
    gContext.image.imageFlipType.store(0);
    fakeMotor.failing.clear();
    EXPECT_EQ(panoramaMove(1, 0), ERR_NO_TRAVEL);
    EXPECT_EQ(panoramaMove(1, 5), ERR_NO_TRAVEL);
    standAt(1500, 220); // tilt's lower limit, -39
    EXPECT_EQ(panoramaMove(1, -1), ERR_NO_TRAVEL);
    expectUntouched();
    EXPECT_EQ(fakes.reports.size(), 1u);
}

TEST_F(Panorama, ReturnsToTheStoredPositionOrHome)
{
    storePosition(1234, 600);
    standAt(0, 510);
    gContext.panorama.panoramaRunning.store(1);
    fakeMotor.status[PAN].running = 1;
    EXPECT_EQ(fakes.call(ubusStopPanorama), RESULT_OK);
    EXPECT_EQ(running(), 0);
    EXPECT_EQ(driven(), (std::vector<FakeRequest>{stop(PAN), stop(TILT), move(PAN, 8, 1234), move(TILT, 8, 90)}));
    EXPECT_FALSE(fakes.armed(timers.saveStepsTimer));
    EXPECT_EQ(fakes.commits, 0);

    fakeMotor.requests.clear();
    fakes.options = {{"y_motor.steps", "-1"}};
    EXPECT_EQ(fakes.call(ubusStopPanorama), RESULT_OK);
    EXPECT_EQ(driven(), (std::vector<FakeRequest>{move(PAN, 8, 1500), move(TILT, 8, 40)}));
    EXPECT_EQ(fakes.reports, (std::vector<FakeReport>{{"ubusStopPanorama", "error to get option x_motor.steps\n"}}))
        << "a negative one is no failure";
}

} // namespace
