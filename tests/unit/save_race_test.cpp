// A save of the position that something overtakes after it has looked at the head.

#include "config/uci_store.h"
#include "core/lens_mask_library.h"
#include "fakes/stored_head.h"
#include "motion/lens_mask.h"
#include "motion/move.h"
#include "motion/panorama.h"
#include "motion/track.h"
#include "motor/motion_state.h"
#include "motor/position_store.h"
#include "motor/status_poll.h"
#include "motor/tour_motion.h"

#include <optional>
#include <thread>

namespace {

using Position = std::pair<int32_t, int32_t>;

class SaveRace : public StoredHead {
protected:
    void SetUp() override
    {
        StoredHead::SetUp();
        write("ptzd", "config motor 'x_motor'\nconfig motor 'y_motor'\n");
        cfg_uci_pkg_reload(UCI_PTZD);
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
    static void mask(const char* enabled)
    {
        write("lens_mask", std::string("config lens_mask 'lens_mask_info'\n\toption enabled '") + enabled + "'\n");
        EXPECT_EQ(call(ubusLensMask), R"({"err_code":0})");
    }
    /// The head has arrived there, and the status poll sees it.
    static void restAt(int32_t pan, int32_t tilt)
    {
        standAt(pan, tilt);
        motorStatusPoll(nullptr);
        EXPECT_EQ(gContext.motion.motion_active.load(), 0);
    }
    /// A motion of the tour, from its begin to its end.
    void tourTo(int32_t pan, int32_t tilt)
    {
        motion.user_moved_recently.store(0); // its quiet period is over
        motion.track_back_done.store(1);
        ASSERT_EQ(tourDrive(tourTicketNow(), {}), TourMove::Started);
        restAt(pan, tilt);
    }
    /// A save that has read both axes when `command` runs.
    static void saveDuringWhich(const std::function<void()>& command)
    {
        saveStepsArm();
        atNext(TILT, MOTOR_IOC_GET_STATUS, command);
        saveCurSteps(nullptr);
    }
};

TEST_F(SaveRace, AMotionThatStartsMeanwhileIsSavedToo)
{
    saveDuringWhich(saveStepsArm);
    EXPECT_TRUE(fakes.armed(timers.saveStepsTimer));
    EXPECT_TRUE(gContext.position.savePending.load());
}

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

TEST_F(SaveRace, ANewerSaveCounts)
{
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
        EXPECT_EQ(panoramaMove(1, 0), RESULT_OK); // refused by no mask, and no reason to store anything
        restAt(1510, 0);
        mask("off");
        if (start == MaskedAtStart) {
            standAt(1500, 200); // half way
            EXPECT_EQ(trackTarget(1, 0, 1, 1), RESULT_OK);
            saveCurSteps(nullptr);
            EXPECT_EQ(stored(), before) << "a place on the way out of the mask";
        }
        restAt(1500, 610);
        tourTo(2000, 300);
        EXPECT_EQ(trackTarget(1, 0, 1, 1), RESULT_OK);
        EXPECT_EQ(stored(), (Position{2000, 300})) << "the return goes to where the head was before the mask";
        restAt(2010, 300);
        tourTo(2100, 400);
        EXPECT_EQ(panoramaStart(), RESULT_OK);
        EXPECT_EQ(stored(), (Position{2100, 400}));
        EXPECT_EQ(call(ubusStopPanorama), R"({"error_code":0})");
        restAt(2100, 400);
        tourTo(2200, 500);
        mask("on");
        EXPECT_EQ(stored(), (Position{2200, 500})) << "a second mask on";
        restAt(2200, 0);
        mask("off");
        restAt(2200, 500);
        tourTo(2000, 300);
        EXPECT_EQ(trackTarget(1, 0, 1, 1), RESULT_OK); // for the next round
        restAt(2000, 300);
        motion.motion_origin.store(ORIGIN_USER);
    }
}

TEST_F(SaveRace, NoPlaceOfASweepOrOfTrackingIsStored)
{
    saveStepsArm();
    standAt(1400, 500);
    fakeMotor.onRequest = [](const FakeRequest&) { fakeMotor.status[PAN].running = 1; }; // slows down after its STOP
    EXPECT_EQ(panoramaStart(), RESULT_OK);
    fakeMotor.onRequest = nullptr;
    fakeMotor.status[PAN].running = 0;
    EXPECT_FALSE(fakes.armed(timers.saveStepsTimer) || gContext.position.savePending.load());
    restAt(0, 510);
    saveCurSteps(nullptr); // an expiry that was on its way when the timer was disarmed
    EXPECT_EQ(stored(), (Position{-1, -1}));
    EXPECT_EQ(call(ubusStopPanorama), R"({"error_code":0})");
    restAt(1500, 550);

    saveDuringWhich([] { // it has read pan; where tilt turns, the panorama stores nothing itself
        fakeMotor.status[TILT].running = 1;
        fakeMotor.onRequest = [](const FakeRequest&) { fakeMotor.status[TILT].running = 1; };
        EXPECT_EQ(panoramaStart(), RESULT_OK);
        fakeMotor.onRequest = nullptr;
        fakeMotor.status[TILT].running = 0;
        standAt(0, 510);
    });
    EXPECT_EQ(stored(), (Position{-1, -1}));
    EXPECT_EQ(call(ubusStopPanorama), R"({"error_code":0})");
    restAt(1500, 550);
    saveDuringWhich([] { // it has read both axes just before they are sent to the sweep
        EXPECT_EQ(panoramaStart(), RESULT_OK);
        standAt(0, 510);
    });
    EXPECT_EQ(stored(), (Position{1500, 550}));
    EXPECT_EQ(call(ubusStopPanorama), R"({"error_code":0})");
    restAt(1500, 550);

    // A user's command that took over a tracking motion is still to be saved when the next tracking motion begins.
    motion.motion_origin.store(ORIGIN_TRACK);
    standAt(1600, 600);
    saveStepsArm();
    EXPECT_EQ(trackTarget(1, 0, 1, 1), RESULT_OK);
    EXPECT_EQ(stored(), (Position{1600, 600}));
    restAt(1610, 600);
    saveCurSteps(nullptr);
    EXPECT_EQ(stored(), (Position{1600, 600}));
    // It cannot be saved, as the axes are not read: then nothing is, rather than a place of the tracking.
    motion.motion_origin.store(ORIGIN_USER);
    saveStepsArm();
    atNext(TILT, MOTOR_IOC_GET_STATUS, [] { fakeMotor.fail(PAN, MOTOR_IOC_GET_STATUS); });
    EXPECT_EQ(trackTarget(1, 0, 1, 1), RESULT_OK);
    fakeMotor.failing.clear();
    EXPECT_FALSE(fakes.armed(timers.saveStepsTimer) || gContext.position.savePending.load());
}

// A file that could not be read for a moment, and is there again.
TEST_F(SaveRace, ARepairedFileIsReadAgainByWhoeverReturnsThere)
{
    const std::string whole =
        "config motor 'x_motor'\n\toption steps '1800'\nconfig motor 'y_motor'\n\toption steps '700'\n";
    const auto repaired = [&] {
        write("ptzd", "config motor 'x_motor");
        EXPECT_NE(cfg_uci_pkg_reload(UCI_PTZD), 0);
        write("ptzd", whole);
        fakeMotor.requests.clear();
    };
    const std::vector<FakeRequest> there = {{PAN, MOTOR_IOC_MOVE, 8, 300}, {TILT, MOTOR_IOC_MOVE, 8, 90}};
    repaired();
    EXPECT_EQ(call(ubusStopPanorama), R"({"error_code":0})");
    EXPECT_EQ(driven(), there);
    restAt(1500, 610);
    repaired();
    lensMaskSetEnabled(1);
    mask("off");
    EXPECT_EQ(driven(), there);
    restAt(1500, 610);
    repaired();
    motion.motion_origin.store(ORIGIN_TRACK);
    EXPECT_EQ(moveToLastPostion(), RESULT_OK);
    EXPECT_EQ(driven().size(), 2U);
}

TEST_F(SaveRace, AMaskWhoseMotionFailedIsNotSavedUntilAUserMovesTheHead)
{
    const Position where{1500, 610};
    fakeMotor.fail(PAN, MOTOR_IOC_MOVE);
    write("lens_mask", "config lens_mask 'lens_mask_info'\n\toption enabled 'on'\n");
    EXPECT_EQ(call(ubusLensMask), R"({"err_code":-64301})");
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
    lensMaskSetEnabled(1);
    EXPECT_EQ(moveToLastPostion(), ERR_LENS_MASK);
    EXPECT_EQ(motion.track_back_done.load(), 1) << "else no tour goes on again";
    EXPECT_EQ(motion.user_moved_recently.load(), 1);
}

} // namespace
