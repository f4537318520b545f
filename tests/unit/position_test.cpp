#include "fakes/motion_fixture.h"
#include "motor/calibration.h"
#include "motor/position_store.h"

namespace {

using Position = MotionTest;

TEST_F(Position, IsSavedOnceBothAxesRest)
{
    saveStepsArm();
    gContext.motion.calibrating.store(1); // and they do between its rotations
    saveCurSteps(nullptr);
    gContext.motion.calibrating.store(0);
    fakeMotor.status[TILT].running = 1;
    saveCurSteps(nullptr);
    fakeMotor.fail(PAN, MOTOR_IOC_GET_STATUS);
    fakeMotor.status[TILT].running = 0;
    saveCurSteps(nullptr);
    EXPECT_EQ(fakes.commits, 0);
    EXPECT_TRUE(fakes.armed(timers.saveStepsTimer)) << "a save that did not happen is tried again";

    fakeMotor.failing.clear();
    standAt(1234, 610);
    saveCurSteps(nullptr);
    EXPECT_EQ(fakes.options, (Options{{"x_motor.steps", "1234"}, {"y_motor.steps", "610"}}));
    EXPECT_EQ(fakes.commits, 1);
    EXPECT_FALSE(fakes.armed(timers.saveStepsTimer));
    EXPECT_FALSE(gContext.position.savePending.load());
}

TEST_F(Position, OfAMotionThatStartsDuringASaveIsSavedToo)
{
    saveStepsArm();
    fakeMotor.onRequest = [](const FakeRequest& request) {
        if (request.axis == TILT)
            saveStepsArm(); // a command arms the timer after the save has looked at pan
    };
    saveCurSteps(nullptr);
    EXPECT_TRUE(fakes.armed(timers.saveStepsTimer));
    EXPECT_TRUE(gContext.position.savePending.load());
}

TEST_F(Position, AFailedWriteIsReportedForEachAxisAndCommitted)
{
    fakes.settingFails = true;
    saveCurSteps(nullptr);
    EXPECT_EQ(fakes.reports, (std::vector<FakeReport>{{"saveCurSteps", "error to set option x_motor.steps\n"},
                                                      {"saveCurSteps", "error to set option y_motor.steps\n"}}));
    EXPECT_EQ(fakes.commits, 1);
}

TEST_F(Position, TheReturnAfterTrackingStopsTheTrackingMotionAndGoesBack)
{
    storePosition(1400, 600);
    gContext.motion.motion_origin.store(ORIGIN_TRACK);
    gContext.motion.motion_active.store(1);
    gContext.motion.track_back_done.store(0);
    gContext.tour.tourCurrentPresetId.store(4);
    fakeMotor.status[PAN] = {0, 3, 1800, 1, 1};
    EXPECT_EQ(moveToLastPostion(), RESULT_OK);
    EXPECT_EQ(driven(), (std::vector<FakeRequest>{stop(PAN), stop(TILT), move(PAN, 3, -400), move(TILT, 4, -10)}));
    EXPECT_EQ(gContext.motion.track_back_done.load(), 1);
    EXPECT_EQ(gContext.tour.tourCurrentPresetId.load(), 0);
    EXPECT_TRUE(fakes.armed(timers.usrMoveStopTimer));
    EXPECT_FALSE(fakes.armed(timers.saveStepsTimer)) << "a return is never stored";
    EXPECT_TRUE(fakes.notifications.empty()) << "the motion was under way";
    motorStatusPoll(nullptr);
    gContext.motion.motion_origin.store(ORIGIN_TOUR);
    fakes.notifications.clear();
    EXPECT_EQ(moveToLastPostion(), RESULT_OK);
    motorStatusPoll(nullptr);
    EXPECT_EQ(fakes.notifications,
              (std::vector<FakeNotification>{{NOTIFY_MOVING, ORIGIN_RETURN}, {NOTIFY_IDLE, ORIGIN_RETURN}}))
        << "one from rest";
}

TEST_F(Position, TheReturnLeavesTheHeadWhereAUserPutIt)
{
    storePosition(1400, 600);
    gContext.motion.motion_origin.store(ORIGIN_USER);
    EXPECT_EQ(moveToLastPostion(), RESULT_OK);
    gContext.motion.motion_origin.store(ORIGIN_TOUR);
    storePosition(1500, 610); // where it stands
    EXPECT_EQ(moveToLastPostion(), RESULT_OK);
    EXPECT_TRUE(fakeMotor.sent(MOTOR_IOC_MOVE).empty());
    EXPECT_TRUE(fakes.notifications.empty());
}

TEST_F(Position, TheReturnIsRefusedAndStillEndsTheTrackingEpisode)
{
    storePosition(1400, 600);
    gContext.motion.motion_origin.store(ORIGIN_TOUR);
    gContext.motion.track_back_done.store(0);
    gContext.tour.scanStepDone.store(0);
    lensMaskSetEnabled(1);
    EXPECT_EQ(moveToLastPostion(), ERR_LENS_MASK);
    EXPECT_EQ(gContext.motion.track_back_done.load(), 1);
    EXPECT_EQ(gContext.motion.user_moved_recently.load(), 1);
    EXPECT_TRUE(fakes.armed(timers.scanMoveStopTimer));
    lensMaskSetEnabled(0);
    fakeMotor.status[TILT].running = 1;
    EXPECT_EQ(moveToLastPostion(), ERR_CALIBRATING) << "a tour's motion is not disturbed";
    EXPECT_TRUE(fakeMotor.sent(MOTOR_IOC_STOP).empty());
}

TEST_F(Position, TheReturnNeedsAStoredPositionAndTakesHomeForANegativeOne)
{
    gContext.motion.motion_origin.store(ORIGIN_TOUR);
    fakes.options["x_motor.steps"] = "-1";
    EXPECT_EQ(moveToLastPostion(), ERR_DEVICE);
    EXPECT_EQ(fakes.reports, (std::vector<FakeReport>{{"moveToLastPostion", "error to get option y_motor.steps\n"}}));
    fakes.options["y_motor.steps"] = "-1";
    EXPECT_EQ(moveToLastPostion(), RESULT_OK);
    EXPECT_EQ(driven(), (std::vector<FakeRequest>{move(PAN, 4, 0), move(TILT, 4, -60)})); // home is -6 units
}

TEST_F(Position, TheReturnReportsFailedRequests)
{
    storePosition(1400, 600);
    gContext.motion.motion_origin.store(ORIGIN_TRACK);
    fakeMotor.fail(PAN, MOTOR_IOC_MOVE);
    EXPECT_EQ(moveToLastPostion(), ERR_DEVICE);
    fakeMotor.fail(PAN, MOTOR_IOC_GET_STATUS);
    EXPECT_EQ(moveToLastPostion(), ERR_DEVICE);
    EXPECT_EQ(fakes.reports, (std::vector<FakeReport>{{"moveToLastPostion", "move error\n"},
                                                      {"moveToLastPostion", "get status from driver failed.\n"}}));
}

class Calibration : public Position {
protected:
    CalibrationTarget targets[AXIS_COUNT]{};

