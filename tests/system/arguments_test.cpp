// Arguments as callers get them wrong, as nobody should send them, with every awkward character, and in quick
// succession.

#include "head.h"
#include "lab/core/files.h"

extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubus.h>
}
#undef fallthrough

#include <json-c/json.h>

#include <tuple>

namespace {

class Arguments : public HeadInTheLab {
protected:
    void SetUp() override
    {
        up();
        connection_ = ubus_connect((lab.folder() + "/var/run/ubus.sock").c_str());
        ASSERT_NE(connection_, nullptr);
        ASSERT_EQ(ubus_lookup_id(connection_, "ptzd", &object_), 0);
    }
    void TearDown() override
    {
        blob_buf_free(&message_);
        if (connection_)
            ubus_free(connection_);
        HeadInTheLab::TearDown();
    }
    /// Calls with arguments for which there may be no JSON; gives the reply's text.
    std::string call(const char* method, void (*build)(blob_buf*))
    {
        std::string reply;
        blob_buf_init(&message_, 0);
        build(&message_);
        EXPECT_EQ(ubus_invoke(connection_, object_, method, message_.head, onData, &reply, 10000), 0) << method;
        return reply;
    }
    static void onData(ubus_request* request, int, blob_attr* data)
    {
        char* text = blobmsg_format_json(data, true);
        *static_cast<std::string*>(request->priv) += text ? text : "";
        free(text);
    }
    /// Presets and plan, as the daemon has them and as they are in the files.
    std::string stored()
    {
        std::string text = lab.call("getPresetAll");
        for (const char* file : {"/etc/config/ptzd", "/etc/config/ptz_plan", "/tmp/.uci/ptzd", "/tmp/.uci/ptz_plan"})
            text += readFile(lab.folder() + file) + "\n--\n";
        return text;
    }
    void restart()
    {
        ASSERT_TRUE(lab.programs.killPtzd(SIGKILL).has_value());
        ASSERT_TRUE(lab.programs.startPtzd()) << lab.error();
    }

