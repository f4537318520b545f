#include <cmath>
#include <deque>
#include <functional>
#include <map>
#include <sstream>

#include <gtest/gtest.h>

#include "ubox_test.h"

namespace {

void addArray(blob_buf* buf, const char* name, std::initializer_list<std::pair<const char*, const char*>> elements)
{
    void* cookie = blobmsg_open_array(buf, name);
    for (const auto& [elementName, text] : elements)
        blobmsg_add_string(buf, elementName, text);
    blobmsg_close_array(buf, cookie);
}

// What the "build" lines of the golden data describe in words; each starts from a head with id 0.
const std::map<std::string, std::function<void(blob_buf*)>> builders{
    {"api_types",
     [](blob_buf* buf) {
         blobmsg_add_u8(buf, "u8", 7);
         blobmsg_add_u16(buf, "u16", 40000);
         blobmsg_add_u16(buf, "i16", 65534);
         blobmsg_add_u32(buf, "u32", 3000000000);
         blobmsg_add_u64(buf, "u64", UINT64_MAX);
         blobmsg_add_double(buf, "d", -0.25);
         blobmsg_add_string(buf, "s", "x");
     }},
    {"api_root_table",
     [](blob_buf* buf) {
         blobmsg_buf_init(buf);
         blobmsg_add_u32(buf, "error_code", 0);
     }},
    {"api_status_like",
     [](blob_buf* buf) {
         blobmsg_add_string(buf, "x_coord", "0");
         blobmsg_add_string(buf, "y_coord", "-6");
         blobmsg_add_string(buf, "x_speed", "120");
         blobmsg_add_u32(buf, "error_code", 0);
     }},
    {"api_preset_arrays",
     [](blob_buf* buf) {
         addArray(buf, "id", {{nullptr, "1"}, {"", "2"}});
         addArray(buf, "position_pan", {{nullptr, "-1.000000"}, {nullptr, "0.500000"}});
         blobmsg_add_u32(buf, "error_code", 0);
     }},
    {"api_unnamed_in_table",
     [](blob_buf* buf) {
         void* cookie = blobmsg_open_table(buf, "t");
         blobmsg_add_string(buf, nullptr, "noname");
         blobmsg_close_table(buf, cookie);
     }},
    {"api_named_in_array",
     [](blob_buf* buf) {
         addArray(buf, "a", {{"named", "v"}});
     }},
    {"api_dup_names",
     [](blob_buf* buf) {
         blobmsg_add_string(buf, "a", "first");
         blobmsg_add_string(buf, "a", "second");
     }},
    {"api_long", [](blob_buf* buf) { blobmsg_add_string(buf, "long", std::string(300, 'x').c_str()); }},
    {"api_nan_inf",
     [](blob_buf* buf) {
         blobmsg_add_double(buf, "nan", NAN);
         blobmsg_add_double(buf, "inf", INFINITY);
     }},
    {"api_printf",
     [](blob_buf* buf) {
         blobmsg_add_string(buf, "p", "5-x");
         blobmsg_add_u32(buf, "q", 1);
     }},
};

} // namespace

TEST(BlobmsgVectors, BuildingGivesTheGoldenBytesAndFormattingThoseTheText)
{
    for (const VectorRecord& record : readVectorFile("blobmsg.txt")) {
        SCOPED_TRACE(record.text("name"));
        Buffer buf;
        if (record.has("json_in")) {
            bool accepted = blobmsg_add_json_from_string(buf.get(), record.text("json_in").c_str());
            EXPECT_EQ(accepted, record.has("hex"));
        } else {
            builders.at(record.text("name"))(buf.get());
        }
        if (!record.has("hex"))
            continue;
        EXPECT_EQ(buf.hex(), record.text("hex"));
        HeapCopy head(record.bytes("hex"));
        EXPECT_EQ(takeText(blobmsg_format_json(head.attr(), true)), record.text("json_out"));
        EXPECT_EQ(takeText(blobmsg_format_json_indent(head.attr(), true, 0)), record.jsonText("json_indent"));
    }
}

