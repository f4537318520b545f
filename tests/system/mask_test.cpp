// The lens mask and the position that is to come back after it.

#include "head.h"

#include <filesystem>
#include <fstream>

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
    expectAt(1800, 0); // pan where it stood, the lens hidden
    lab.records.clear();
    EXPECT_EQ(mask("off"), FOLLOWED);
    ASSERT_TRUE(settled());
    expectAt(1800, 710);
}

TEST_F(Mask, HidesTheLensThoughNothingCanBeStored)
{
    up();
    goTo(30, 10);
    // Nothing can be put where the changes of a package are saved.
    const std::filesystem::path saves = lab.folder() + "/tmp/.uci";
    EXPECT_TRUE(lab.settings.set("lens_mask.lens_mask_info.enabled", "on"));
    std::filesystem::remove_all(saves);
    std::ofstream(saves) << "no folder";
    EXPECT_EQ(lab.call("lensMask"), FOLLOWED);
    EXPECT_TRUE(reported("cfg_uci_commit", "error to save uci package"));
    ASSERT_TRUE(settled());
    expectAt(1800, 0);
    std::filesystem::remove(saves);
    std::filesystem::create_directory(saves);
    EXPECT_EQ(mask("off"), FOLLOWED);
    ASSERT_TRUE(settled(2));
    expectAt(1800, 710); // memory knows the position all the same
}

TEST_F(Mask, ReportsWhatItCannotReadOrSet)
{
    LabOptions options = fastHead();
    options.config["lens_mask"] = "config lens_mask 'lens_mask_info'\n\toption enabled 'on'\n";
    options.config["ptzd"] = "config ptzd 'config'\n\toption power_off_recover '1'\n";
    up(options);
    EXPECT_EQ(mask("off"), FOLLOWED);
    EXPECT_TRUE(reported("ubusLensMask", "error to get option x_motor.steps"));
    EXPECT_TRUE(reported("ubusLensMask", "error to get option y_motor.steps"));
    ASSERT_TRUE(settled());
    expectAt(1500, 550); // home
    EXPECT_EQ(lab.call("move", coords(1, 0)), DONE) << "until then nothing is stored";
    EXPECT_EQ(mask("on"), FOLLOWED) << "there is no section to store the position in";
    EXPECT_TRUE(reported("ubusLensMask", "error to set option x_motor.steps"));
    EXPECT_TRUE(reported("ubusLensMask", "error to set option y_motor.steps"));
}

} // namespace