    ubus_context* connection_ = nullptr;
    uint32_t object_ = 0;
    blob_buf message_{};
};

std::string errorCode(int code)
{
    return R"({"error_code":)" + std::to_string(code) + "}";
}

TEST_F(Arguments, MissingOrMistypedAreRefusedWithAReport)
{
    const std::tuple<const char*, const char*, const char*> cases[] = {
        // method, function that logs, arguments
        {"move", "ubusMoveMotor", R"({"x_coord":30,"y_coord":0})"},
        {"moveTo", "ubusMoveMotorTo", R"({"x_coord":["30"],"y_coord":"0"})"},
        {"movePanorama", "ubusMovePanorama", R"({"x_coord":null,"y_coord":"0"})"},
        {"targetTrack", "ubusTargetTrack", R"({"x_coord":"1","y_coord":"1","x_speed":"1"})"},
        {"moveStep", "ubusMoveMotorStep", R"({"direction":90})"},
        {"test", "ubusTestMotorRotate", ""},
        {"setConfig", "ubusSetMotorConfig", R"({"x_speed":5})"},
        {"setPowerOffRecover", "ubusSetPowerOffRecover", R"({"recover":"2"})"},
    };
    for (const auto& [method, function, arguments] : cases) {
        EXPECT_EQ(lab.call(method, arguments), REFUSED_PARAM) << method;
        EXPECT_TRUE(reported(function, "UBUS: Invalied parameter.")) << method;
    }
    const std::string before = lab.records.ptzdLog();
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

/// A plan of one entry for Monday, with this end.
std::string monday(const char* end)
{
    return R"({"monday":[{"monday_1":{"start_time":480,"action_type":"disable","end_time":)" + std::string(end) +
           "}}]}";
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

TEST_F(Arguments, HugeOrMalformedHarmNothing)
{
    const std::string nines(60 * 1024, '9');
    const std::tuple<const char*, std::string, int> hostile[] = {
        {"stop", "{\"" + nines + R"(":"1"})", 0},
        {"moveTo", R"({"x_coord":")" + nines + R"(","y_coord":")" + nines + "\"}", -64302},
        {"delPreset", R"({"id":{"1":"1"}})", -64302},
        {"delPreset", R"({"id":[]})", -64302},
        {"delPreset", R"({"id":[)" + repeated("\"-.,e\xff\xfe\"", 10000) + "]}", -64302},
        {"delPreset", R"({"id":[)" + repeated("\"9\"", 10000) + "]}", -64302},
        {"delPreset", R"({"id":[4294967297]})", -64302}, // 2^32 + 1
        {"delPreset", R"({"id":[1.0]})", -64302},        // whose point is skipped
        {"set_plan_config", R"({"monday":["monday_1"]})", 64302},
        {"set_plan_config", R"({"monday":[[1]]})", 64302},
        {"set_plan_config", R"({"monday":[)" + repeated("{}", 10000) + "]}", 64302},
        {"set_plan_config", R"({"sunday":[],"monday":["x"]})", 64302},
        {"set_plan_config", monday(R"("99999999999999999999")"), 64302},
        {"set_plan_config", monday("4294968016"), 64302}, // 2^32 + 720
        {"set_plan_config", monday("1e300"), 64302},
        {"set_plan_config", monday("[[1]]"), 64302},
        {"set_plan_config", monday("720,\"action_id\":\"\xff\xfe'\\u0001=\""), 0},
    };
    const std::tuple<const char*, void (*)(blob_buf*), int> malformed[] = {
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
    const pid_t pid = lab.programs.ptzdPid();
    for (const char* id : {"1", "2", "8"})
        EXPECT_NE(lab.call("setPreset", std::string(R"({"id":")") + id + "\"}"), REFUSED_PARAM);
    for (const auto& [method, arguments, code] : hostile) {
        SCOPED_TRACE(method + arguments.substr(0, 200));
        EXPECT_EQ(lab.call("set_plan_config", monday("540")), DONE);
        const std::string before = stored();
        EXPECT_EQ(lab.call(method, arguments), errorCode(code));
        EXPECT_TRUE(code == 0 || stored() == before) << stored();
    }
    const std::string before = stored();
    for (const auto& [method, build, code] : malformed) {
        EXPECT_EQ(call(method, build), errorCode(code)) << method;
        EXPECT_EQ(stored(), before) << method;
    }
    ASSERT_TRUE(settled());
    EXPECT_EQ(lab.motors.now(LAB_PAN).shaft, 1600);
    EXPECT_EQ(lab.programs.ptzdPid(), pid);
    restart();
    EXPECT_EQ(stored(), before) << "what was stored last is what the next start finds";
}

/// A JSON string of these bytes. What the replies escape is escaped in the same way, so it is also what they show.
std::string quoted(const std::string& text)
{
    json_object* value = json_object_new_string_len(text.data(), static_cast<int>(text.size()));
    const std::string quoted = json_object_to_json_string_ext(value, JSON_C_TO_STRING_NOSLASHESCAPE);
    json_object_put(value);
    return quoted;
}

TEST_F(Arguments, OfCallsSentAtOnceAreServedInTheirOrder)
{
    const std::pair<const char*, const char*> calls[] = {
        {"setPreset", R"({"id":"1","name":"gate"})"},
        {"gotoPreset", R"({"id":"2"})"},
        {"setPreset", R"({"id":"2"})"},
        {"delPreset", R"({"id":["2"]})"},
        {"moveTo", R"({"x_coord":"151","y_coord":"0"})"},
        {"set_plan_config", R"({"monday":[]})"},
        {"gotoPreset", R"({"id":"2","speed_pan":"9"})"},
        {"checkMotorStatus", "{}"},
    };
    ubus_request requests[std::size(calls)];
    std::string answers;
    for (size_t i = 0; i < std::size(calls); ++i) {
        blob_buf_init(&message_, 0);
        blobmsg_add_json_from_string(&message_, calls[i].second);
        ASSERT_EQ(ubus_invoke_async(connection_, object_, calls[i].first, message_.head, &requests[i]), 0);
        requests[i].priv = &answers;
        requests[i].data_cb = onData;
        ubus_complete_request_async(connection_, &requests[i]);
    }
    for (ubus_request& request : requests)
        EXPECT_EQ(ubus_complete_request(connection_, &request, 10000), 0);
    EXPECT_EQ(answers, R"({"name":"gate","id":"1","error_code":0})" + errorCode(-64321) +
                           R"({"name":"preset2","id":"2","error_code":0})" + DONE + REFUSED_PARAM + DONE +
                           errorCode(-64321) + R"({"err_code":0})");
}

TEST_F(Arguments, NamesOfPresetsAreStoredExactlyOrRefused)
{
    const std::vector<std::string> accepted = {
        "it's \"quoted\" ''twice''",
        "a.b.c=d.e='f'=\"g\"",
        " blanks  around and\tinside\t",
        "\\n \\' \\\" \\\\ trailing\\",
        "# none; $(reboot) `x` @a[0] %s\r",
        "T\xc3\xbcr \xe9\x96\x80 \xf0\x9f\x9a\xaa \x7f",  // two, three and four bytes a character
        "123456789012345678901234567890\xc3\xbc",         // 32 bytes, the last two one character
        "\xff\xfe\xc3(\x80 890123456789012345678901\xc3", // 32 bytes, no UTF-8, the last one half a character
    };
    const std::pair<const char*, int> refused[] = {
        {"a\nb", -64302},
        {"\x1b[2J", -64301}, // the store holds no control characters but tab and carriage return
        {"1234567890123456789012345678901\xc3\xbc", -64308}, // 33 bytes, the limit cuts a character
    };
    const auto set = [&](size_t id, const std::string& name) {
        return lab.call("setPreset", R"({"id":")" + std::to_string(id) + R"(","name":)" + quoted(name) + "}");
    };
    std::string names;
    for (size_t id = 1; id <= accepted.size(); ++id) {
        const std::string& name = accepted[id - 1];
        EXPECT_TRUE(set(id, name).ends_with(R"("error_code":0})")) << quoted(name);
        EXPECT_EQ(lab.settings.get("ptzd.preset_" + std::to_string(id) + ".name"), name) << quoted(name);
        names += (names.empty() ? "" : ",") + quoted(name);
    }
    const std::string before = stored();
    EXPECT_NE(before.find(R"("name":[)" + names + "]"), std::string::npos) << before;
    for (const auto& [name, code] : refused)
        EXPECT_TRUE(set(3, name).ends_with(R"("error_code":)" + std::to_string(code) + "}")) << quoted(name);
    EXPECT_TRUE(reported("savePresetList", "error to set option preset_3.name"));
    EXPECT_EQ(lab.call("getPresetAll"), before.substr(0, before.find('\n')));
    restart();
    EXPECT_EQ(stored(), before);
    EXPECT_EQ(set(1, ""), R"({"name":"","id":"1","error_code":0})"); // is stored as none, and read as the section's
    restart();
    EXPECT_NE(lab.call("getPresetAll").find(R"("name":["preset_1",)"), std::string::npos);
}

} // namespace
