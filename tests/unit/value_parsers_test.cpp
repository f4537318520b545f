#include "config/json_helpers.h"
#include "config/value_parsers.h"

#include <gtest/gtest.h>
#include <json-c/json.h>

#include <string>
#include <vector>

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace {

constexpr int32_t UNTOUCHED = -77;

TEST(ValueParsers, IntegersAreTakenWholeOrNotAtAll)
{
    const struct {
        const char* text;
        int32_t result;
        int32_t value;
    } cases[] = {
        {"42", 0, 42},          {"-5", 0, -5},          {"", 0, 0},
        {" 7", 0, 7},           {"+3", 0, 3},           {"42 ", -1, UNTOUCHED},
        {"1e3", -1, UNTOUCHED}, {"abc", -1, UNTOUCHED}, {"99999999999", 0, 2147483647},
    };
    for (const auto& one : cases) {
        int32_t value = UNTOUCHED;
        EXPECT_EQ(string_to_int(one.text, &value), one.result) << one.text;
        EXPECT_EQ(value, one.value) << one.text;
    }
    EXPECT_EQ(string_to_int(nullptr, nullptr), -1);
    float value = -77;
    EXPECT_EQ(string_to_float("0.25", &value), 0);
    EXPECT_EQ(value, 0.25F);
    EXPECT_EQ(string_to_float("0,5", &value), -1);
    EXPECT_EQ(value, 0.25F);
    EXPECT_EQ(string_to_float("1", nullptr), -1);
}

TEST(ValueParsers, ListsKeepDigitsAndCommasOnly)
{
    const struct {
        const char* text;
        int32_t capacity;
        std::vector<int32_t> values;
    } cases[] = {{"[\"3\",,\"-1\", 1 2]", 8, {3, 1, 12}}, {"1,2,3", 2, {1, 2}}, {"[]", 8, {}}, {"", 8, {}}};
    for (const auto& one : cases) {
        std::vector<int32_t> values(static_cast<size_t>(one.capacity)); // exact, so that a write past it is found
        const int32_t count = string_to_int_list(one.text, values.data(), one.capacity);
        ASSERT_EQ(count, static_cast<int32_t>(one.values.size())) << one.text;
        values.resize(one.values.size());
        EXPECT_EQ(values, one.values) << one.text;
    }
    EXPECT_EQ(string_to_int_list("1", nullptr, 1), -1);
    int32_t one = 0;
    EXPECT_EQ(string_to_int_list("1", &one, 0), -1);
    EXPECT_EQ(string_to_int_list("99999999999999999999", &one, 1), 1);
    EXPECT_EQ(one, 2147483647);
}

TEST(ValueParsers, UrlsGoThereAndBack)
{
    char encoded[19];
    EXPECT_EQ(url_encode("a ~\n.", 6, encoded, sizeof(encoded)), 14); // with the text's own NUL: a%20%7E%0A.%00
    EXPECT_STREQ(encoded, "a%20%7E%0A.%00");
    EXPECT_EQ(url_decode(encoded, 14), 6u);
    EXPECT_EQ(std::string(encoded, 6), std::string("a ~\n.\0", 6));
    char untouched[4] = "xyz";
    EXPECT_EQ(url_encode("a", 1, untouched, 3), -1) << "three bytes do not hold the longest encoding and its NUL";
    EXPECT_STREQ(untouched, "xyz");

    const std::pair<std::string, std::string> cases[] = {
        {"%4a", "J"}, {"%4", "%4"}, {"%", "%"}, {"%zz%41", "%zzA"}, {"%%41", "%A"}};
    for (const auto& [text, decoded] : cases) {
        std::string buffer = text;
        buffer.resize(url_decode(buffer.data(), text.size()));
        EXPECT_EQ(buffer, decoded) << text;
    }
}

class JsonArguments : public testing::Test {
protected:
    blob_buf buffer{};

    void TearDown() override
    {
        blob_buf_free(&buffer);
    }
    /// The first member of a JSON object, as the attribute that a caller would have sent.
    blob_attr* argument(const char* json)
    {
        blob_buf_init(&buffer, 0);
        EXPECT_TRUE(blobmsg_add_json_from_string(&buffer, json));
        return static_cast<blob_attr*>(blob_data(buffer.head));
    }
};

TEST_F(JsonArguments, AnythingElseIsRefused)
{
    EXPECT_EQ(json_alloc_get_json_array_from_blobmsg_array(nullptr, "id"), nullptr);
    EXPECT_EQ(json_alloc_get_json_array_from_blobmsg_array(argument(R"({"id":{"a":1}})"), "id"), nullptr);
    EXPECT_EQ(json_alloc_get_json_array_from_blobmsg_array(argument(R"({"id":"3"})"), "a name much longer"), nullptr);
}

TEST_F(JsonArguments, AnArraysTextsAreListed)
{
    json_object* array = json_tokener_parse(R"(["3", 1])");
    const char** texts = nullptr;
    ASSERT_EQ(json_array_to_strings(&texts, array), 2);
    EXPECT_STREQ(texts[0], "3");
    EXPECT_STREQ(texts[1], "1");
    free(texts);
    json_object_put(array);
    array = json_tokener_parse("[]");
    EXPECT_EQ(json_array_to_strings(&texts, array), -1);
    EXPECT_EQ(texts, nullptr);
    json_object_put(array);
}

} // namespace
