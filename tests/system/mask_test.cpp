// The lens mask and the position that is to come back after it.

#include "head.h"

namespace {

constexpr const char* FOLLOWED = R"({"err_code":0})";

class Mask : public HeadInTheLab {
protected:
    std::string mask(const char* enabled)
    {
        EXPECT_TRUE(lab.settings.set("lens_mask.lens_mask_info.enabled", enabled));
        return lab.call("lensMask");
    }
    void expectStored(const char* pan, const char* tilt)
    {
        EXPECT_EQ(lab.settings.get("ptzd.x_motor.steps"), pan);
        EXPECT_EQ(lab.settings.get("ptzd.y_motor.steps"), tilt);
    }
};

TEST_F(Mask, ItsPositionIsNeverStored)
{
    LabOptions options = fastHead();
    options.clockSpeed = 50; // ten seconds until a save are 200 ms
    options.factor = 500;
    up(options);
    EXPECT_EQ(lab.call("moveTo", coords(30, 10)), DONE);
    ASSERT_TRUE(settled());
    EXPECT_EQ(mask("on"), FOLLOWED);
    ASSERT_TRUE(settled(2));
    const int64_t masked = lab.clock.nowNs();
    ASSERT_TRUE(waitUntil([&] { return lab.clock.nowNs() - masked > 25'000'000'000; }, DEADLINE));
    expectStored("1800", "710");
    ASSERT_TRUE(lab.programs.killPtzd(SIGTERM).has_value());
    expectStored("1800", "710");
    ASSERT_TRUE(lab.programs.startPtzd()) << lab.error();
    expectAt(1800, 0); // pan as before, the lens hidden
    lab.records.clear();
    lab.motors.setFactor(LAB_TILT, 1); // 4 s for the way back
    EXPECT_EQ(mask("off"), FOLLOWED);
    EXPECT_EQ(mask("on"), FOLLOWED);
    EXPECT_TRUE(lab.motors.now(LAB_TILT).shaft < 710) << "too late";
    expectStored("1800", "710");
    lab.motors.setFactor(LAB_TILT, 500);
    ASSERT_TRUE(settled());
    EXPECT_EQ(mask("off"), FOLLOWED);
    ASSERT_TRUE(settled(2));
    expectAt(1800, 710);
}

TEST_F(Mask, ReportsWhatItCannotReadOrSet)
{
    LabOptions options = fastHead();
    options.config["lens_mask"] = "config lens_mask 'lens_mask_info'\n\toption enabled 'on'\n";
    options.config["ptzd"] = "config ptzd 'config'\n\toption power_off_recover '1'\n";
    up(options);
    EXPECT_EQ(mask("off"), FOLLOWED);
    ASSERT_TRUE(settled());
    expectAt(1500, 550); // home
    EXPECT_EQ(lab.call("move", coords(1, 0)), DONE) << "until then nothing is stored";
    EXPECT_EQ(mask("on"), FOLLOWED) << "there is no section to store the position in";
    for (const std::string what : {"error to get option ", "error to set option "})
        for (const char* option : {"x_motor.steps", "y_motor.steps"})
            EXPECT_TRUE(reported("ubusLensMask", what + option)) << what << option;
}

} // namespace
