// Arguments of delPreset and set_plan_config as nobody should send them.

#include "raw_caller.h"

#include <fstream>
#include <functional>
#include <span>
#include <sstream>

namespace {

struct Hostile {
    const char* what;
    std::function<void(blob_buf*)> build;
    int code;
};

void put(blob_buf* message, const char* name, const char* text)
{
    blobmsg_add_string(message, name, text);
}

/// An array with what `fill` puts into it.
template <typename Fill>
auto array(const char* name, Fill fill)
{
    return [name, fill](blob_buf* message) {
        void* cookie = blobmsg_open_array(message, name);
        fill(message);
        blobmsg_close_array(message, cookie);
    };
}

/// Arrays in arrays, with a 1 in the innermost.
auto nested(const char* name, int depth)
{
    return [name, depth](blob_buf* message) {
        std::vector<void*> cookies;
        for (int i = 0; i < depth; ++i)
            cookies.push_back(blobmsg_open_array(message, i == 0 ? name : nullptr));
        blobmsg_add_u32(message, nullptr, 1);
        for (; !cookies.empty(); cookies.pop_back())
            blobmsg_close_array(message, cookies.back());
    };
}

/// monday with one entry: a table with the member `member`, a table with the times and the action that `fill` puts in.
template <typename Fill>
auto entry(const char* member, Fill fill)
{
    return array("monday", [member, fill](blob_buf* message) {
        void* element = blobmsg_open_table(message, nullptr);
        void* range = blobmsg_open_table(message, member);
        fill(message);
        blobmsg_close_table(message, range);
        blobmsg_close_table(message, element);
    });
}

/// An entry whose end is whatever `end` puts in.
template <typename End>
auto ending(End end)
{
    return entry("monday_1", [end](blob_buf* message) {
        blobmsg_add_u32(message, "start_time", 480);
        end(message);
        put(message, "action_type", "disable");
    });
}

void minutes(blob_buf* message)
{
    blobmsg_add_u32(message, "start_time", 480);
    blobmsg_add_u32(message, "end_time", 720);
}

void garbage(blob_buf* message)
{
    const unsigned char bytes[] = {0xff, 0xff, 0xff, 0xff, 0x80, 0x03, 0, 8, 0x83, 0, 0x7f, 0xff, 0, 1, '1', 0};
    for (size_t length = 1; length <= sizeof(bytes); ++length) // unnamed, mostly longer than what holds them
        blobmsg_add_field(message, BLOBMSG_TYPE_ARRAY, nullptr, bytes, static_cast<unsigned>(length));
}

class HostileArguments : public HeadInTheLab {
protected:
    std::string stored()
    {
        std::ostringstream text;
        for (const char* package : {"ptzd", "ptz_plan"})
            text << std::ifstream(lab.folder() + "/etc/config/" + package).rdbuf() << "\n--\n";
        std::string changes;
        EXPECT_EQ(lab.run({"uci", "changes"}, changes), 0);
        return text.str() + changes + lab.call("getPresetAll");
    }
    /// Presets 1, 2 and 8, and a plan for Monday.
    void fill()
    {
        for (const char* id : {"1", "2", "8"})
            EXPECT_EQ(lab.call("setPreset", std::string(R"({"id":")") + id + "\"}"),
                      std::string(R"({"name":"preset)") + id + R"(","id":")" + id + R"(","error_code":0})");
        EXPECT_EQ(lab.call("set_plan_config", R"({"monday":[{"monday_1":{"start_time":1,"end_time":2,)"
                                              R"("action_type":"disable"}}]})"),
                  DONE);
    }
    /// Sends each; where it is refused nothing may have changed, else everything is filled again.
    void send(const char* method, std::span<const Hostile> all)
    {
        fill();
        RawCaller caller(lab);
        const pid_t pid = lab.programs.ptzdPid();
        std::string before = stored();
        for (const Hostile& one : all) {
            SCOPED_TRACE(one.what);
            blob_buf_init(&caller.message, 0);
            one.build(&caller.message);
            EXPECT_EQ(caller.call(method), one.code);
            if (one.code != 0) {
                EXPECT_EQ(stored(), before);
            } else {
                fill();
                before = stored();
            }
        }
        EXPECT_EQ(lab.programs.ptzdPid(), pid);
        // What was stored last is what the next start finds.
        ASSERT_TRUE(lab.programs.killPtzd(SIGKILL).has_value());
        ASSERT_TRUE(lab.programs.startPtzd()) << lab.error();
        EXPECT_EQ(stored(), before);
    }
};

TEST_F(HostileArguments, OfDelPreset)
{
    const auto texts = [](const std::string& text, int count) {
        return array("id", [=](blob_buf* message) {
            for (int i = 0; i < count; ++i)
                put(message, nullptr, text.c_str());
        });
    };
    const Hostile all[] = {
        {"nothing", [](blob_buf*) {}, -64302},
        {"another name", array("ids", [](blob_buf* m) { put(m, nullptr, "1"); }), -64302},
        {"a text", [](blob_buf* m) { put(m, "id", "1"); }, -64302},
        {"a number", [](blob_buf* m) { blobmsg_add_u32(m, "id", 1); }, -64302},
        {"a table",
         [](blob_buf* m) {
             void* table = blobmsg_open_table(m, "id");
             put(m, "1", "1");
             blobmsg_close_table(m, table);
         },
         -64302},
        {"no element", array("id", [](blob_buf*) {}), -64302},
        {"no digit", texts("-.,e\xff\xfe", 10000), -64302},
        {"10,000 texts that name nobody", texts("9", 10000), -64302},
        {"beyond 32 bits: 2^32 + 1", array("id", [](blob_buf* m) { blobmsg_add_u64(m, nullptr, 4294967297); }), -64302},
        {"beyond 64 bits", texts("36893488147419103233", 1), -64302},
        {"10,000 digits", texts(std::string(10000, '1'), 1), -64302},
        {"a fraction, whose point is skipped", array("id", [](blob_buf* m) { blobmsg_add_double(m, nullptr, 1.0); }),
         -64302},
        {"100,000 levels", nested("id", 100000), -64302},
        {"malformed elements", array("id", garbage), -64302},
    };
    up();
    send("delPreset", all);
}

TEST_F(HostileArguments, OfSetPlanConfig)
{
    const Hostile all[] = {
        {"another day", array("mondays", [](blob_buf* m) { put(m, nullptr, "x"); }), 0},
        {"a text for a day", [](blob_buf* m) { put(m, "monday", "x"); }, 0},
        {"texts for entries", array("monday", [](blob_buf* m) { put(m, nullptr, "monday_1"); }), 64302},
        {"an array for an entry", nested("monday", 2), 64302},
        {"another weekday", entry("tuesday_1", minutes), 64302},
        {"no action", entry("monday_1", minutes), 64302},
        {"an action of another type",
         entry("monday_1",
               [](blob_buf* m) {
                   minutes(m);
                   blobmsg_add_u32(m, "action_type", 1);
               }),
         64302},
        {"an end as text", ending([](blob_buf* m) { put(m, "end_time", "720"); }), 0},
        {"an end as text beyond the day", ending([](blob_buf* m) { put(m, "end_time", "99999999999999999999"); }),
         64302},
        {"an end beyond 32 bits, 2^32 + 720", ending([](blob_buf* m) { blobmsg_add_u64(m, "end_time", 4294968016); }),
         64302},
        {"an end beyond every number", ending([](blob_buf* m) { blobmsg_add_double(m, "end_time", 1e300); }), 64302},
        {"an end in a table", ending([](blob_buf* m) { nested("end_time", 3)(m); }), 64302},
        {"10,000 entries",
         array("monday",
               [](blob_buf* m) {
                   for (int i = 0; i < 10000; ++i)
                       blobmsg_close_table(m, blobmsg_open_table(m, nullptr));
               }),
         64302},
        {"100,000 levels", nested("monday", 100000), 64302},
        {"malformed elements", array("monday", garbage), 64302},
        {"a good day and then a bad one",
         [](blob_buf* m) {
             array("sunday", [](blob_buf*) {})(m);
             entry("monday_1", minutes)(m);
         },
         64302},
        {"an id of nonsense",
         entry("monday_1",
               [](blob_buf* m) {
                   minutes(m);
                   put(m, "action_type", "preset");
                   put(m, "action_id", "\xff\xfe'\x01\n=\"");
               }),
         0},
    };
    up();
    send("set_plan_config", all);
}

} // namespace
