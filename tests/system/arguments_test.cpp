// Arguments as callers get them wrong.

#include "raw_caller.h"

namespace {

TEST_F(HeadInTheLab, RefusesMissingAndMistypedArgumentsWithAReport)
{
    up();
    const std::vector<const char*> noCoordinates = {"",
                                                    R"({"x_coord":"30"})",
                                                    R"({"y_coord":"30"})",
                                                    R"({"x_coord":30,"y_coord":0})",
                                                    R"({"x_coord":["30"],"y_coord":"0"})",
                                                    R"({"x_coord":{"a":"30"},"y_coord":"0"})",
                                                    R"({"x_coord":null,"y_coord":"0"})",
                                                    R"({"x_coord":true,"y_coord":1.5})",
                                                    R"({"X_COORD":"1","y_coord":"0"})"};
    const struct {
        const char* method;
        const char* function; // which reports it
        std::vector<const char*> arguments;
    } cases[] = {
        {"move", "ubusMoveMotor", noCoordinates},
        {"moveTo", "ubusMoveMotorTo", noCoordinates},
        {"movePanorama", "ubusMovePanorama", noCoordinates},
        {"targetTrack", "ubusTargetTrack", {"", R"({"x_coord":"1","y_coord":"1","x_speed":"1"})"}},
        {"moveStep", "ubusMoveMotorStep", {"", R"({"direction":90})"}},
        {"test", "ubusTestMotorRotate", {"", R"({"times":1})"}},
        {"setConfig", "ubusSetMotorConfig", {"", R"({"x_speed":5})"}},
        {"setPowerOffRecover",
         "ubusSetPowerOffRecover",
         {"", R"({"recover":1})", R"({"recover":"2"})", R"({"recover":"-1"})"}},
    };
    for (const auto& [method, function, arguments] : cases) {
        for (const char* wrong : arguments)
            EXPECT_EQ(lab.call(method, wrong), REFUSED_PARAM) << method << wrong;
        EXPECT_TRUE(reported(function, "UBUS: Invalied parameter.")) << method;
    }
    const std::string before = lab.records.ptzdLog();
    EXPECT_EQ(lab.call("moveStep", R"({"direction":"360"})"), REFUSED_PARAM);
    EXPECT_EQ(lab.call("moveTo", coords(151, 0)), REFUSED_PARAM);
    EXPECT_EQ(lab.records.ptzdLog(), before) << "what is merely out of range is refused without a word";
    EXPECT_EQ(requests("MOVE") + requests("ROTATE"), 0);
}

TEST_F(HeadInTheLab, SurvivesRepeatedHugeAndMalformedArguments)
{
    up();
    RawCaller caller(lab);
    blob_buf& message = caller.message;

    blob_buf_init(&message, 0);
    for (const char* value : {"10", "20"}) {
        blobmsg_add_string(&message, "x_coord", value);
        blobmsg_add_string(&message, "y_coord", "0");
    }
    EXPECT_EQ(caller.call("moveTo"), 0);
    ASSERT_TRUE(settled());
    EXPECT_EQ(lab.motors.now(LAB_PAN).shaft, 1600) << "of equal names the first counts";

    const std::string huge(60 * 1024, '9');
    blob_buf_init(&message, 0);
    blobmsg_add_string(&message, "x_coord", huge.c_str());
    blobmsg_add_string(&message, "y_coord", huge.c_str());
    EXPECT_EQ(caller.call("moveTo"), -64302);
    blob_buf_init(&message, 0);
    blobmsg_add_string(&message, huge.c_str(), "1");
    EXPECT_EQ(caller.call("stop"), 0);

    blob_buf_init(&message, 0);
    blobmsg_add_field(&message, BLOBMSG_TYPE_STRING, "x_coord", "30", 2); // no NUL
    blobmsg_add_string(&message, "y_coord", "0");
    EXPECT_EQ(caller.call("moveTo"), -64302) << "an unterminated text ends the parse";
    blob_buf_init(&message, 0);
    blobmsg_add_field(&message, BLOBMSG_TYPE_INT32, "x", "30", 2);
    EXPECT_EQ(caller.call("move"), -64302);
    EXPECT_EQ(lab.motors.now(LAB_PAN).shaft, 1600);
}

} // namespace
