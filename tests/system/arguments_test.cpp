// Arguments as callers get them wrong, and as nobody should send them.

#include "raw_caller.h"

#include <fstream>
#include <sstream>

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

using Fill = std::function<void(blob_buf*)>;

Fill text(const char* name, const std::string& value)
{
    return [=](blob_buf* message) { blobmsg_add_string(message, name, value.c_str()); };
}

Fill array(const char* name, const Fill& fill)
{
    return [=](blob_buf* message) {
        void* cookie = blobmsg_open_array(message, name);
        fill(message);
        blobmsg_close_array(message, cookie);
    };
}

Fill table(const char* name, const Fill& fill)
{
    return [=](blob_buf* message) {
        void* cookie = blobmsg_open_table(message, name);
        fill(message);
        blobmsg_close_table(message, cookie);
    };
}

Fill repeated(int count, const Fill& fill)
{
    return [=](blob_buf* message) {
        for (int i = 0; i < count; ++i)
            fill(message);
    };
}

/// Arrays in arrays, with a 1 in the innermost.
Fill nested(const char* name, int depth)
{
    return [=](blob_buf* message) {
        std::vector<void*> cookies;
        for (int i = 0; i < depth; ++i)
            cookies.push_back(blobmsg_open_array(message, i == 0 ? name : nullptr));
        blobmsg_add_u32(message, nullptr, 1);
        for (; !cookies.empty(); cookies.pop_back())
            blobmsg_close_array(message, cookies.back());
    };
}

/// A plan of one entry for Monday that begins at 8:00; `fill` adds the rest.
Fill entry(const char* member, const Fill& fill)
{
    return array("monday", table(nullptr, table(member, [=](blob_buf* message) {
                                     blobmsg_add_u32(message, "start_time", 480);
                                     fill(message);
                                 })));
}

void noon(blob_buf* message)
{
    blobmsg_add_u32(message, "end_time", 720);
}

/// The disable action, and an end that `end` adds.
Fill ending(const Fill& end)
{
    return entry("monday_1", [=](blob_buf* message) {
        end(message);
        text("action_type", "disable")(message);
    });
}

void garbage(blob_buf* message)
{
    const unsigned char bytes[] = {0xff, 0xff, 0xff, 0xff, 0x80, 0x03, 0, 8, 0x83, 0, 0x7f, 0xff, 0, 1, '1', 0};
    for (size_t length = 1; length <= sizeof(bytes); ++length) // unnamed, mostly longer than what holds them
        blobmsg_add_field(message, BLOBMSG_TYPE_ARRAY, nullptr, bytes, static_cast<unsigned>(length));
}

