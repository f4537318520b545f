#include "config/json_helpers.h"
#include "config/value_parsers.h"

#include <gtest/gtest.h>
#include <json-c/json.h>

#include <string>
#include <vector>

namespace {

constexpr int32_t UNTOUCHED = -77;

TEST(ValueParsers, NumbersAreTakenWholeOrNotAtAll)
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
    } cases[] = {{"[\"3\",,\"-1\", 1 2]", 8, {3, 1, 12}},
                 {"1,2,3", 2, {1, 2}},
                 {"99999999999999999999", 1, {2147483647}},
                 {"[]", 8, {}},
                 {"", 8, {}}};
    for (const auto& one : cases) {
        std::vector<int32_t> values(static_cast<size_t>(one.capacity)); // exact, so that a write past it is found
        const int32_t count = string_to_int_list(one.text, values.data(), one.capacity);
        ASSERT_EQ(count, static_cast<int32_t>(one.values.size())) << one.text;
        values.resize(one.values.size());
        EXPECT_EQ(values, one.values) << one.text;
    }
    int32_t one = 0;
    EXPECT_EQ(string_to_int_list("1", &one, 0), -1);
}

TEST(ValueParsers, UrlsGoThereAndBack)
{
    char encoded[19];
    EXPECT_EQ(url_encode("a ~\n.", 6, encoded, sizeof(encoded)), 14); // with the text's own NUL
    EXPECT_STREQ(encoded, "a%20%7E%0A.%00");
    EXPECT_EQ(url_encode("a", 1, encoded, 3), -1) << "three bytes do not hold the longest encoding and its NUL";
    EXPECT_STREQ(encoded, "a%20%7E%0A.%00");
    EXPECT_EQ(url_decode(encoded, 14), 6u);
    EXPECT_EQ(std::string(encoded, 6), std::string("a ~\n.\0", 6));

    const struct {
        std::string text;
        size_t length; // of which this much is decoded
        std::string decoded;
    } cases[] = {{"%4a", 3, "J"},       {"%4", 2, "%4"},   {"%41", 2, "%4"}, {"%", 1, "%"},
                 {"%zz%41", 6, "%zzA"}, {"%%41", 4, "%A"}, {"%41", 1, "%"}};
    for (const auto& one : cases) {
        std::string buffer = one.text;
        buffer.resize(url_decode(buffer.data(), one.length));
        EXPECT_EQ(buffer, one.decoded) << one.text;
    }
}

TEST(ValueParsers, AnArraysTextsAreListed)
{
    for (const auto& [text, texts] : {std::pair{R"(["3", 1])", std::vector<std::string>{"3", "1"}}, {"[]", {}}}) {
        json_object* array = json_tokener_parse(text);
        const char** listed = nullptr;
        const int32_t count = json_array_to_strings(&listed, array);
        EXPECT_EQ(count, texts.empty() ? -1 : static_cast<int32_t>(texts.size()));
        EXPECT_EQ(texts, std::vector<std::string>(listed, listed + texts.size()));
        free(listed);
        json_object_put(array);
    }
}

} // namespace
