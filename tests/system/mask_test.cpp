// The lens mask.

#include "head.h"

#include <filesystem>
#include <fstream>

namespace {

constexpr const char* MASKED = R"({"err_code":-64324})";
constexpr const char* FOLLOWED = R"({"err_code":0})";
constexpr const char* FAILED = R"({"err_code":-64301})";

class Mask : public HeadInTheLab {
protected:
    std::string mask(const char* enabled)
    {
        EXPECT_TRUE(lab.uciSet("lens_mask.lens_mask_info.enabled", enabled));
        return lab.call("lensMask");
    }
    void expectStored(const char* pan, const char* tilt)
    {
        EXPECT_EQ(lab.uciGet("ptzd.x_motor.steps"), pan);
        EXPECT_EQ(lab.uciGet("ptzd.y_motor.steps"), tilt);
    }
};

TEST_F(Mask, HidesTheLensAndBringsItBack)
{
    up();
    goTo(30, 10);
    for (int round = 0; round < 2; ++round) {
        lab.forget();
        EXPECT_EQ(mask("oN"), FOLLOWED);
        ASSERT_TRUE(settled());
        expectAt(1800, 0); // -61 units below the middle, 610
        expectStored("1800", "710");
        EXPECT_EQ(lab.call("lensMask"), MASKED);
        for (const char* method : {"stop", "startPanorama", "targetTrackBack", "manualCalibrate"})
            EXPECT_EQ(lab.call(method), REFUSED_LENS_MASK) << method;
        EXPECT_EQ(lab.call("moveStep", R"({"direction":"0"})"), REFUSED_LENS_MASK);
        EXPECT_EQ(mask("off"), FOLLOWED);
        ASSERT_TRUE(settled(2));
        expectAt(1800, 710);
        EXPECT_EQ(lab.call("lensMask"), FOLLOWED);
        EXPECT_EQ(moves(LAB_TILT), (std::vector<int32_t>{-710, 710})) << "off already: nothing moves";
        EXPECT_EQ(moves(LAB_PAN), (std::vector<int32_t>{0, 0}));
    }
}

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
    const int64_t masked = lab.labTimeNs();
    ASSERT_TRUE(waitUntil([&] { return lab.labTimeNs() - masked > 25'000'000'000; }, DEADLINE));
    expectStored("1800", "710");
    ASSERT_TRUE(lab.killPtzd(SIGTERM).has_value());
    expectStored("1800", "710");
    ASSERT_TRUE(lab.startPtzd()) << lab.error();
    expectAt(1800, 0); // pan where it stood, the lens hidden
    lab.forget();
    EXPECT_EQ(mask("off"), FOLLOWED);
    ASSERT_TRUE(settled());
    expectAt(1800, 710);
}

TEST_F(Mask, KeepsTheStoredPositionWhenTheHeadStartsHidden)
{
    LabOptions options = slowHead();
    options.clockSpeed = 20;
    options.config["lens_mask"] = "config lens_mask 'lens_mask_info'\n\toption enabled 'on'\n";
    options.config["ptzd"] =
        "config motor 'x_motor'\n\toption steps '1800'\nconfig motor 'y_motor'\n\toption steps '710'\n";
    up(options);
    lab.setSpeed(1);
    EXPECT_EQ(mask("off"), FOLLOWED);
    EXPECT_EQ(mask("on"), FOLLOWED) << "the head is hardly out yet";
    expectStored("1800", "710");
    EXPECT_EQ(lab.call("movePanorama", coords(1, 0)), DONE) << "leaves the lens hidden";
    EXPECT_EQ(mask("off"), FOLLOWED);
    EXPECT_EQ(mask("on"), FOLLOWED);
    expectStored("1800", "710");
}

TEST_F(Mask, InterruptsAMotionAndStoresWhereThatHadGot)
{
    up(slowHead());
    EXPECT_EQ(lab.call("moveTo", coords(150, -6)), DONE);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(mask("on"), FOLLOWED);
    EXPECT_EQ(requests("STOP"), 2);
    ASSERT_TRUE(settled());
    const std::string stored = lab.uciGet("ptzd.x_motor.steps").value_or("");
    EXPECT_GT(std::atoi(stored.c_str()), 1500);
    EXPECT_LT(std::atoi(stored.c_str()), 3000);
    EXPECT_EQ(lab.axisNow(LAB_TILT).shaft, 0);
    EXPECT_EQ(lab.actions(), (std::vector<std::string>{"start", "stop"}));
}

TEST_F(Mask, StaysAsItWasWhileTheDevicesFail)
{
    up();
    goTo(0, 0);
    lab.failRequest(LAB_TILT, LAB_MOVE);
    EXPECT_EQ(mask("on"), FAILED);
    ASSERT_TRUE(settled());
    EXPECT_EQ(lab.call("move", coords(1, 0)), DONE) << "not masked";
    ASSERT_TRUE(settled(2));
    EXPECT_EQ(lab.call("lensMask"), FOLLOWED) << "tried again";
    ASSERT_TRUE(settled(3));
    lab.failRequest(LAB_PAN, LAB_GET_STATUS);
    EXPECT_EQ(mask("off"), FAILED);
    EXPECT_EQ(lab.call("stop"), REFUSED_LENS_MASK);
    EXPECT_EQ(lab.call("lensMask"), FOLLOWED);
    ASSERT_TRUE(settled(4));
    expectAt(1510, 610);
}

TEST_F(Mask, HidesTheLensThoughNothingCanBeStored)
{
    up();
    goTo(30, 10);
    // Nothing can be put where the changes of a package are saved.
    const std::filesystem::path saves = lab.folder() + "/tmp/.uci";
    EXPECT_TRUE(lab.uciSet("lens_mask.lens_mask_info.enabled", "on"));
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
