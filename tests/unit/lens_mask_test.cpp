#include "config/uci_store.h"
#include "fakes/motion_fixture.h"
#include "motion/lens_mask.h"
#include "motion/move.h"
#include "motion/panorama.h"
#include "motion/track.h"
#include "motor/position_store.h"

namespace {

class LensMask : public MotionTest {
protected:
    static int32_t mask(const char* text)
    {
        fakes.options["lens_mask_info.enabled"] = text;
        const int32_t code = fakes.call(ubusLensMask);
        EXPECT_EQ(fakes.replies.back().field, "err_code");
        EXPECT_EQ(fakes.transactions, 0);
        return code;
    }
    static Options stored()
    {
        Options steps = fakes.options;
        steps.erase("lens_mask_info.enabled");
        return steps;
    }
};

TEST_F(LensMask, HidesTheLensAndStoresWhereTheHeadStood)
{
    for (int32_t type = 0; type < 4; ++type) {
        resetDaemon();
        gContext.image.imageFlipType.store(type);
        standAt(1600, 700);
        saveStepsArm();
        gContext.tour.tourCurrentPresetId.store(3);
        EXPECT_EQ(mask("On"), RESULT_OK);
        EXPECT_EQ(lensMaskEnabled(), 1);
        EXPECT_EQ(fakes.reloads.back(), UCI_LENS_MASK);
        EXPECT_EQ(driven(), (std::vector<FakeRequest>{move(PAN, 8, 0), move(TILT, 8, -700)}))
            << "-61 units is step 0 of tilt, under every flip type";
        EXPECT_EQ(stored(), (Options{{"x_motor.steps", "1600"}, {"y_motor.steps", "700"}}));
        EXPECT_EQ(fakes.commits, 1);
        EXPECT_FALSE(fakes.armed(timers.saveStepsTimer) || gContext.position.savePending.load());
        EXPECT_EQ(fakes.notifications, (std::vector<FakeNotification>{{NOTIFY_MOVING, ORIGIN_USER}}));
        EXPECT_EQ(gContext.motion.user_moved_recently.load(), 1);
        EXPECT_EQ(gContext.tour.tourCurrentPresetId.load(), 0);
        motorStatusPoll(nullptr);
        EXPECT_EQ(fakes.notifications.size(), 2u) << "nothing is left pending";
        EXPECT_EQ(mask("on"), ERR_LENS_MASK);
        EXPECT_EQ(driven().size(), 2u);
    }
}

TEST_F(LensMask, IsRefusedInOrderAndTheSwitchStays)
{
    for (const char* off : {"off", "", "1"})
        EXPECT_EQ(mask(off), RESULT_OK) << off;
    fakes.options.clear();
    EXPECT_EQ(fakes.call(ubusLensMask), RESULT_OK) << "it is off without a setting, too";
    fakes.reloads.clear();
    fakeMotor.fail(PAN, MOTOR_IOC_GET_STATUS);
    gContext.panorama.panoramaRunning.store(1);
    gContext.motion.calibrating.store(1);
    EXPECT_EQ(mask("on"), ERR_CALIBRATING);
    gContext.motion.calibrating.store(0);
    EXPECT_EQ(mask("on"), ERR_PANORAMA);
    EXPECT_TRUE(fakes.reloads.empty());
    gContext.panorama.panoramaRunning.store(0);
    EXPECT_EQ(mask("on"), ERR_DEVICE);
    expectUntouched();
    EXPECT_EQ(lensMaskEnabled(), 0);
}

TEST_F(LensMask, MarksAMotionUnderWayAsTheUsers)
{
    gContext.motion.motion_active.store(1);
    gContext.motion.motion_origin.store(ORIGIN_TOUR);
    gContext.tour.tourCurrentPresetId.store(3);
    fakeMotor.status[PAN].running = 1;
    EXPECT_EQ(mask("on"), RESULT_OK);
    EXPECT_EQ(driven().size(), 4u) << "both stops first";
    EXPECT_EQ(gContext.motion.motion_origin.load(), ORIGIN_TOUR);
    EXPECT_EQ(gContext.motion.user_moved_recently.load(), 1);
    EXPECT_EQ(gContext.tour.tourCurrentPresetId.load(), 0);
    EXPECT_TRUE(fakes.notifications.empty());
}

TEST_F(LensMask, ReturnsToTheStoredPositionOrHome)
{
    lensMaskSetEnabled(1);
    standAt(1600, 0);
    fakes.options["y_motor.steps"] = "700";
    EXPECT_EQ(mask("off"), RESULT_OK);
    EXPECT_EQ(lensMaskEnabled(), 0);
    EXPECT_EQ(driven(), (std::vector<FakeRequest>{move(PAN, 8, -100), move(TILT, 8, 700)}));
    EXPECT_EQ(fakes.reports, (std::vector<FakeReport>{{"ubusLensMask", "error to get option x_motor.steps\n"}}));
    EXPECT_EQ(fakes.commits, 0);
    EXPECT_FALSE(fakes.armed(timers.saveStepsTimer));
}

TEST_F(LensMask, AFailedWriteIsReportedAndTheLensHiddenAllTheSame)
{
    fakes.settingFails = true;
    fakes.commitFails = true;
    EXPECT_EQ(mask("on"), RESULT_OK);
    EXPECT_EQ(fakes.reports, (std::vector<FakeReport>{{"ubusLensMask", "error to set option x_motor.steps\n"},
                                                      {"ubusLensMask", "error to set option y_motor.steps\n"}}));
    EXPECT_EQ(fakes.commits, 1);
    EXPECT_EQ(lensMaskEnabled(), 1);
}

/// Lets `command` run inside a save, after that has read the axis.
void duringSave(AxisIndex axis, const std::function<void()>& command)
{
    fakeMotor.onRequest = [axis, command](const FakeRequest& request) {
        if (request.axis != axis || request.number != MOTOR_IOC_GET_STATUS)
            return;
        const auto once = command; // this closure ends with the next line
        fakeMotor.onRequest = nullptr;
        once();
    };
    saveCurSteps(nullptr);
}

TEST_F(LensMask, NoSaveOverwritesTheStoredPosition)
{
    const Options where{{"x_motor.steps", "1500"}, {"y_motor.steps", "610"}};
    saveStepsArm();
    standAt(1400, 500);
    duringSave(TILT, [&] { // a save has seen pan where it stood before the last motion
        standAt(1500, 610);
        EXPECT_EQ(mask("on"), RESULT_OK);
        standAt(1500, 0); // arrived, as far as that save can see
    });
    EXPECT_EQ(stored(), where);
    EXPECT_FALSE(fakes.armed(timers.saveStepsTimer)) << "armed again after the mask has disarmed it";
    saveCurSteps(nullptr); // an expiry that was on its way when the timer was disarmed
    EXPECT_EQ(stored(), where);
    duringSave(TILT, [&] { // and one that has looked while the mask was on, and stores when it is off again
        EXPECT_EQ(mask("off"), RESULT_OK);
    });
    EXPECT_EQ(stored(), where);
    standAt(1500, 610);
    saveCurSteps(nullptr);
    standAt(1300, 610);
    EXPECT_EQ(moveHead(0, 0), RESULT_OK);
    saveCurSteps(nullptr);
    EXPECT_EQ(stored().at("x_motor.steps"), "1300") << "saved as ever afterwards";
}

TEST_F(LensMask, AMotionThatFailedIsNotSavedUntilAUserMovesTheHead)
{
    const Options where{{"x_motor.steps", "1500"}, {"y_motor.steps", "610"}};
    fakeMotor.fail(PAN, MOTOR_IOC_MOVE);
    EXPECT_EQ(mask("on"), ERR_DEVICE);
    EXPECT_EQ(lensMaskEnabled(), 0);
    fakeMotor.failing.clear();
    standAt(1500, 0); // tilt was sent all the same
    saveCurSteps(nullptr);
    EXPECT_EQ(stored(), where);
    for (const char* text : {"on", "off", "on", "off"}) { // nor by other tries, before the head is back
        EXPECT_EQ(mask(text), RESULT_OK);
        EXPECT_EQ(stored(), where);
    }
    gContext.position.power_off_recover.store(0);
    EXPECT_EQ(moveHead(0, 5), RESULT_OK);
    standAt(1500, 50);
    saveCurSteps(nullptr);
    EXPECT_EQ(stored().at("y_motor.steps"), "50");
}

TEST_F(LensMask, APanoramaOrTrackingAfterAMotionThatFailedStoresItsStart)
{
    fakeMotor.fail(TILT, MOTOR_IOC_MOVE);
    EXPECT_EQ(mask("on"), ERR_DEVICE);
    fakeMotor.failing.clear();
    EXPECT_EQ(panoramaMove(0, 1), RESULT_OK);
    standAt(1500, 620);
    EXPECT_EQ(trackTarget(1, 1, 1, 1), RESULT_OK);
    EXPECT_EQ(stored(), (Options{{"x_motor.steps", "1500"}, {"y_motor.steps", "620"}}));
}

TEST_F(LensMask, ASaveThatANewerOneHasOvertakenIsDropped)
{
    standAt(1000, 300);
    duringSave(TILT, [] {
        standAt(2000, 600);
        saveCurSteps(nullptr);
    });
    EXPECT_EQ(stored(), (Options{{"x_motor.steps", "2000"}, {"y_motor.steps", "600"}}));
}

} // namespace
