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

} // namespace
