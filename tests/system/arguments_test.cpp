// Arguments as callers get them wrong, and as nobody should send them.

#include "lab/core/files.h"
#include "raw_caller.h"

namespace {

TEST_F(HeadInTheLab, RefusesMissingAndMistypedArgumentsWithAReport)
{
    up();
    const struct {
        const char* method;
        const char* function; // which logs it
        std::vector<const char*> arguments;
    } cases[] = {
        {"move", "ubusMoveMotor", {"", R"({"x_coord":"30"})", R"({"x_coord":30,"y_coord":0})"}},
        {"moveTo",
         "ubusMoveMotorTo",
         {R"({"x_coord":["30"],"y_coord":"0"})", R"({"x_coord":{"a":"3"},"y_coord":"0"})"}},
        {"movePanorama", "ubusMovePanorama", {R"({"x_coord":null,"y_coord":"0"})", R"({"X_COORD":"1","y_coord":"0"})"}},
        {"targetTrack", "ubusTargetTrack", {"", R"({"x_coord":"1","y_coord":"1","x_speed":"1"})"}},
        {"moveStep", "ubusMoveMotorStep", {"", R"({"direction":90})"}},
        {"test", "ubusTestMotorRotate", {"", R"({"times":1})"}},
        {"setConfig", "ubusSetMotorConfig", {"", R"({"x_speed":5})"}},
        {"setPowerOffRecover", "ubusSetPowerOffRecover", {"", R"({"recover":1})", R"({"recover":"2"})"}},
    };
    for (const auto& [method, function, arguments] : cases) {
        for (const char* wrong : arguments)
            EXPECT_EQ(lab.call(method, wrong), REFUSED_PARAM) << method << wrong;
        EXPECT_TRUE(reported(function, "UBUS: Invalied parameter.")) << method;
    }
    const std::string before = lab.records.ptzdLog();
    EXPECT_EQ(lab.call("moveStep", R"({"direction":"360"})"), REFUSED_PARAM);
    EXPECT_EQ(lab.call("moveTo", coords(151, 0)), REFUSED_PARAM);
    EXPECT_EQ(lab.records.ptzdLog(), before) << "what is merely out of range is refused without a line";
    EXPECT_EQ(requests("MOVE") + requests("ROTATE"), 0);
}

std::string repeated(const std::string& text, int count)
{
    std::string all = text;
    for (int i = 1; i < count; ++i)
        all += "," + text;
    return all;
}

/// A plan of one entry for Monday, with what else is in it.
std::string monday(const std::string& rest, const char* member = "monday_1")
{
    return std::string(R"({"monday":[{")") + member + R"(":{"start_time":480,)" + rest + "}}]}";
}

/// Arrays in arrays, with a 1 in the innermost.
void nest(blob_buf* message, const char* name)
{
    std::vector<void*> cookies;
    for (int i = 0; i < 100000; ++i)
        cookies.push_back(blobmsg_open_array(message, i == 0 ? name : nullptr));
    blobmsg_add_u32(message, nullptr, 1);
    for (; !cookies.empty(); cookies.pop_back())
        blobmsg_close_array(message, cookies.back());
}

/// An array of unnamed elements, mostly longer than what holds them.
void addGarbage(blob_buf* message, const char* name)
{
    const unsigned char bytes[] = {0xff, 0xff, 0xff, 0xff, 0x80, 0x03, 0, 8, 0x83, 0, 0x7f, 0xff, 0, 1, '1', 0};
    void* array = blobmsg_open_array(message, name);
    for (size_t length = 1; length <= sizeof(bytes); ++length)
        blobmsg_add_field(message, BLOBMSG_TYPE_ARRAY, nullptr, bytes, static_cast<unsigned>(length));
    blobmsg_close_array(message, array);
}

TEST_F(HeadInTheLab, SurvivesRepeatedHugeAndMalformedArguments)
{
    const std::string nines(60 * 1024, '9');
    const struct {
        const char* method;
        std::string arguments;
        int code;
    } hostile[] = {
        {"stop", "{\"" + nines + R"(":"1"})", 0},
        {"moveTo", R"({"x_coord":")" + nines + R"(","y_coord":")" + nines + "\"}", -64302},
        {"delPreset", "", -64302},
        {"delPreset", R"({"id":"1"})", -64302},
        {"delPreset", R"({"id":{"1":"1"}})", -64302},
        {"delPreset", R"({"id":[]})", -64302},
        {"delPreset", R"({"id":[)" + repeated("\"-.,e\xff\xfe\"", 10000) + "]}", -64302},
        {"delPreset", R"({"id":[)" + repeated("\"9\"", 10000) + "]}", -64302},
        {"delPreset", R"({"id":[4294967297]})", -64302}, // 2^32 + 1
        {"delPreset", R"({"id":["36893488147419103233"]})", -64302},
        {"delPreset", R"({"id":[1.0]})", -64302}, // whose point is skipped
        {"set_plan_config", R"({"mondays":["x"]})", 0},
        {"set_plan_config", R"({"monday":["monday_1"]})", 64302},
        {"set_plan_config", R"({"monday":[[1]]})", 64302},
        {"set_plan_config", R"({"monday":[)" + repeated("{}", 10000) + "]}", 64302},
        {"set_plan_config", R"({"sunday":[],"monday":["x"]})", 64302},
        {"set_plan_config", monday(R"("end_time":720,"action_type":"disable")", "tuesday_1"), 64302},
        {"set_plan_config", monday(R"("end_time":720)"), 64302},
        {"set_plan_config", monday(R"("end_time":"720","action_type":"disable")"), 0},
        {"set_plan_config", monday(R"("end_time":"99999999999999999999","action_type":"disable")"), 64302},
        {"set_plan_config", monday(R"("end_time":4294968016,"action_type":"disable")"), 64302}, // 2^32 + 720
        {"set_plan_config", monday(R"("end_time":1e300,"action_type":"disable")"), 64302},
        {"set_plan_config", monday(R"("end_time":[[1]],"action_type":"disable")"), 64302},
        {"set_plan_config", monday("\"end_time\":720,\"action_type\":\"preset\",\"action_id\":\"\xff\xfe'\\u0001=\""),
         0},
    };
    const struct {
        const char* method;
        void (*build)(blob_buf*);
        int code;
    } malformed[] = {
        {"moveTo",
         [](blob_buf* message) {
             blobmsg_add_field(message, BLOBMSG_TYPE_STRING, "x_coord", "30", 2); // without an end
             blobmsg_add_string(message, "y_coord", "0");
         },
         -64302},
        {"move", [](blob_buf* m) { blobmsg_add_field(m, BLOBMSG_TYPE_INT32, "x", "30", 2); }, -64302},
        {"delPreset", [](blob_buf* m) { nest(m, "id"); }, -64302},
        {"delPreset", [](blob_buf* m) { addGarbage(m, "id"); }, -64302},
        {"set_plan_config", [](blob_buf* m) { nest(m, "monday"); }, 64302},
        {"set_plan_config", [](blob_buf* m) { addGarbage(m, "monday"); }, 64302},
        {"moveTo", // of equal names the first counts
         [](blob_buf* message) {
             for (const char* value : {"10", "20"}) {
                 blobmsg_add_string(message, "x_coord", value);
                 blobmsg_add_string(message, "y_coord", "0");
             }
         },
         0},
    };
    up();
    RawCaller caller(lab);
    const pid_t pid = lab.programs.ptzdPid();
    const auto stored = [&] {
        std::string text = lab.call("getPresetAll");
        for (const char* file : {"/etc/config/ptzd", "/etc/config/ptz_plan", "/tmp/.uci/ptzd", "/tmp/.uci/ptz_plan"})
            text += readFile(lab.folder() + file) + "\n--\n";
        return text;
    };
    for (const char* id : {"1", "2", "8"})
        EXPECT_NE(lab.call("setPreset", std::string(R"({"id":")") + id + "\"}"), REFUSED_PARAM);
    for (const auto& [method, arguments, code] : hostile) {
        SCOPED_TRACE(method + arguments.substr(0, 200));
        EXPECT_EQ(lab.call("set_plan_config", R"({"monday":[)" + planEntry("monday_1", 1, 2, "1") + "]}"), DONE);
        const std::string before = stored();
        EXPECT_EQ(lab.call(method, arguments), R"({"error_code":)" + std::to_string(code) + "}");
        EXPECT_TRUE(code == 0 || stored() == before) << stored();
    }
    const std::string before = stored();
    for (const auto& [method, build, code] : malformed) {
        blob_buf_init(&caller.message, 0);
        build(&caller.message);
        EXPECT_EQ(caller.call(method), code) << method;
        EXPECT_EQ(stored(), before) << method;
    }
    ASSERT_TRUE(settled());
    EXPECT_EQ(lab.motors.now(LAB_PAN).shaft, 1600);
    EXPECT_EQ(lab.programs.ptzdPid(), pid);
    ASSERT_TRUE(lab.programs.killPtzd(SIGKILL).has_value());
    ASSERT_TRUE(lab.programs.startPtzd()) << lab.error();
    EXPECT_EQ(stored(), before) << "what was stored last is what the next start finds";
}

} // namespace
