// A save of the position that something overtakes after it has looked at the head.

#include "head.h"
#include "motor/tour_motion.h"

#include <optional>

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
    bool saveArmed()
    {
        EXPECT_EQ(fakes.armed(timers.saveStepsTimer), gContext.position.savePending.load());
        return gContext.position.savePending.load();
    }
    static void ok(const char* method, const std::string& arguments = "{}")
    {
        EXPECT_EQ(call(method, arguments), code(RESULT_OK)) << method;
    }
    static void track()
    {
        ok("targetTrack", R"({"x_coord":"1","y_coord":"0","x_speed":"1","y_speed":"1"})");
    }
    /// A motion of the tour, from its begin to its end.
    void tourTo(int32_t pan, int32_t tilt)
    {
        motion.user_moved_recently.store(0); // its quiet period is over
        motion.track_back_done.store(1);
        ASSERT_EQ(tourDrive(tourTicketNow(), {}, {}), TourMove::Started);
        restAt(pan, tilt);
    }
    /// A panorama that begins while an axis slows down after its STOP.
    static void sweep(std::optional<AxisIndex> slow = {})
    {
        const auto turn = [slow] { fakeMotor.status[slow.value_or(PAN)].running = slow ? 1 : 0; };
        turn();
        fakeMotor.onRequest = [turn](const FakeRequest&) { turn(); };
        ok("startPanorama");
        fakeMotor.onRequest = nullptr;
        fakeMotor.status[PAN].running = fakeMotor.status[TILT].running = 0;
        standAt(0, 510);
    }
    static void endSweep()
    {
        ok("stopPanorama");
        restAt(1500, 550);
    }
    /// A save that has read pan when `command` runs.
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
    EXPECT_TRUE(saveArmed()) << "it is tried again";
    motion.calibrating.store(0);
    saveDuringWhich([&] { motion.calibrating.store(1); });
    EXPECT_EQ(stored(), (Position{-1, -1}));
    motion.calibrating.store(0);
    saveCurSteps(nullptr);
    EXPECT_EQ(stored(), (Position{1500, 610}));
    EXPECT_FALSE(saveArmed());
}

TEST_F(SaveRace, WhatComesMeanwhileCounts)
{
    saveDuringWhich(saveStepsArm); // a motion starts, which must be saved too
    EXPECT_TRUE(saveArmed());
    standAt(1000, 300);
    saveDuringWhich([] {
        standAt(2000, 600);
        saveCurSteps(nullptr);
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
    EXPECT_FALSE(saveArmed()) << "armed again after the mask has disarmed it";
    mask("off");
    restAt(1500, 610);
    standAt(1400, 500);
    saveDuringWhich([] { // the mask was on and off again since it has looked
        standAt(1500, 610);
        mask("on");
        mask("off");
        restAt(1500, 610);
    });
    EXPECT_EQ(stored(), where);
    // A stop on the way back ends the mask's hold just as the arrival does.
    mask("on");
    restAt(1500, 0);
    mask("off");
    standAt(1500, 300);
    ok("stop");
    saveCurSteps(nullptr);
    EXPECT_EQ(stored(), (Position{1500, 300}));
}

TEST_F(SaveRace, StoringIsFreeAgainOnceTheMaskIsOffAndTheHeadRests)
{
    mask("on");
    restAt(1500, 0);
    mask("off");
    standAt(1500, 200); // half way
    track();
    saveCurSteps(nullptr);
    EXPECT_EQ(stored(), (Position{1500, 610})) << "a place on the way out of the mask";
    restAt(1500, 610);
    tourTo(2000, 300);
    track();
    EXPECT_EQ(stored(), (Position{2000, 300})) << "the return goes to where the head was before the tracking";
}

TEST_F(SaveRace, NoPlaceOfASweepOrOfTrackingIsStored)
{
    saveStepsArm();
    standAt(1400, 500);
    sweep(PAN);
    EXPECT_FALSE(saveArmed());
    restAt(0, 510);
    saveCurSteps(nullptr); // an expiry that was on its way when the timer was disarmed
    EXPECT_EQ(stored(), (Position{-1, -1}));
    endSweep();
    saveDuringWhich([] { sweep(TILT); }); // where tilt turns, the panorama stores nothing itself
    EXPECT_EQ(stored(), (Position{-1, -1}));
    endSweep();
    saveDuringWhich([] { sweep(); });
    EXPECT_EQ(stored(), (Position{1500, 550}));
    endSweep();

    // A user's command that took over a tracking motion is still to be saved when the next tracking motion begins.
    motion.motion_origin.store(ORIGIN_TRACK);
    standAt(1600, 600);
    saveStepsArm();
    track();
    EXPECT_EQ(stored(), (Position{1600, 600}));
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
    motion.tourCurrentPresetId.store(3);
    lensMaskSetEnabled(1);
    EXPECT_EQ(call("targetTrackBack"), code(ERR_LENS_MASK));
    EXPECT_EQ(motion.track_back_done.load(), 1) << "else no tour goes on again";
    EXPECT_EQ(motion.user_moved_recently.load(), 1);
    EXPECT_TRUE(fakes.armed(timers.usrMoveStopTimer)) << "else the quiet period has no end";
    EXPECT_EQ(motion.tourCurrentPresetId.load(), 0) << "else a tour takes the head to be where it was";
}

TEST_F(SaveRace, TrackingThatIsSwitchedOffBringsBackOnlyWhatItHasMoved)
{
    const auto tracking = [](const char* value) {
        rig::store("target_track", enabled("target_track_info", value));
        EXPECT_EQ(call("reloadTargetTrackConfig"), errCode(RESULT_OK));
    };
    const std::string back = "pan move 300 at 4, tilt move 90 at 3";
    const std::tuple<int32_t, int32_t, std::string> cases[] = {{ORIGIN_TRACK, 0, back},
                                                               {ORIGIN_TRACK, 1, "pan stop, tilt stop, " + back},
                                                               {ORIGIN_RETURN, 0, back},
                                                               {ORIGIN_RETURN, 1, ""},
                                                               {ORIGIN_USER, 1, ""}};
    for (const auto& [origin, running, requests] : cases) {
        restart({{"ptzd", position(1800, 700)}});
        tracking("On");
        motion.motion_origin.store(origin);
        motion.track_back_done.store(0);
        fakeMotor.status[TILT].running = running;
        tracking("off");
        EXPECT_EQ(driven(), requests);
        EXPECT_EQ(motion.track_back_done.load(), origin == ORIGIN_RETURN && running != 0 ? 0 : 1);
    }
}

} // namespace
