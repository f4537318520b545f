#include "config/uci_store.h"
#include "fakes/motion_fixture.h"
#include "motion/track.h"

#include <limits>

namespace {

class Track : public MotionTest {
protected:
    static void setSwitch(const char* text)
    {
        fakes.options["target_track_info.enabled"] = text;
    }
};

TEST_F(Track, GoesByTheDisplacementAtItsOwnSpeeds)
{
    EXPECT_EQ(fakes.call(ubusTargetTrack, {{"x_coord", "10"}, {"y_coord", "-5"}, {"x_speed", "3"}, {"y_speed", "2"}}),
              RESULT_OK);
    EXPECT_EQ(driven(), (std::vector<FakeRequest>{move(PAN, 3, 100), move(TILT, 2, -50)}));
    EXPECT_EQ(fakes.notifications, (std::vector<FakeNotification>{{NOTIFY_MOVING, ORIGIN_TRACK}}));
    EXPECT_EQ(gContext.motion.track_back_done.load(), 0);
    EXPECT_EQ(gContext.motion.user_moved_recently.load(), 0);
    EXPECT_FALSE(fakes.armed(timers.saveStepsTimer));
    motorStatusPoll(nullptr);
    EXPECT_EQ(fakes.notifications.back(), (FakeNotification{NOTIFY_IDLE, ORIGIN_TRACK}));
}

TEST_F(Track, CutsSpeedsAndFollowsTheFlipSigns)
{
    constexpr int32_t MOST = std::numeric_limits<int32_t>::max();
    for (int32_t type = 0; type < 4; ++type) {
        resetDaemon();
        gContext.image.imageFlipType.store(type);
        EXPECT_EQ(trackTarget(10, 5, type == 0 ? 0 : -5, type == 0 ? 9 : MOST), RESULT_OK);
        EXPECT_EQ(driven(), (std::vector<FakeRequest>{move(PAN, 1, type % 2 == 0 ? 100 : -100),
                                                      move(TILT, 8, type < 2 ? 50 : -50)}));
    }
}

TEST_F(Track, IsRefusedInOrderAndHaltsNothing)
{
    standAt(3000, 610);
    fakeMotor.status[TILT].running = 1;
    fakeMotor.fail(PAN, MOTOR_IOC_GET_STATUS);
    gContext.panorama.panoramaRunning.store(1);
    EXPECT_EQ(fakes.call(ubusTargetTrack, {{"x_coord", "1"}, {"y_coord", "1"}, {"x_speed", "1"}}), ERR_PARAM);
    EXPECT_EQ(fakes.reports, (std::vector<FakeReport>{{"ubusTargetTrack", "UBUS: Invalied parameter.\n"}}));
    EXPECT_EQ(trackTarget(1, 0, 1, 1), ERR_PANORAMA);
    gContext.panorama.panoramaRunning.store(0);
    EXPECT_EQ(trackTarget(1, 0, 1, 1), ERR_DEVICE);
    fakeMotor.failing.clear();
    EXPECT_EQ(trackTarget(1, 0, 1, 1), ERR_CALIBRATING);
    expectUntouched();
    fakeMotor.status[TILT].running = 0;
    EXPECT_EQ(trackTarget(1, 0, 1, 1), ERR_NO_TRAVEL);
    EXPECT_TRUE(driven().empty() && fakes.notifications.empty());
    EXPECT_EQ(gContext.motion.track_back_done.load(), 1);
}

TEST_F(Track, KeepsThePointOfReturnOfAnExcursion)
{
    const std::pair<MotionOrigin, bool> cases[] = {
        {ORIGIN_USER, true}, {ORIGIN_TRACK, false}, {ORIGIN_RETURN, false}, {ORIGIN_TOUR, true}};
    for (const auto& [origin, stored] : cases) {
        resetDaemon();
        gContext.position.power_off_recover.store(0);
        gContext.motion.motion_origin.store(origin);
        EXPECT_EQ(trackTarget(1, 1, 1, 1), RESULT_OK);
        EXPECT_EQ(fakes.options.contains("x_motor.steps"), stored) << origin;
    }
}

TEST_F(Track, ReadsItsSwitchInAnyLetterCase)
{
    for (const auto& [text, enabled] : {std::pair{"on", 1}, {"oN", 1}, {"off", 0}, {"", 0}, {"on ", 0}, {"1", 0}}) {
        setSwitch(text);
        EXPECT_EQ(loadTargetTrackConfig(), 0);
        EXPECT_EQ(gContext.track.targetTrackEnabled.load(), enabled) << text;
    }
    EXPECT_EQ(fakes.reloads.front(), UCI_TARGET_TRACK);
    gContext.track.targetTrackEnabled.store(1);
    fakes.options.clear();
    EXPECT_EQ(loadTargetTrackConfig(), 0);
    EXPECT_EQ(gContext.track.targetTrackEnabled.load(), 0);
    EXPECT_EQ(fakes.transactions, 0);
}

TEST_F(Track, ReturnsTheHeadOnlyWhenItsSwitchGoesOff)
{
    storePosition(1400, 600);
    gContext.motion.motion_origin.store(ORIGIN_TRACK);
    for (const auto& [before, text] : {std::pair{0, "off"}, {0, "on"}, {1, "on"}}) {
        gContext.track.targetTrackEnabled.store(before);
        setSwitch(text);
        EXPECT_EQ(fakes.call(ubusReloadTargetTrackConfig), RESULT_OK);
        EXPECT_EQ(fakes.replies.back().field, "err_code");
        EXPECT_TRUE(driven().empty()) << before << " " << text;
    }
    setSwitch("off");
    EXPECT_EQ(fakes.call(ubusReloadTargetTrackConfig), RESULT_OK);
    EXPECT_EQ(driven(), (std::vector<FakeRequest>{move(PAN, 4, -100), move(TILT, 4, -10)}));
    EXPECT_EQ(gContext.motion.motion_origin.load(), ORIGIN_RETURN);
    EXPECT_EQ(fakes.call(ubusReloadTargetTrackConfig), RESULT_OK);
    EXPECT_EQ(driven().size(), 2u) << "it is off already";
}

TEST_F(Track, TheSwitchRefusesLessThanAMotion)
{
    const auto switchOff = [] {
        gContext.track.targetTrackEnabled.store(1);
        return fakes.call(ubusReloadTargetTrackConfig);
    };
    gContext.panorama.panoramaRunning.store(1);
    gContext.motion.calibrating.store(1);
    EXPECT_EQ(switchOff(), RESULT_OK);
    gContext.motion.calibrating.store(0);
    lensMaskSetEnabled(1);
    EXPECT_EQ(switchOff(), RESULT_OK);
    lensMaskSetEnabled(0);
    EXPECT_EQ(switchOff(), ERR_PANORAMA);
    EXPECT_EQ(gContext.track.targetTrackEnabled.load(), 0) << "taken over all the same";
    gContext.panorama.panoramaRunning.store(0);
    fakeMotor.fail(TILT, MOTOR_IOC_GET_STATUS);
    EXPECT_EQ(switchOff(), ERR_DEVICE);
    expectUntouched();
    fakeMotor.failing.clear();
    EXPECT_EQ(switchOff(), RESULT_OK) << "also when no position is stored";
    EXPECT_TRUE(driven().empty());
}

TEST_F(Track, TheSwitchInterruptsATrackingMotionAndNotAReturn)
{
    storePosition(1400, 600);
    gContext.track.targetTrackEnabled.store(1);
    fakeMotor.status[PAN].running = 1;
    gContext.motion.motion_origin.store(ORIGIN_RETURN);
    gContext.motion.track_back_done.store(0);
    EXPECT_EQ(fakes.call(ubusReloadTargetTrackConfig), RESULT_OK);
    EXPECT_TRUE(driven().empty());
    EXPECT_EQ(gContext.motion.track_back_done.load(), 0) << "nothing is done at all";

    gContext.track.targetTrackEnabled.store(1);
    gContext.motion.motion_origin.store(ORIGIN_TRACK);
    fakeMotor.fail(PAN, MOTOR_IOC_STOP);
    EXPECT_EQ(fakes.call(ubusReloadTargetTrackConfig), ERR_DEVICE);
    EXPECT_EQ(driven(), (std::vector<FakeRequest>{stop(PAN)}));
    fakeMotor.failing.clear();
    fakeMotor.requests.clear();
    gContext.track.targetTrackEnabled.store(1);
    EXPECT_EQ(fakes.call(ubusReloadTargetTrackConfig), RESULT_OK);
    EXPECT_EQ(driven(), (std::vector<FakeRequest>{stop(PAN), stop(TILT), move(PAN, 4, -100), move(TILT, 4, -10)}));
}

} // namespace
