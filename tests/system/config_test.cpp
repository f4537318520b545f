// What other programs and callers configure: image flip, speeds.

#include "head.h"

namespace {

TEST_F(HeadInTheLab, TurnsItsSensesWithTheImage)
{
    up();
    const struct {
        const char* name;
        int32_t pan; // steps after moveTo 30, 10
        int32_t tilt;
    } types[] = {{"off", 1800, 710}, {"left_and_right", 1200, 710}, {"up_and_down", 1800, 510}, {"center", 1200, 510}};
    for (const auto& type : types) {
        SCOPED_TRACE(type.name);
        EXPECT_TRUE(lab.uciSet("image.switch.flip_type", type.name));
        EXPECT_EQ(lab.call("updateImageConfig"), DONE);
        goTo(30, 10);
        expectAt(type.pan, type.tilt);
        EXPECT_EQ(lab.call("getStatus"),
                  R"({"error_code":0,"status":{"x_coord":"30","y_coord":"10","x_speed":"0","y_speed":"0"}})");
    }
    EXPECT_TRUE(lab.uciSet("image.switch.flip_type", "mirror"));
    EXPECT_EQ(lab.call("updateImageConfig"), REFUSED_DEVICE);
    EXPECT_NE(lab.call("getStatus").find(R"("x_coord":"30")"), std::string::npos) << "the last type stays";
}

TEST_F(HeadInTheLab, KnowsTheImagesFlipFromTheStart)
{
    LabOptions options = slowHead();
    options.config["image"] = "config switch 'switch'\n\toption flip_type 'center'\n";
    up(options);
    EXPECT_EQ(lab.call("moveTo", coords(100, 0)), DONE);
    const std::string status = lab.call("getStatus");
    EXPECT_NE(status.find(R"("x_speed":"4")"), std::string::npos) << "against the motor's sense: " << status;
    EXPECT_EQ(moves(LAB_PAN), std::vector<int32_t>{-1000});
    EXPECT_EQ(lab.call("stop"), DONE);
}

TEST_F(HeadInTheLab, TakesSpeedsAtOnceAndKeepsThem)
{
    up(slowHead());
    EXPECT_EQ(lab.call("setConfig", R"({"x_speed":"8","y_speed":"2"})"), DONE);
    EXPECT_EQ(lab.uciGet("ptzd.x_motor.speed"), "8");
    EXPECT_EQ(lab.uciGet("ptzd.y_motor.speed"), "2");
    EXPECT_EQ(lab.call("move", coords(100, 0)), DONE);
    EXPECT_NE(lab.call("getStatus").find(R"("x_speed":"8")"), std::string::npos);
    EXPECT_EQ(lab.call("setConfig", R"({"x_speed":"9","y_speed":"3"})"), REFUSED_PARAM);
    EXPECT_EQ(lab.uciGet("ptzd.x_motor.speed"), "8");
    EXPECT_EQ(lab.uciGet("ptzd.y_motor.speed"), "3") << "the valid one counts all the same";
    EXPECT_EQ(lab.call("setConfig"), REFUSED_PARAM);
    EXPECT_TRUE(reported("ubusSetMotorConfig", "UBUS: Invalied parameter."));
    EXPECT_EQ(lab.call("stop"), DONE);
}

TEST_F(HeadInTheLab, ReportsASpeedThatCannotBeStored)
{
    LabOptions options = fastHead();
    options.config["ptzd"] = "config ptzd 'config'\n\toption power_off_recover '1'\n\nconfig motor 'y_motor'\n";
    up(options);
    lab.forget();
    EXPECT_EQ(lab.call("setConfig", R"({"x_speed":"5","y_speed":"5"})"), DONE);
    EXPECT_TRUE(reported("ubusSetMotorConfig", "error to set option x_motor.speed"));
    EXPECT_EQ(requests("SET_SPEED"), 1) << "tilt is left out once pan's speed was not stored";
}

} // namespace
