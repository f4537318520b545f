// Blobmsg and its JSON: the golden data.
#include "ubox_test.h"

#include <deque>
#include <sstream>

TEST(BlobmsgVectors, BuildingGivesTheGoldenBytesAndFormattingThoseTheText)
{
    for (const VectorRecord& record : readVectorFile("blobmsg.txt")) {
        SCOPED_TRACE(record.at("name"));
        if (record.contains("json_in")) {
            Buffer buf;
            EXPECT_EQ(blobmsg_add_json_from_string(&buf, record.at("json_in").c_str()), record.contains("hex"));
            if (record.contains("hex")) {
                EXPECT_EQ(hex({reinterpret_cast<const uint8_t*>(buf.head), blob_raw_len(buf.head)}), record.at("hex"));
            }
        }
        if (!record.contains("hex"))
            continue;
        Bytes head = bytesFromHex(record.at("hex"));
        EXPECT_EQ(takeText(blobmsg_format_json(attrOf(head), true)), record.at("json_out"));
        EXPECT_EQ(takeText(blobmsg_format_json_indent(attrOf(head), true, 0)), jsonText(record.at("json_indent")));
    }
}

TEST(BlobmsgVectors, OneNamedAttributeThroughEveryFormat)
{
    for (const VectorRecord& record : readVectorFile("blobmsg_format.txt")) {
        SCOPED_TRACE(record.at("name"));
        Bytes copy = bytesFromHex(record.at("hex"));
        blob_attr* attr = attrOf(copy);
        EXPECT_EQ(takeText(blobmsg_format_json(attr, false)), record.at("list_false"));
        EXPECT_EQ(takeText(blobmsg_format_json(attr, true)), record.at("list_true"));
        EXPECT_EQ(takeText(blobmsg_format_json_value(attr)), record.at("value"));
        EXPECT_EQ(takeText(blobmsg_format_json_indent(attr, false, 0)), jsonText(record.at("list_false_indent0")));
        EXPECT_EQ(takeText(blobmsg_format_json_indent(attr, false, 1)), jsonText(record.at("list_false_indent1")));
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
        SCOPED_TRACE(record.at("name"));
        std::deque<std::string> names; // which stay where they are
        std::vector<blobmsg_policy> policy;
        std::istringstream entries(record.at("policy"));
        for (std::string name, type; std::getline(entries, name, ':') && entries >> type; entries >> std::ws)
            policy.push_back({names.emplace_back(name).c_str(), TYPES.at(type)});
        Bytes bytes = bytesFromHex(record.at("data"));
        blob_attr stale{};
        std::vector<blob_attr*> found(policy.size(), &stale);
        EXPECT_EQ(blobmsg_parse(policy.data(), static_cast<int>(policy.size()), found.data(), attrOf(bytes),
                                static_cast<unsigned>(bytes.size())),
                  std::stoi(record.at("rc")));
        std::string places;
        for (size_t i = 0; i < found.size(); ++i) {
            auto offset = reinterpret_cast<char*>(found[i]) - reinterpret_cast<char*>(attrOf(bytes));
            places += (i ? " " : "") + std::to_string(i) + "@" + (found[i] ? std::to_string(offset) : "none");
        }
        EXPECT_EQ(places, record.at("found"));
    }
}