const std::string HUGE_TEXT(60 * 1024, '9');
const struct {
    const char* method;
    const char* what;
    Fill build;
    int code;
} HOSTILE[] = {
    {"stop", "an argument that nobody asked for", text(HUGE_TEXT.c_str(), "1"), 0},
    {"moveTo", "60,000 digits", [](blob_buf* m) { text("x_coord", HUGE_TEXT)(m), text("y_coord", HUGE_TEXT)(m); },
     -64302},
    {"moveTo", "a text without an end",
     [](blob_buf* m) {
         blobmsg_add_field(m, BLOBMSG_TYPE_STRING, "x_coord", "30", 2);
         text("y_coord", "0")(m);
     },
     -64302},
    {"move", "a number of two bytes", [](blob_buf* m) { blobmsg_add_field(m, BLOBMSG_TYPE_INT32, "x", "30", 2); },
     -64302},
    {"delPreset", "nothing", [](blob_buf*) {}, -64302},
    {"delPreset", "a text", text("id", "1"), -64302},
    {"delPreset", "a table", table("id", text("1", "1")), -64302},
    {"delPreset", "no element", array("id", [](blob_buf*) {}), -64302},
    {"delPreset", "no digit", array("id", repeated(10000, text(nullptr, "-.,e\xff\xfe"))), -64302},
    {"delPreset", "10,000 texts that name nobody", array("id", repeated(10000, text(nullptr, "9"))), -64302},
    {"delPreset", "2^32 + 1", array("id", [](blob_buf* m) { blobmsg_add_u64(m, nullptr, 4294967297); }), -64302},
    {"delPreset", "beyond 64 bits", array("id", text(nullptr, "36893488147419103233")), -64302},
    {"delPreset", "a fraction, whose point is skipped",
     array("id", [](blob_buf* m) { blobmsg_add_double(m, nullptr, 1.0); }), -64302},
    {"delPreset", "100,000 levels", nested("id", 100000), -64302},
    {"delPreset", "malformed elements", array("id", garbage), -64302},
    {"set_plan_config", "another day", array("mondays", text(nullptr, "x")), 0},
    {"set_plan_config", "texts for entries", array("monday", text(nullptr, "monday_1")), 64302},
    {"set_plan_config", "an array for an entry", nested("monday", 2), 64302},
    {"set_plan_config", "another weekday", entry("tuesday_1", noon), 64302},
    {"set_plan_config", "no action", entry("monday_1", noon), 64302},
    {"set_plan_config", "an end as text", ending(text("end_time", "720")), 0},
    {"set_plan_config", "an end beyond every text", ending(text("end_time", "99999999999999999999")), 64302},
    {"set_plan_config", "2^32 + 720", ending([](blob_buf* m) { blobmsg_add_u64(m, "end_time", 4294968016); }), 64302},
    {"set_plan_config", "an end beyond every number",
     ending([](blob_buf* m) { blobmsg_add_double(m, "end_time", 1e300); }), 64302},
    {"set_plan_config", "an end in an array", ending(nested("end_time", 3)), 64302},
    {"set_plan_config", "10,000 entries", array("monday", repeated(10000, table(nullptr, [](blob_buf*) {}))), 64302},
    {"set_plan_config", "100,000 levels", nested("monday", 100000), 64302},
    {"set_plan_config", "malformed elements", array("monday", garbage), 64302},
    {"set_plan_config", "a good day and then a bad one",
     [](blob_buf* m) { array("sunday", [](blob_buf*) {})(m), entry("monday_1", noon)(m); }, 64302},
    {"set_plan_config", "an id of nonsense",
     entry("monday_1",
           [](blob_buf* m) {
               noon(m);
               text("action_type", "preset")(m);
               text("action_id", "\xff\xfe'\x01\n=\"")(m);
           }),
     0},
};

TEST_F(HeadInTheLab, SurvivesRepeatedHugeAndMalformedArguments)
{
    up();
    RawCaller caller(lab);
    blob_buf_init(&caller.message, 0);
    for (const char* value : {"10", "20"})
        text("x_coord", value)(&caller.message), text("y_coord", "0")(&caller.message);
    EXPECT_EQ(caller.call("moveTo"), 0);
    ASSERT_TRUE(settled());
    EXPECT_EQ(lab.motors.now(LAB_PAN).shaft, 1600) << "of equal names the first counts";

    for (const char* id : {"1", "2", "8"})
        EXPECT_NE(lab.call("setPreset", std::string(R"({"id":")") + id + "\"}"), REFUSED_PARAM);
    const auto stored = [&] {
        std::ostringstream files;
        for (const char* package : {"ptzd", "ptz_plan"})
            files << std::ifstream(lab.folder() + "/etc/config/" + package).rdbuf() << "\n--\n";
        std::string changes;
        EXPECT_EQ(lab.run({"uci", "changes"}, changes), 0);
        return files.str() + changes + lab.call("getPresetAll");
    };
    const pid_t pid = lab.programs.ptzdPid();
    for (const auto& [method, what, build, code] : HOSTILE) {
        SCOPED_TRACE(std::string(method) + ": " + what);
        EXPECT_EQ(lab.call("set_plan_config", R"({"monday":[)" + planEntry("monday_1", 1, 2, "1") + "]}"), DONE);
        const std::string before = stored();
        blob_buf_init(&caller.message, 0);
        build(&caller.message);
        EXPECT_EQ(caller.call(method), code);
        EXPECT_TRUE(code == 0 || stored() == before) << stored();
    }
    EXPECT_EQ(lab.programs.ptzdPid(), pid);
    EXPECT_EQ(lab.motors.now(LAB_PAN).shaft, 1600);
    // What was stored last is what the next start finds.
    const std::string before = stored();
    ASSERT_TRUE(lab.programs.killPtzd(SIGKILL).has_value());
    ASSERT_TRUE(lab.programs.startPtzd()) << lab.error();
    EXPECT_EQ(stored(), before);
}

} // namespace
