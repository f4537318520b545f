// A save of the position that something overtakes after it has looked at the head.

#include "head.h"
#include "motor/tour_motion.h"

#include <optional>
#include <thread>

namespace {

using Position = std::pair<int32_t, int32_t>;

class SaveRace : public Head {
protected:
    void SetUp() override
    {
        restart({{"ptzd", "config motor 'x_motor'\nconfig motor 'y_motor'\n"}});
    }
    /// What was committed, in steps; -1 for what was not.
    static Position stored()
    {
        cfg_uci_pkg_reload(UCI_PTZD);
        Position steps{-1, -1};
        (void)cfg_uci_get_int_value(UCI_PTZD, "x_motor", "steps", &steps.first);
        (void)cfg_uci_get_int_value(UCI_PTZD, "y_motor", "steps", &steps.second);
        return steps;
    }
    /// A motion of the tour, from its begin to its end.
    void tourTo(int32_t pan, int32_t tilt)
    {
        motion.user_moved_recently.store(0); // its quiet period is over
        motion.track_back_done.store(1);
        ASSERT_EQ(tourDrive(tourTicketNow(), {}), TourMove::Started);
        restAt(pan, tilt);
    }
    static std::string track()
    {
        return call("targetTrack", R"({"x_coord":"1","y_coord":"0","x_speed":"1","y_speed":"1"})");
    }
    /// A save that has read both axes when `command` runs.
    static void saveDuringWhich(const std::function<void()>& command)
    {
        saveStepsArm();
        atNext(TILT, MOTOR_IOC_GET_STATUS, command);
        saveCurSteps(nullptr);
    }
};

TEST_F(SaveRace, NothingIsSavedBetweenTheRotationsOfACalibration)
{
    saveStepsArm();
    motion.calibrating.store(1);
    saveCurSteps(nullptr);
    EXPECT_EQ(stored(), (Position{-1, -1}));
    EXPECT_TRUE(fakes.armed(timers.saveStepsTimer)) << "it is tried again";
    motion.calibrating.store(0);
    saveDuringWhich([&] { motion.calibrating.store(1); });
    EXPECT_EQ(stored(), (Position{-1, -1}));
    motion.calibrating.store(0);
    saveCurSteps(nullptr);
    EXPECT_EQ(stored(), (Position{1500, 610}));
    EXPECT_FALSE(fakes.armed(timers.saveStepsTimer) || gContext.position.savePending.load());
}

TEST_F(SaveRace, WhatComesMeanwhileCounts)
{
    saveDuringWhich(saveStepsArm); // a motion starts, which must be saved too
    EXPECT_TRUE(fakes.armed(timers.saveStepsTimer) && gContext.position.savePending.load());
    standAt(1000, 300);
    saveDuringWhich([] {
        standAt(2000, 600);
        saveCurSteps(nullptr);
    });
    EXPECT_EQ(stored(), (Position{2000, 600}));
}

TEST_F(SaveRace, ANewerSaveCountsThoughAnOlderOneIsDoneFirst)
{
    standAt(1000, 300);
    saveStepsArm();
    const unsigned before = fakeMotorAnswered;
    std::optional<UciTransaction> held(UCI_PTZD); // the older one gets no further than its look at the head
    std::thread older(saveCurSteps, nullptr);
    while (fakeMotorAnswered != before + AXIS_COUNT)
        std::this_thread::yield();
    standAt(2000, 600);
    saveDuringWhich([&] {
        held.reset();
        older.join();
    });
    EXPECT_EQ(stored(), (Position{2000, 600}));
}

TEST_F(SaveRace, TheLensMasksPositionIsNeverStored)
{
    const Position where{1500, 610};
    saveStepsArm();
    standAt(1400, 500);
    saveDuringWhich([] { // it has seen pan where it stood before the last motion
        standAt(1500, 610);
        mask("on");
        standAt(1500, 0); // arrived, as far as that save can see
    });
    EXPECT_EQ(stored(), where);
    EXPECT_FALSE(fakes.armed(timers.saveStepsTimer)) << "armed again after the mask has disarmed it";
    saveCurSteps(nullptr); // an expiry that was on its way when the timer was disarmed
    EXPECT_EQ(stored(), where);
    saveDuringWhich([&] { // it has looked while the mask was on
        mask("off");
        restAt(1500, 610);
    });
    EXPECT_EQ(stored(), where);
}

TEST_F(SaveRace, AMaskThatWasOnAndOffAgainMeanwhileMakesASaveWorthless)
{
    standAt(1400, 500);
    saveDuringWhich([] {
        standAt(1500, 610);
        mask("on");
        mask("off");
        restAt(1500, 610);
    });
    EXPECT_EQ(stored(), (Position{1500, 610}));
    // A stop on the way back ends the mask's hold just as the arrival does.
    mask("on");
    restAt(1500, 0);
    mask("off");
    standAt(1500, 300);
    EXPECT_EQ(call("stop"), code(RESULT_OK));
    EXPECT_EQ(fakes.timers[&timers.saveStepsTimer], TEN_SECONDS);
    saveCurSteps(nullptr);
    EXPECT_EQ(stored(), (Position{1500, 300}));
}

// What is stored after the mask, whoever moves the head next.
TEST_F(SaveRace, StoringIsFreeAgainOnceTheMaskIsOffAndTheHeadRests)
{
    enum Start { MaskedLater, MaskedAtStart };
    for (const Start start : {MaskedLater, MaskedAtStart}) {
        SCOPED_TRACE(start);
        const Position before = start == MaskedLater ? Position{1500, 610} : Position{2000, 300};
        if (start == MaskedLater) {
            mask("on");
        } else {
            lensMaskSetEnabled(1);
            (void)savesInhibit();
        }
        restAt(1500, 0);
        EXPECT_EQ(call("movePanorama", xy(1, 0)),
                  code(RESULT_OK)); // refused by no mask, and no reason to store anything
        restAt(1510, 0);
        mask("off");
        if (start == MaskedAtStart) {
            standAt(1500, 200); // half way
            EXPECT_EQ(track(), code(RESULT_OK));
            saveCurSteps(nullptr);
            EXPECT_EQ(stored(), before) << "a place on the way out of the mask";
        }
        restAt(1500, 610);
        tourTo(2000, 300);
        EXPECT_EQ(track(), code(RESULT_OK));
        EXPECT_EQ(stored(), (Position{2000, 300})) << "the return goes to where the head was before the mask";
        restAt(2010, 300);
        tourTo(2100, 400);
        EXPECT_EQ(call("startPanorama"), code(RESULT_OK));
        EXPECT_EQ(stored(), (Position{2100, 400}));
        EXPECT_EQ(call("stopPanorama"), code(RESULT_OK));
        restAt(2100, 400);
        tourTo(2200, 500);
        mask("on");
        EXPECT_EQ(stored(), (Position{2200, 500})) << "a second mask on";
        restAt(2200, 0);
        mask("off");
        restAt(2200, 500);
        tourTo(2000, 300);
        EXPECT_EQ(track(), code(RESULT_OK)); // for the next round
        restAt(2000, 300);
        motion.motion_origin.store(ORIGIN_USER);
    }
}

TEST_F(SaveRace, NoPlaceOfASweepOrOfTrackingIsStored)
{
    saveStepsArm();
    standAt(1400, 500);
    fakeMotor.onRequest = [](const FakeRequest&) { fakeMotor.status[PAN].running = 1; }; // slows down after its STOP
    EXPECT_EQ(call("startPanorama"), code(RESULT_OK));
    fakeMotor.onRequest = nullptr;
    fakeMotor.status[PAN].running = 0;
    EXPECT_FALSE(fakes.armed(timers.saveStepsTimer) || gContext.position.savePending.load());
    restAt(0, 510);
    saveCurSteps(nullptr); // an expiry that was on its way when the timer was disarmed
    EXPECT_EQ(stored(), (Position{-1, -1}));
    EXPECT_EQ(call("stopPanorama"), code(RESULT_OK));
    restAt(1500, 550);

    saveDuringWhich([] { // it has read pan; where tilt turns, the panorama stores nothing itself
        fakeMotor.status[TILT].running = 1;
        fakeMotor.onRequest = [](const FakeRequest&) { fakeMotor.status[TILT].running = 1; };
        EXPECT_EQ(call("startPanorama"), code(RESULT_OK));
        fakeMotor.onRequest = nullptr;
        fakeMotor.status[TILT].running = 0;
        standAt(0, 510);
    });
    EXPECT_EQ(stored(), (Position{-1, -1}));
    EXPECT_EQ(call("stopPanorama"), code(RESULT_OK));
    restAt(1500, 550);
    saveDuringWhich([] { // it has read both axes just before they are sent to the sweep
        EXPECT_EQ(call("startPanorama"), code(RESULT_OK));
        standAt(0, 510);
    });
    EXPECT_EQ(stored(), (Position{1500, 550}));
    EXPECT_EQ(call("stopPanorama"), code(RESULT_OK));
    restAt(1500, 550);

    // A user's command that took over a tracking motion is still to be saved when the next tracking motion begins.
    motion.motion_origin.store(ORIGIN_TRACK);
    standAt(1600, 600);
    saveStepsArm();
    EXPECT_EQ(track(), code(RESULT_OK));
    EXPECT_EQ(stored(), (Position{1600, 600}));
    restAt(1610, 600);
    saveCurSteps(nullptr);
    EXPECT_EQ(stored(), (Position{1600, 600}));
    // It cannot be saved, as the axes are not read: then nothing is, rather than a place of the tracking.
    motion.motion_origin.store(ORIGIN_USER);
    saveStepsArm();
    atNext(TILT, MOTOR_IOC_GET_STATUS, [] { fakeMotor.fail(PAN, MOTOR_IOC_GET_STATUS); });
    EXPECT_EQ(track(), code(RESULT_OK));
    fakeMotor.failing.clear();
    EXPECT_FALSE(fakes.armed(timers.saveStepsTimer) || gContext.position.savePending.load());
}

TEST_F(SaveRace, AMaskWhoseMotionFailedIsNotSavedUntilAUserMovesTheHead)
{
    const Position where{1500, 610};
    fakeMotor.fail(PAN, MOTOR_IOC_MOVE);
    rig::store("lens_mask", enabled("lens_mask_info", "on"));
    EXPECT_EQ(call("lensMask"), errCode(ERR_DEVICE));
    fakeMotor.failing.clear();
    standAt(1500, 0); // tilt was sent all the same
    saveCurSteps(nullptr);
    EXPECT_EQ(stored(), where);
    for (const char* enabled : {"on", "off", "on", "off"}) { // nor by other tries, before the head is back
        mask(enabled);
        EXPECT_EQ(stored(), where);
    }
}

TEST_F(SaveRace, ARefusedReturnStillEndsTheTrackingEpisode)
{
    motion.motion_origin.store(ORIGIN_TOUR);
    motion.track_back_done.store(0);
    gContext.motion.tourCurrentPresetId.store(3);
    lensMaskSetEnabled(1);
    EXPECT_EQ(call("targetTrackBack"), code(ERR_LENS_MASK));
    EXPECT_EQ(motion.track_back_done.load(), 1) << "else no tour goes on again";
    EXPECT_EQ(motion.user_moved_recently.load(), 1);
    EXPECT_TRUE(fakes.armed(timers.usrMoveStopTimer)) << "else the quiet period has no end";
    EXPECT_EQ(gContext.motion.tourCurrentPresetId.load(), 0) << "else a tour takes the head to be where it was";
}

TEST_F(SaveRace, TrackingThatIsSwitchedOffBringsBackOnlyWhatItHasMoved)
{
    const auto tracking = [](const char* value) {
        rig::store("target_track", enabled("target_track_info", value));
        EXPECT_EQ(call("reloadTargetTrackConfig"), errCode(RESULT_OK));
    };
    const struct {
        int32_t origin, running;
        const char* driven;
    } cases[] = {
        {ORIGIN_TRACK, 0, "pan move 300 at 4, tilt move 90 at 3"},
        {ORIGIN_TRACK, 1, "pan stop, tilt stop, pan move 300 at 4, tilt move 90 at 3"},
        {ORIGIN_RETURN, 0, "pan move 300 at 4, tilt move 90 at 3"},
        {ORIGIN_RETURN, 1, ""},
        {ORIGIN_USER, 1, ""},
    };
    for (const auto& one : cases) {
        restart({{"ptzd", position(1800, 700)}});
        tracking("On");
        motion.motion_origin.store(one.origin);
        motion.track_back_done.store(0);
        fakeMotor.status[TILT].running = one.running;
        tracking("off");
        EXPECT_EQ(driven(), one.driven);
        EXPECT_EQ(motion.track_back_done.load(), one.origin == ORIGIN_RETURN && one.running != 0 ? 0 : 1);
    }
}

} // namespace
