// The value parsers at their edges; tests/fuzz/parsers.cpp holds any text against what they promise.

#include "config/value_parsers.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

TEST(ValueParsers, NumbersAreTakenWholeOrNotAtAll)
{
    constexpr int32_t UNTOUCHED = -77;
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
    float value = -77;
    EXPECT_EQ(string_to_float("0.25", &value), 0);
    EXPECT_EQ(string_to_float("0,5", &value), -1);
    EXPECT_EQ(value, 0.25F);
}

TEST(ValueParsers, ListsKeepDigitsAndCommasOnly)
{
    const std::pair<const char*, std::vector<int32_t>> cases[] = {{"[\"3\",,\"-1\", 1 2]", {3, 1, 12}},
                                                                  {"1,2,3,4", {1, 2, 3}},
                                                                  {"99999999999999999999", {2147483647}},
                                                                  {"[]", {}}};
    for (const auto& [text, expected] : cases) {
        std::vector<int32_t> values(3); // exact, so that a write past it is found
        const int32_t count = string_to_int_list(text, values.data(), 3);
        values.resize(static_cast<size_t>(count));
        EXPECT_EQ(values, expected) << text;
    }
}

TEST(ValueParsers, UrlsAreDecodedUpToTheirLengthAndEncodedWhereThereIsRoom)
{
    char encoded[19];
    EXPECT_EQ(url_encode("a ~\n.", 6, encoded, sizeof(encoded)), 14); // with the text's own NUL
    EXPECT_STREQ(encoded, "a%20%7E%0A.%00");
    EXPECT_EQ(url_encode("a", 1, encoded, 3), -1) << "three bytes do not hold the longest encoding and its NUL";
    const struct {
        std::string text;
        size_t length;
        std::string decoded;
    } cases[] = {{"%4a", 3, "J"}, {"%41", 2, "%4"}, {"%41", 1, "%"}, {"%zz%41", 6, "%zzA"}, {"%%41", 4, "%A"}};
    for (const auto& one : cases) {
        std::string buffer = one.text;
        buffer.resize(url_decode(buffer.data(), one.length));
        EXPECT_EQ(buffer, one.decoded) << one.text;
    }
}

} // namespace
