// The panorama, there and back.

#include "head.h"

namespace {

using Steps = std::vector<int32_t>;

TEST_F(HeadInTheLab, SweepsAPanoramaAndComesBack)
{
    up();
    goTo(30, 10);
    EXPECT_EQ(lab.call("startPanorama"), DONE);
    ASSERT_TRUE(settled());
    expectAt(0, 510); // -150, and 10 units of 10 steps below the middle
    EXPECT_EQ(lab.uciGet("ptzd.x_motor.steps"), "1800");
    EXPECT_EQ(lab.uciGet("ptzd.y_motor.steps"), "710");
    for (const char* method : {"move", "moveTo"})
        EXPECT_EQ(lab.call(method, coords(1, 1)), REFUSED_PANORAMA) << method;
    for (const char* method : {"stop", "targetTrackBack", "manualCalibrate"})
        EXPECT_EQ(lab.call(method), REFUSED_PANORAMA) << method;
    EXPECT_EQ(lab.call("moveStep", R"({"direction":"0"})"), REFUSED_PANORAMA);
    EXPECT_EQ(lab.call("targetTrack", R"({"x_coord":"1","y_coord":"1","x_speed":"1","y_speed":"1"})"),
              REFUSED_PANORAMA);
    EXPECT_EQ(lab.call("lensMask"), R"({"err_code":-64329})");
    EXPECT_EQ(lab.call("movePanorama", coords(151, 0)), REFUSED_PARAM);
    EXPECT_EQ(lab.call("movePanorama", coords(-1, 0)), REFUSED_NO_TRAVEL);
    EXPECT_EQ(lab.call("movePanorama", R"({"x_coord":"1"})"), REFUSED_PARAM);
    EXPECT_TRUE(reported("ubusMovePanorama", "UBUS: Invalied parameter."));
    EXPECT_EQ(lab.call("movePanorama", coords(30, 0)), DONE);
    ASSERT_TRUE(settled(2));
    expectAt(300, 510);
    EXPECT_EQ(lab.call("stopPanorama"), DONE);
    ASSERT_TRUE(settled(3));
    expectAt(1800, 710);
    EXPECT_EQ(moves(LAB_PAN), (Steps{-1800, 300, 1500}));
    for (const LabJournalEntry& entry : lab.journal()) {
        EXPECT_TRUE(entry.request != "MOVE" || entry.speedWord() == 8);
    }
    EXPECT_EQ(lab.call("move", coords(1, 1)), DONE);
}

TEST_F(HeadInTheLab, StartsAPanoramaOutOfAMotion)
{
    up(slowHead());
    EXPECT_EQ(lab.call("moveTo", coords(150, -6)), DONE);
    EXPECT_EQ(lab.call("startPanorama"), DONE);
    EXPECT_EQ(requests("STOP"), 2);
    EXPECT_EQ(lab.call("stopPanorama"), DONE);
    EXPECT_EQ(requests("STOP"), 4);
    ASSERT_TRUE(settled());
    EXPECT_EQ(lab.actions(), (std::vector<std::string>{"start", "stop"})) << "one motion throughout";
}

TEST_F(HeadInTheLab, AFailedPanoramaForbidsNothing)
{
    up();
    lab.failRequest(LAB_TILT, LAB_MOVE);
    EXPECT_EQ(lab.call("startPanorama"), REFUSED_DEVICE);
    ASSERT_TRUE(settled());
    EXPECT_EQ(lab.call("moveTo", coords(10, 0)), DONE);
    ASSERT_TRUE(settled(2));
    EXPECT_EQ(lab.call("startPanorama"), DONE);
    lab.failRequest(LAB_PAN, LAB_GET_STATUS, LAB_FOR_EVER);
    EXPECT_EQ(lab.call("stopPanorama"), REFUSED_DEVICE);
    ASSERT_TRUE(lab.heal(LAB_PAN));
    EXPECT_EQ(lab.call("move", coords(1, 1)), DONE) << "the panorama has ended all the same";
}

TEST_F(HeadInTheLab, ComesHomeFromAPanoramaWhenNothingIsStored)
{
    LabOptions options = fastHead();
    options.config["ptzd"] = "config ptzd 'config'\n\toption power_off_recover '0'\n\n"
                             "config motor 'x_motor'\n\nconfig motor 'y_motor'\n\toption steps '700'\n";
    up(options);
    EXPECT_EQ(lab.call("stopPanorama"), DONE);
    ASSERT_TRUE(settled());
    expectAt(1500, 700);
    EXPECT_TRUE(reported("ubusStopPanorama", "error to get option x_motor.steps"));
}

} // namespace
