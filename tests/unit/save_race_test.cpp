// A save of the position that something overtakes after it has looked at the head.

#include "config/uci_store.h"
#include "fakes/stored_head.h"
#include "motion/lens_mask.h"
#include "motion/move.h"
#include "motor/position_store.h"

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
    /// A save that has read both axes when `command` runs.
    static void saveDuringWhich(const std::function<void()>& command)
    {
        atNext(TILT, MOTOR_IOC_GET_STATUS, command);
        saveCurSteps(nullptr);
    }
};

TEST_F(SaveRace, AMotionThatStartsMeanwhileIsSavedToo)
{
    saveStepsArm();
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
    const unsigned before = fakeMotorAnswered;
    cfg_uci_lock(); // the older one gets no further than its look at the head
    std::thread older(saveCurSteps, nullptr);
    while (fakeMotorAnswered != before + AXIS_COUNT)
        std::this_thread::yield();
    standAt(2000, 600);
    saveDuringWhich([&] {
        cfg_uci_unlock();
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
    saveDuringWhich([] { mask("off"); }); // it has looked while the mask was on
    EXPECT_EQ(stored(), where);
    standAt(1300, 610);
    EXPECT_EQ(moveHead(0, 0), RESULT_OK);
    saveCurSteps(nullptr);
    EXPECT_EQ(stored(), (Position{1300, 610})) << "saved as ever afterwards";
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
