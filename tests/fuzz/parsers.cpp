// The value parsers and the JSON helpers on any text: the sanitizers watch the ends of what they read and write.

#include "config/json_helpers.h"
#include "config/value_parsers.h"
#include "fuzz.h"

#include <json-c/json.h>
#include <string.h>

#include <vector>

namespace {

constexpr int32_t UNTOUCHED = 0x5A5A5A5A;

void numbers(const std::string& text, int32_t capacity)
{
    int32_t integer = UNTOUCHED;
    RIG_CHECK(string_to_int(text.c_str(), &integer) == 0 || integer == UNTOUCHED, "written on failure\n");
    float real = 0;
    RIG_CHECK(string_to_float(text.c_str(), &real) == 0 || real == 0, "written on failure\n");
    std::vector<int32_t> out(static_cast<size_t>(capacity));
    const int32_t count = string_to_int_list(text.c_str(), out.data(), capacity);
    RIG_CHECK(count >= 0 && count <= capacity, "%d numbers\n", count);
}

void urls(const std::string& text)
{
    std::vector<char> coded(3 * text.size() + 1);
    RIG_CHECK(url_encode(text.data(), text.size(), coded.data(), 3 * text.size()) == -1, "too small, and yet\n");
    const int32_t length = url_encode(text.data(), text.size(), coded.data(), coded.size());
    RIG_CHECK(length >= 0 && strlen(coded.data()) == static_cast<size_t>(length), "length %d\n", length);
    const size_t decoded = url_decode(coded.data(), static_cast<size_t>(length));
    RIG_CHECK(std::string(coded.data(), decoded) == text, "not what was encoded\n");
    std::vector<char> any(text.c_str(), text.c_str() + text.size() + 1);
    RIG_CHECK(url_decode(any.data(), text.size()) <= text.size(), "longer\n");
}

void members(const std::string& json)
{
    json_object* value = json_tokener_parse(json.c_str());
    int32_t number = UNTOUCHED;
    const bool there = json_get_string(value, "key") != nullptr;
    RIG_CHECK(there == (json_get_int(value, "key", &number) == 0), "there and not there\n");
    RIG_CHECK(there || number == UNTOUCHED, "written on failure\n");
    const char** texts = nullptr;
    const int32_t count = json_array_to_strings(&texts, value);
    RIG_CHECK((count > 0) == (texts != nullptr), "%d\n", count);
    free(texts);
    json_object_put(value);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input input(data, size);
    const int32_t capacity = input.byte() % 12 + 1;
    const std::string bytes = asText(input.rest());
    const std::string text = bytes.c_str(); // up to its first NUL
    numbers(text, capacity);
    urls(bytes);
    members(text);
    return 0;
}