TEST(BlobmsgVectors, OneNamedAttributeThroughEveryFormat)
{
    for (const VectorRecord& record : readVectorFile("blobmsg_format.txt")) {
        SCOPED_TRACE(record.text("name"));
        HeapCopy copy(record.bytes("hex"));
        blob_attr* attr = copy.attr();
        EXPECT_EQ(takeText(blobmsg_format_json(attr, false)), record.text("list_false"));
        EXPECT_EQ(takeText(blobmsg_format_json(attr, true)), record.text("list_true"));
        EXPECT_EQ(takeText(blobmsg_format_json_value(attr)), record.text("value"));
        EXPECT_EQ(takeText(blobmsg_format_json_indent(attr, false, 0)), record.jsonText("list_false_indent0"));
        EXPECT_EQ(takeText(blobmsg_format_json_indent(attr, false, 1)), record.jsonText("list_false_indent1"));
    }
}

TEST(BlobmsgVectors, ParsingFindsTheGoldenOffsets)
{
    static const std::map<std::string, enum blobmsg_type> TYPES {
        {"UNSPEC", BLOBMSG_TYPE_UNSPEC},
        {"ARRAY", BLOBMSG_TYPE_ARRAY},
        {"STRING", BLOBMSG_TYPE_STRING},
        {"INT32", BLOBMSG_TYPE_INT32},
        {"CAST_INT64", BLOBMSG_CAST_INT64},
    };
    for (const VectorRecord& record : readVectorFile("blobmsg_parse.txt")) {
        SCOPED_TRACE(record.text("name"));
        std::deque<std::string> names; // which stay where they are
        std::vector<blobmsg_policy> policy;
        std::istringstream entries(record.text("policy"));
        for (std::string name, type; std::getline(entries, name, ':') && entries >> type; entries >> std::ws)
            policy.push_back({names.emplace_back(name).c_str(), TYPES.at(type)});
        Bytes bytes = record.bytes("data");
        HeapCopy copy(bytes);
        blob_attr stale{};
        std::vector<blob_attr*> found(policy.size(), &stale);
        EXPECT_EQ(blobmsg_parse(policy.data(), static_cast<int>(policy.size()), found.data(), copy.data(),
                                static_cast<unsigned>(bytes.size())),
                  std::stoi(record.text("rc")));
        std::string places;
        for (size_t i = 0; i < found.size(); ++i) {
            auto offset = reinterpret_cast<char*>(found[i]) - static_cast<char*>(copy.data());
            places += (i ? " " : "") + std::to_string(i) + "@" + (found[i] ? std::to_string(offset) : "none");
        }
        EXPECT_EQ(places, record.text("found"));
    }
}

TEST(Blobmsg, NamesAreRequiredOnlyWhereAskedAndNullMatchesNothing)
{
    const blobmsg_policy policy[] = {{nullptr, BLOBMSG_TYPE_UNSPEC}, {"n", BLOBMSG_TYPE_UNSPEC}};
    blob_attr* found[2];
    HeapCopy unnamed(bytesFromHex("8500000c0000000000000005"));
    EXPECT_EQ(blobmsg_parse(policy, 2, found, unnamed.data(), 12), 0);
    EXPECT_FALSE(found[0] || found[1]);
    EXPECT_EQ(blobmsg_parse(policy, 2, found, nullptr, 12), -22);
    EXPECT_TRUE(blobmsg_check_attr(unnamed.attr(), false));
    EXPECT_FALSE(blobmsg_check_attr(unnamed.attr(), true) || blobmsg_check_attr_len(unnamed.attr(), false, 11));
}

TEST(Blobmsg, CopiesWholePayloadsAndAddsToThem)
{
    Buffer from;
    blobmsg_add_string(from.get(), "action", "start");
    Buffer to;
    blobmsg_add_u32(to.get(), "n", 1);
    blobmsg_add_field(to.get(), BLOBMSG_TYPE_TABLE, "data", blob_data(from.head()),
                      static_cast<unsigned>(blob_len(from.head())));
    ASSERT_TRUE(blobmsg_add_json_from_string(to.get(), R"({"more":2})"));
    EXPECT_FALSE(blobmsg_add_json_from_string(to.get(), "null"));
    EXPECT_EQ(takeText(blobmsg_format_json(to.head(), true)), R"({"n":1,"data":{"action":"start"},"more":2})");
}
