// The value parsers on any text: the sanitizers watch the ends of what they read and write.

#include "config/value_parsers.h"
#include "fuzz.h"

#include <string.h>

#include <vector>

namespace {

void urls(const std::string& text)
{
    std::vector<char> coded(3 * text.size() + 1);
    RIG_CHECK(url_encode(text.data(), text.size(), coded.data(), 3 * text.size()) == -1, "too small, and yet\n");
    const int32_t length = url_encode(text.data(), text.size(), coded.data(), coded.size());
    RIG_CHECK(length >= 0 && strlen(coded.data()) == static_cast<size_t>(length), "length %d\n", length);
    const size_t decoded = url_decode(coded.data(), static_cast<size_t>(length));
    RIG_CHECK(std::string(coded.data(), decoded) == text, "not what was encoded\n");
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input input(data, size);
    std::vector<int32_t> numbers(input.byte() % 12 + 1U); // its end is watched
    std::string bytes = asText(input.rest());
    const std::string text = bytes.c_str(); // up to its first NUL
    const int32_t count = string_to_int_list(text.c_str(), numbers.data(), static_cast<int32_t>(numbers.size()));
    RIG_CHECK(count >= 0 && static_cast<size_t>(count) <= numbers.size(), "%d numbers\n", count);
    urls(bytes);
    (void)url_decode(bytes.data(), bytes.size());
    return 0;
}
