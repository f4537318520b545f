// Arguments as callers get them wrong.

#include "raw_caller.h"

namespace {

TEST_F(HeadInTheLab, TakesNumbersAsThePlainConversionDoes)
{
    up();
    const struct {
        const char* text;
        int32_t steps; // from the middle
    } cases[] = {{"30", 300}, {" 7", 70}, {"+2", 20}, {"1e3", 10}, {"12abc", 120}, {"-5.9", -50}, {"0x20", 0}};
    for (const auto& one : cases) {
        EXPECT_EQ(lab.call("moveTo", R"({"x_coord":"0","y_coord":"0"})"), DONE);
        ASSERT_TRUE(settled());
        EXPECT_EQ(lab.call("moveTo", std::string(R"({"y_coord":"0","x_coord":")") + one.text + "\"}"), DONE)
            << one.text;
        ASSERT_TRUE(settled());
        EXPECT_EQ(lab.axisNow(LAB_PAN).shaft, 1500 + one.steps) << one.text;
    }
    lab.forget();
    const std::string before = lab.ptzdLog();
    for (const char* outside : {"2147483647", "-2147483648", "99999999999999999999", "-99999999999", "151"})
        EXPECT_EQ(lab.call("moveTo", std::string(R"({"y_coord":"0","x_coord":")") + outside + "\"}"), REFUSED_PARAM)
            << outside;
    EXPECT_TRUE(lab.cetLog().empty());
    EXPECT_EQ(lab.ptzdLog(), before) << "a target outside the limits is refused without a word";
    for (const char* nothing : {"", "abc", "-"})
        EXPECT_EQ(lab.call("move", std::string(R"({"y_coord":"0","x_coord":")") + nothing + "\"}"), DONE) << nothing;
}

TEST_F(HeadInTheLab, RefusesMissingAndMistypedArgumentsWithAReport)
{
    up();
    const char* incomplete[] = {"",
                                R"({"x_coord":"30"})",
                                R"({"y_coord":"30"})",
                                R"({"x_coord":30,"y_coord":0})",
                                R"({"x_coord":["30"],"y_coord":"0"})",
                                R"({"x_coord":{"a":"30"},"y_coord":"0"})",
                                R"({"x_coord":null,"y_coord":"0"})",
                                R"({"x_coord":true,"y_coord":1.5})",
                                R"({"X_COORD":"1","y_coord":"0"})"};
    for (const char* arguments : incomplete) {
        EXPECT_EQ(lab.call("moveTo", arguments), REFUSED_PARAM) << arguments;
        EXPECT_EQ(lab.call("move", arguments), REFUSED_PARAM) << arguments;
    }
    EXPECT_TRUE(reported("ubusMoveMotorTo", "UBUS: Invalied parameter."));
    EXPECT_TRUE(reported("ubusMoveMotor", "UBUS: Invalied parameter."));
    for (const char* arguments : {"", R"({"recover":1})", R"({"recover":"2"})", R"({"recover":"-1"})"})
        EXPECT_EQ(lab.call("setPowerOffRecover", arguments), REFUSED_PARAM) << arguments;
    EXPECT_TRUE(reported("ubusSetPowerOffRecover", "UBUS: Invalied parameter."));
    EXPECT_EQ(lab.uciGet("ptzd.config.power_off_recover"), "1");
    EXPECT_EQ(requests("MOVE"), 0);
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
    EXPECT_EQ(lab.axisNow(LAB_PAN).shaft, 1600) << "of equal names the first counts";

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
    EXPECT_EQ(lab.axisNow(LAB_PAN).shaft, 1600);
}

} // namespace