    void SetUp() override
    {
        Position::SetUp();
        gContext.calibrationArg = targets;
        calibrationSetTarget(PAN, 1700);
        calibrationSetTarget(TILT, 300);
    }
    void TearDown() override
    {
        gContext.calibrationArg = nullptr;
    }
    /// Runs a calibration to its end; gives the requests of one axis but the status reads.
    static std::vector<FakeRequest> calibrate(AxisIndex axis)
    {
        EXPECT_EQ(calibrationStart(), 0);
        EXPECT_EQ(gContext.motion.calibrating.load(), 1) << "calibrating before the thread has run";
        fakes.runWorker();
        std::vector<FakeRequest> found = fakeMotor.requests;
        std::erase_if(found, [=](const FakeRequest& request) { return request.axis != axis; });
        return found;
    }
};

TEST_F(Calibration, FindsBothEndsAndReturns)
{
    fakes.options["x_motor.speed"] = "5";
    EXPECT_EQ(calibrate(PAN), (std::vector<FakeRequest>{{PAN, MOTOR_IOC_SET_POSITION, 0, 1700},
                                                        {PAN, MOTOR_IOC_SET_SPEED, 8, 0},
                                                        {PAN, MOTOR_IOC_ROTATE, 0, -3000},
                                                        {PAN, MOTOR_IOC_ROTATE, 0, 3000},
                                                        {PAN, MOTOR_IOC_ROTATE, 0, -1300},
                                                        {PAN, MOTOR_IOC_SET_SPEED, 5, 0}}));
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_ROTATE)[5], (FakeRequest{TILT, MOTOR_IOC_ROTATE, 0, -920}));
    EXPECT_EQ(gContext.motion.calibrating.load(), 0);
    EXPECT_EQ(gContext.motion.motion_active.load(), 0);
    EXPECT_EQ(fakes.notifications.size(), 2u);
    EXPECT_EQ(fakes.commits, 0);
}

TEST_F(Calibration, SkipsTheRotationsInFactoryMode)
{
    fakes.options["factory_mode.enabled"] = "1";
    EXPECT_EQ(calibrate(TILT).size(), 3u) << "position, full speed, configured speed";
    EXPECT_TRUE(fakeMotor.sent(MOTOR_IOC_ROTATE).empty());
    EXPECT_EQ(fakes.notifications.size(), 2u);
}

TEST_F(Calibration, AFailedRotationEndsThatAxisOnly)
{
    fakeMotor.fail(PAN, MOTOR_IOC_ROTATE);
    EXPECT_EQ(calibrate(PAN).size(), 4u) << "position, speed, the failed rotation, configured speed";
    EXPECT_EQ(fakes.reports, (std::vector<FakeReport>{{"motorCali", "calibration  failed\n"}}));
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_ROTATE).size(), 4u);
    EXPECT_EQ(gContext.motion.calibrating.load(), 0);
}

TEST_F(Calibration, CorrectsAMissingOrExcessiveSpeedOption)
{
    fakes.options["y_motor.speed"] = "9";
    (void)calibrate(PAN);
    EXPECT_EQ(fakes.options["x_motor.speed"], "4");
    EXPECT_EQ(fakes.options["y_motor.speed"], "4");
    fakes.options["x_motor.speed"] = "8";
    fakes.options["y_motor.speed"] = "-2";
    (void)calibrate(PAN);
    EXPECT_EQ(fakes.options["x_motor.speed"], "8") << "as fast as the axis goes is allowed";
    EXPECT_EQ(fakes.options["y_motor.speed"], "4");
    fakes.settingFails = true;
    fakes.options.erase("x_motor.speed");
    (void)calibrate(PAN);
    ASSERT_FALSE(fakes.reports.empty());
    EXPECT_EQ(fakes.reports[0], (FakeReport{"ptzdCali", "error to set option x_motor.speed\n"}));
}

TEST_F(Calibration, EndsBetweenRotationsWhenTheDaemonEndsAndDoesNotBeginWithoutAThread)
{
    fakeMotor.onRequest = [](const FakeRequest& request) {
        if (request.number == MOTOR_IOC_ROTATE)
            fakes.stopping = true;
    };
    (void)calibrate(PAN);
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_ROTATE).size(), 1u);
    fakes.threadCreationFails = true;
    EXPECT_EQ(calibrationStart(), -1);
    EXPECT_EQ(gContext.motion.calibrating.load(), 0);
}

} // namespace
