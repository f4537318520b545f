#include "config/uci_store.h"
#include "fakes/motion_fixture.h"
#include "image/flip_config.h"
#include "motor/speed_config.h"

namespace {

class Config : public MotionTest {
protected:
    static std::vector<FakeRequest> speeds()
    {
        return fakeMotor.sent(MOTOR_IOC_SET_SPEED);
    }
};

TEST_F(Config, SetsBothSpeedsInDriverAndStoreAndTheSustainInMemory)
{
    fakeMotor.onRequest = [](const FakeRequest&) { EXPECT_EQ(fakes.transactions, 0) << "around a request"; };
    EXPECT_EQ(fakes.call(ubusSetMotorConfig, {{"x_speed", "8"}, {"y_speed", "1"}, {"sustain", "-7"}}), RESULT_OK);
    EXPECT_EQ(speeds(),
              (std::vector<FakeRequest>{{PAN, MOTOR_IOC_SET_SPEED, 8, 0}, {TILT, MOTOR_IOC_SET_SPEED, 1, 0}}));
    EXPECT_EQ(fakes.options, (Options{{"x_motor.speed", "8"}, {"y_motor.speed", "1"}}));
    EXPECT_EQ(gContext.motion.stepSustainTicks.load(), -7);
    EXPECT_GE(fakes.commits, 1);
    EXPECT_EQ(fakes.transactions, 0);
}

TEST_F(Config, ASpeedOutOfRangeLeavesItsAxisAndSetsTheRest)
{
    for (const char* refused : {"0", "9", "-1", "x", "99999999999"}) {
        resetDaemon();
        EXPECT_EQ(fakes.call(ubusSetMotorConfig, {{"x_speed", refused}, {"y_speed", "3"}, {"sustain", "5"}}),
                  ERR_PARAM);
        EXPECT_EQ(speeds(), (std::vector<FakeRequest>{{TILT, MOTOR_IOC_SET_SPEED, 3, 0}})) << refused;
        EXPECT_EQ(fakes.options, (Options{{"y_motor.speed", "3"}}));
        EXPECT_EQ(gContext.motion.stepSustainTicks.load(), 5);
    }
}

TEST_F(Config, CommitsOnEveryPath)
{
    EXPECT_EQ(fakes.call(ubusSetMotorConfig), ERR_PARAM);
    EXPECT_EQ(fakes.reports, (std::vector<FakeReport>{{"ubusSetMotorConfig", "UBUS: Invalied parameter.\n"}}));
    EXPECT_EQ(fakes.commits, 1);
    EXPECT_EQ(fakes.call(ubusSetMotorConfig, {{"x_speed", "0"}}), ERR_PARAM);
    EXPECT_EQ(fakes.reports.size(), 1u) << "refused without a word";
    EXPECT_EQ(fakes.commits, 2);
    gContext.motion.calibrating.store(1);
    EXPECT_EQ(fakes.call(ubusSetMotorConfig, {{"x_speed", "3"}, {"sustain", "5"}}), ERR_CALIBRATING);
    EXPECT_EQ(fakes.commits, 3);
    EXPECT_TRUE(speeds().empty());
    EXPECT_EQ(gContext.motion.stepSustainTicks.load(), 1000);
}

TEST_F(Config, AFailedWriteEndsItAndAnswersSuccess)
{
    fakes.settingFails = true;
    EXPECT_EQ(fakes.call(ubusSetMotorConfig, {{"x_speed", "3"}, {"y_speed", "3"}, {"sustain", "5"}}), RESULT_OK);
    EXPECT_EQ(speeds(), (std::vector<FakeRequest>{{PAN, MOTOR_IOC_SET_SPEED, 3, 0}}));
    EXPECT_EQ(fakes.reports, (std::vector<FakeReport>{{"ubusSetMotorConfig", "error to set option x_motor.speed\n"}}));
    EXPECT_EQ(gContext.motion.stepSustainTicks.load(), 1000);
    EXPECT_EQ(fakes.commits, 1);
}

TEST_F(Config, TakesAFlipTypeByTheBeginningOfItsName)
{
    const struct {
        const char* text;
        int32_t type;
    } cases[] = {{"center", 3}, {"left_and_right", 1}, {"up_and_down", 2}, {"off", 0},
                 {"cen", 3},    {"left", 1},           {"up", 2},          {"", 0}};
    for (const auto& one : cases) {
        fakes.options["switch.flip_type"] = one.text;
        EXPECT_EQ(fakes.call(ubusUpdateImageConfig), RESULT_OK) << one.text;
        EXPECT_EQ(gContext.image.imageFlipType.load(), one.type) << one.text;
    }
    EXPECT_EQ(fakes.reloads.back(), UCI_IMAGE);
    for (const char* unknown : {"mirror", "offx", "centers", "Center", " off"}) {
        gContext.image.imageFlipType.store(2);
        fakes.options["switch.flip_type"] = unknown;
        EXPECT_EQ(fakes.call(ubusUpdateImageConfig), ERR_DEVICE) << unknown;
        EXPECT_EQ(gContext.image.imageFlipType.load(), 2);
    }
    fakes.options.clear();
    EXPECT_EQ(loadImageFlipConfig(), 0);
    EXPECT_EQ(gContext.image.imageFlipType.load(), 0) << "a missing option is off";
}

} // namespace
