// Motions as a caller, the motors and the bus see them.

#include "head.h"

namespace {

using Actions = std::vector<std::string>;
using Steps = std::vector<int32_t>;

TEST_F(HeadInTheLab, OffersItsMethodsInOrder)
{
    up();
    std::string text;
    ASSERT_EQ(lab.run({"ubus", "-v", "list", "ptzd"}, text), 0);
    const std::string expected =
        "\t\"getCapa\":{}\n"
        "\t\"getStatus\":{}\n"
        "\t\"updateImageConfig\":{}\n"
        "\t\"setConfig\":{\"x_speed\":\"String\",\"y_speed\":\"String\",\"sustain\":\"String\"}\n"
        "\t\"move\":{\"x_coord\":\"String\",\"y_coord\":\"String\"}\n"
        "\t\"moveTo\":{\"x_coord\":\"String\",\"y_coord\":\"String\"}\n"
        "\t\"moveStep\":{\"direction\":\"String\"}\n"
        "\t\"setPowerOffRecover\":{\"recover\":\"String\"}\n"
        "\t\"stop\":{}\n"
        "\t\"test\":{}\n"
        "\t\"manualCalibrate\":{}\n"
        "\t\"checkMotorStatus\":{}\n"
        "\t\"lensMask\":{}\n"
        "\t\"targetTrack\":{\"x_coord\":\"String\",\"y_coord\":\"String\","
        "\"x_speed\":\"String\",\"y_speed\":\"String\"}\n"
        "\t\"targetTrackBack\":{}\n"
        "\t\"reloadTargetTrackConfig\":{}\n"
        "\t\"getPresetPage\":{\"start_id\":\"String\",\"count\":\"String\"}\n"
        "\t\"setPreset\":{\"id\":\"String\",\"name\":\"String\",\"save_ptz\":\"String\"}\n"
        "\t\"delPreset\":{\"id\":\"Array\"}\n"
        "\t\"gotoPreset\":{\"id\":\"String\",\"speed_pan\":\"String\","
        "\"speed_tilt\":\"String\",\"speed_zoom\":\"String\"}\n"
        "\t\"setPresetConfig\":{\"image_freeze_enabled\":\"String\",\"speed\":\"String\"}\n"
        "\t\"getPresetAll\":{}\n"
        "\t\"clearPreset\":{}\n"
        "\t\"reloadPresetConfig\":{}\n"
        "\t\"set_plan_config\":{\"sunday\":\"Array\",\"monday\":\"Array\","
        "\"tuesday\":\"Array\",\"wednesday\":\"Array\",\"thursday\":\"Array\","
        "\"friday\":\"Array\",\"saturday\":\"Array\"}\n"
        "\t\"reload_tour_info\":{}\n"
        "\t\"reload_scan_tour\":{}\n"
        "\t\"startPanorama\":{}\n"
        "\t\"movePanorama\":{\"x_coord\":\"String\",\"y_coord\":\"String\"}\n"
        "\t\"stopPanorama\":{}\n";
    EXPECT_EQ(text.substr(text.find('\n') + 1), expected);
}

TEST_F(HeadInTheLab, TellsItsCapabilityAndStatus)
{
    LabOptions options = fastHead();
    options.pan = {.range = 301, .max_speed = 8, .total_steps = 3010};
    up(options);
    EXPECT_EQ(lab.call("getCapa"),
              R"({"error_code":0,"capability":{"x_coord_min":"-150","x_coord_max":"150","y_coord_min":"-61",)"
              R"("y_coord_max":"61","x_max_speed":"8","y_max_speed":"8","simultaneous":"disabled",)"
              R"("preset":"enabled","calibrate":"enabled"}})");
    EXPECT_EQ(lab.call("getStatus"),
              R"({"error_code":0,"status":{"x_coord":"0","y_coord":"-6","x_speed":"0","y_speed":"0"}})");
    EXPECT_EQ(lab.call("checkMotorStatus"), R"({"err_code":0})");
}

TEST_F(HeadInTheLab, ReportsTheSpeedWithItsSenseWhileItMoves)
{
    up(slowHead());
    EXPECT_EQ(lab.call("move", R"({"x_coord":"-100","y_coord":"0"})"), DONE);
    const std::string status = lab.call("getStatus");
    EXPECT_NE(status.find(R"("x_speed":"-4","y_speed":"0")"), std::string::npos) << status;
    EXPECT_EQ(lab.call("stop"), DONE);
}

TEST_F(HeadInTheLab, AnnouncesAMotionOnceAndRestsAtTheTarget)
{
    up();
    EXPECT_EQ(lab.call("moveTo", R"({"x_coord":"30","y_coord":"0"})"), DONE);
    ASSERT_TRUE(settled());
    EXPECT_EQ(lab.callsToCet("notify_motor_moving"), 1);
    EXPECT_EQ(lab.actions(), (Actions{"start", "stop"}));
    EXPECT_EQ(lab.axisNow(LAB_PAN).shaft, 1800); // the middle, 1500, and 30 units of 10 steps
    EXPECT_EQ(lab.axisNow(LAB_TILT).shaft, 610); // from home, -6, to the middle
    EXPECT_EQ(moves(LAB_PAN), Steps{300});
    EXPECT_EQ(moves(LAB_TILT), Steps{60});
    for (const LabCetEntry& entry : lab.cetLog()) {
        EXPECT_TRUE(entry.isEvent || entry.text == "0") << "the origin is a user's";
    }
    const auto polled = [&] { return lab.served(LAB_PAN, LAB_GET_STATUS); };
    const uint32_t before = polled();
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(polled(), before) << "a head at rest is not polled";
}

TEST_F(HeadInTheLab, KeepsOneMotionWhenItIsRedirected)
{
    up(slowHead());
    EXPECT_EQ(lab.call("moveTo", R"({"x_coord":"150","y_coord":"-6"})"), DONE);
    EXPECT_EQ(lab.call("move", R"({"x_coord":"-20","y_coord":"0"})"), DONE);
    ASSERT_TRUE(settled());
    EXPECT_EQ(lab.actions(), (Actions{"start", "stop"}));
    EXPECT_EQ(requests("STOP"), 2);
    EXPECT_EQ(moves(LAB_PAN), (Steps{1500, -200}));
}

TEST_F(HeadInTheLab, StopsAtOnceAndSaysSoOnce)
{
    up(slowHead());
    EXPECT_EQ(lab.call("moveTo", R"({"x_coord":"-150","y_coord":"61"})"), DONE);
    EXPECT_EQ(lab.call("stop"), DONE);
    EXPECT_TRUE(rests());
    ASSERT_TRUE(settled());
    EXPECT_EQ(lab.call("stop"), DONE);
    std::this_thread::sleep_for(200ms); // four ticks of a poll that should not run
    EXPECT_EQ(lab.actions(), (Actions{"start", "stop"}));
    EXPECT_GT(lab.axisNow(LAB_PAN).shaft, 0);
}

TEST_F(HeadInTheLab, RunsToTheLimitsAndNoFurther)
{
    up();
    EXPECT_EQ(lab.call("move", R"({"x_coord":"2147483647","y_coord":"-99999999999"})"), DONE);
    ASSERT_TRUE(settled());
    EXPECT_EQ(lab.axisNow(LAB_PAN).shaft, 3000);
    EXPECT_EQ(lab.axisNow(LAB_TILT).shaft, 220); // -39 units of 10 steps below the middle, 610
    lab.forget();
    EXPECT_EQ(lab.call("move", R"({"x_coord":"1","y_coord":"0"})"), REFUSED_NO_TRAVEL);
    EXPECT_EQ(lab.call("move", R"({"x_coord":"0","y_coord":"-1"})"), REFUSED_NO_TRAVEL);
    EXPECT_EQ(lab.call("moveTo", R"({"x_coord":"151","y_coord":"0"})"), REFUSED_PARAM);
    EXPECT_EQ(lab.call("moveTo", R"({"x_coord":"0","y_coord":"-40"})"), REFUSED_PARAM);
    EXPECT_EQ(requests("MOVE") + requests("STOP"), 0);
    EXPECT_TRUE(lab.cetLog().empty());
    EXPECT_EQ(lab.call("moveTo", R"({"x_coord":"-150","y_coord":"61"})"), DONE);
    ASSERT_TRUE(settled());
    EXPECT_EQ(lab.axisNow(LAB_PAN).shaft, 0);
    EXPECT_EQ(lab.axisNow(LAB_TILT).shaft, 1220);
}

TEST_F(HeadInTheLab, IsRefusedEverythingThatMovesWhileItCalibrates)
{
    LabOptions options = slowHead();
    options.waitCalibrated = false;
    ASSERT_TRUE(lab.up(options)) << lab.error();
    ASSERT_TRUE(waitUntil([&] { return lab.call("checkMotorStatus") == R"({"err_code":-64303})"; }, DEADLINE));
    EXPECT_EQ(lab.call("move", R"({"x_coord":"1","y_coord":"1"})"), REFUSED_CALIBRATING);
    EXPECT_EQ(lab.call("moveTo", R"({"x_coord":"1","y_coord":"1"})"), REFUSED_CALIBRATING);
    EXPECT_EQ(lab.call("stop"), REFUSED_CALIBRATING);
    EXPECT_EQ(lab.call("manualCalibrate"), REFUSED_CALIBRATING);
    EXPECT_NE(lab.call("getStatus").find(R"("error_code":0)"), std::string::npos);
    EXPECT_EQ(requests("MOVE") + requests("STOP"), 0);
}

TEST_F(HeadInTheLab, CalibratesAtStartAndOnRequest)
{
    up();
    EXPECT_EQ(lab.call("moveTo", R"({"x_coord":"100","y_coord":"50"})"), DONE);
    ASSERT_TRUE(settled());
    lab.forget();
    EXPECT_EQ(lab.call("manualCalibrate"), DONE);
    EXPECT_EQ(lab.call("manualCalibrate"), REFUSED_CALIBRATING) << "from the first request on";
    ASSERT_TRUE(settled());
    EXPECT_TRUE(waitUntil([&] { return lab.call("checkMotorStatus") == R"({"err_code":0})"; }, DEADLINE));
    EXPECT_EQ(lab.actions(), (Actions{"start", "stop"}));
    EXPECT_EQ(lab.axisNow(LAB_PAN).shaft, 1500);
    EXPECT_EQ(lab.axisNow(LAB_TILT).shaft, 550);
    std::vector<std::string> pan;
    for (const LabJournalEntry& entry : lab.journal())
        if (entry.axis == LAB_PAN && entry.request != "GET_STATUS" && entry.request != "ROTATE_END")
            pan.push_back(entry.request + " " + std::to_string(entry.speedWord()) + " " +
                          std::to_string(entry.stepsWord()));
    EXPECT_EQ(pan, (std::vector<std::string>{"SET_POSITION 0 1500", "SET_SPEED 8 0", "ROTATE 0 -3000", "ROTATE 0 3000",
                                             "ROTATE 0 -1500", "SET_SPEED 4 0"}));
}

TEST_F(HeadInTheLab, AManualCalibrationEndsTheMotionItInterrupts)
{
    up(slowHead());
    EXPECT_EQ(lab.call("moveTo", R"({"x_coord":"150","y_coord":"-6"})"), DONE);
    lab.setFactor(LAB_PAN, 25000);
    lab.setFactor(LAB_TILT, 25000);
    EXPECT_EQ(lab.call("manualCalibrate"), DONE);
    ASSERT_TRUE(settled(2));
    EXPECT_EQ(lab.actions(), (Actions{"start", "stop", "start", "stop"}));
    EXPECT_EQ(requests("STOP"), 2);
}

TEST_F(HeadInTheLab, TestsItsRotationAsOftenAsAsked)
{
    up();
    EXPECT_EQ(lab.call("test"), REFUSED_PARAM);
    EXPECT_TRUE(reported("ubusTestMotorRotate", "UBUS: Invalied parameter."));
    for (const char* none : {R"({"times":"0"})", R"({"times":"-3"})", R"({"times":"abc"})"})
        EXPECT_EQ(lab.call("test", none), DONE);
    EXPECT_EQ(lab.call("test", R"({"times":"2"})"), DONE);
    EXPECT_TRUE(waitUntil([&] { return requests("ROTATE_END") == 8; }, DEADLINE));
    EXPECT_EQ(requests("ROTATE"), 8);
    lab.forget();
    EXPECT_TRUE(lab.cetLog().empty()) << "the test announces nothing";
    lab.failRequest(LAB_TILT, LAB_ROTATE, LAB_FOR_EVER);
    EXPECT_EQ(lab.call("test", R"({"times":"5"})"), DONE);
    EXPECT_TRUE(reported("motorTest", "times 0 test fail"));
    EXPECT_EQ(requests("ROTATE"), 3) << "pan there and back, tilt once";
}

TEST_F(HeadInTheLab, AnswersFailingDevicesWithTheirCode)
{
    up(slowHead());
    lab.failRequest(LAB_PAN, LAB_GET_STATUS, LAB_FOR_EVER);
    EXPECT_EQ(lab.call("getStatus"), REFUSED_DEVICE);
    EXPECT_EQ(lab.call("move", R"({"x_coord":"1","y_coord":"1"})"), REFUSED_DEVICE);
    EXPECT_EQ(lab.call("moveTo", R"({"x_coord":"1","y_coord":"1"})"), REFUSED_DEVICE);
    EXPECT_EQ(lab.call("manualCalibrate"), REFUSED_DEVICE);
    EXPECT_EQ(lab.served(LAB_TILT, LAB_MOVE), 0u);
    EXPECT_TRUE(lab.cetLog().empty());
    ASSERT_TRUE(lab.heal(LAB_PAN));

    lab.failRequest(LAB_TILT, LAB_MOVE);
    EXPECT_EQ(lab.call("move", R"({"x_coord":"1","y_coord":"1"})"), REFUSED_DEVICE);
    ASSERT_TRUE(settled(1)) << "a motion that did not start is ended by the poll";
    EXPECT_EQ(lab.axisNow(LAB_PAN).shaft, 1510) << "pan was sent all the same";

    EXPECT_EQ(lab.call("moveTo", R"({"x_coord":"150","y_coord":"0"})"), DONE);
    lab.failRequest(LAB_PAN, LAB_STOP);
    EXPECT_EQ(lab.call("stop"), REFUSED_DEVICE);
    ASSERT_TRUE(settled(2)) << "a stop that failed still ends the motion";
    EXPECT_FALSE(rests());
    EXPECT_EQ(lab.call("stop"), DONE);
    EXPECT_TRUE(rests());
}

TEST_F(HeadInTheLab, FollowsTheSavedPositionTenSecondsAfterAMotion)
{
    LabOptions options = fastHead();
    options.factor = 500;
    options.clockSpeed = 50;
    up(options);
    EXPECT_EQ(lab.uciGet("ptzd.x_motor.steps"), std::nullopt);
    EXPECT_EQ(lab.call("moveTo", R"({"x_coord":"30","y_coord":"0"})"), DONE);
    const int64_t movedNs = lab.labTimeNs();
    ASSERT_TRUE(waitUntil([&] { return lab.uciGet("ptzd.y_motor.steps").has_value(); }, DEADLINE));
    EXPECT_GE(lab.labTimeNs() - movedNs, 9'000'000'000);
    EXPECT_EQ(lab.uciGet("ptzd.x_motor.steps"), "1800");
    EXPECT_EQ(lab.uciGet("ptzd.y_motor.steps"), "610");
    EXPECT_EQ(lab.uciGet("ptzd.x_motor.speed"), "4") << "the corrected speed goes along";
}

} // namespace
