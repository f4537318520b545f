// The value parsers and the JSON helpers, each against what it promises.

#include "config/json_helpers.h"
#include "config/value_parsers.h"
#include "fuzz.h"

#include <json-c/json.h>
#include <string.h>

#include <memory>
#include <vector>

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace {

constexpr int32_t UNTOUCHED = 0x5A5A5A5A;

struct ReleaseJson {
    void operator()(json_object* value) const
    {
        json_object_put(value);
    }
};
using OwnedJson = std::unique_ptr<json_object, ReleaseJson>;

/// The whole text is blanks, a sign and digits, or empty.
bool isDecimal(const std::string& text)
{
    if (text.empty())
        return true;
    const size_t sign = text.find_first_not_of(" \t\n\v\f\r");
    if (sign == text.npos)
        return false;
    const size_t digits = sign + (text[sign] == '-' || text[sign] == '+' ? 1 : 0);
    return digits < text.size() && text.find_first_not_of("0123456789", digits) == text.npos;
}

void numbers(const std::string& text)
{
    int32_t integer = UNTOUCHED;
    const int32_t result = string_to_int(text.c_str(), &integer);
    RIG_CHECK((result == 0) == isDecimal(text), "%d\n", result);
    RIG_CHECK(result == 0 || (result == -1 && integer == UNTOUCHED), "%d\n", result);
    float real = 0;
    RIG_CHECK(string_to_float(text.c_str(), &real) == 0 || real == 0, "written on failure\n");
}

/// The numbers of a list, found the slow way: what remains of each part between commas when all but digits go.
std::vector<int32_t> listed(const std::string& text)
{
    std::vector<int32_t> found;
    std::string digits;
    for (const char c : text + ",") {
        if (c >= '0' && c <= '9')
            digits += c;
        if (c != ',' || digits.empty())
            continue;
        digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size() - 1));
        const bool large = digits.size() > 10 || (digits.size() == 10 && digits > "2147483647");
        found.push_back(large ? 2147483647 : static_cast<int32_t>(std::stol(digits)));
        digits.clear();
    }
    return found;
}

void lists(const std::string& text, int32_t capacity)
{
    std::vector<int32_t> out(static_cast<size_t>(capacity), UNTOUCHED); // its end is watched
    std::vector<int32_t> expected = listed(text);
    expected.resize(std::min(expected.size(), out.size()));
    const int32_t count = string_to_int_list(text.c_str(), out.data(), capacity);
    RIG_CHECK(count == static_cast<int32_t>(expected.size()), "%d of %zu\n", count, expected.size());
    RIG_CHECK(std::equal(expected.begin(), expected.end(), out.begin()), "another number\n");
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
    RIG_CHECK(url_decode(any.data(), text.size()) <= text.size() && any[url_decode(any.data(), 0)] == 0, "longer\n");
}

void members(json_object* value)
{
    int32_t number = UNTOUCHED;
    const char* text = json_get_string(value, "key");
    const int32_t result = json_get_int(value, "key", &number);
    RIG_CHECK((text != nullptr) == (result == 0), "there and not there\n");
    RIG_CHECK(result == 0 || number == UNTOUCHED, "written on failure\n");
    const char** texts = nullptr;
    const int32_t count = json_array_to_strings(&texts, value);
    RIG_CHECK((count > 0) == (texts != nullptr), "%d\n", count);
    for (int32_t i = 0; i < count; ++i)
        RIG_CHECK(!texts[i] || strlen(texts[i]) + 1 > 0, "no text\n"); // read to its end
    free(texts);
}

/// The array argument of a message, through its text.
void arrays(const std::string& json)
{
    blob_buf buffer{};
    blob_buf_init(&buffer, 0);
    const bool added = blobmsg_add_json_from_string(&buffer, json.c_str());
    blob_attr* attribute = nullptr;
    size_t rest = 0;
    blob_for_each_attr (attribute, buffer.head, rest) {
        const OwnedJson array(json_alloc_get_json_array_from_blobmsg_array(attribute, blobmsg_name(attribute)));
        RIG_CHECK(!array || json_object_is_type(array.get(), json_type_array), "no array\n");
        members(array.get());
        const OwnedJson other(json_alloc_get_json_array_from_blobmsg_array(attribute, "another name"));
    }
    blob_buf_free(&buffer);
    const OwnedJson value(json_tokener_parse(json.c_str()));
    RIG_CHECK(!added || value, "a message of no JSON\n");
    members(value.get());
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input input(data, size);
    const int32_t capacity = input.byte() % 12 + 1;
    const std::string bytes = asText(input.rest());
    const std::string text = bytes.c_str(); // up to its first NUL
    numbers(text);
    lists(text, capacity);
    urls(bytes);
    arrays(text);
    return 0;
}
