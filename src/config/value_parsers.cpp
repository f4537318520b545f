#include "config/value_parsers.h"

#include "core/log.h"
#include "core/numbers.h"

#include <stdlib.h>

#include <algorithm>
#include <limits>

namespace {

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

bool isPlain(char c)
{
    return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' || c == '.' || c == '_';
}

/// 0..15, or -1 for anything but a hexadecimal digit.
int hexValue(char c)
{
    if (isDigit(c))
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

/// Converts a whole text.
template <typename T, typename Convert>
int32_t convertWhole(const char* text, T* out, Convert convert)
{
    if (!text || !out)
        return -1;
    char* end = nullptr;
    const T value = convert(text, &end);
    if (*end != '\0') {
        LOG_AT(LOG_LEVEL_MISS, "error to strtod %s\n", text);
        return -1;
    }
    *out = value;
    return 0;
}

} // namespace

int32_t string_to_int(const char* text, int32_t* out)
{
    return convertWhole(text, out, [](const char* from, char** end) { return saturated32(strtoll(from, end, 10)); });
}

int32_t string_to_long_long(const char* text, int64_t* out)
{
    return convertWhole(text, out, [](const char* from, char** end) { return int64_t{strtoll(from, end, 10)}; });
}

int32_t string_to_float(const char* text, float* out)
{
    return convertWhole(text, out, [](const char* from, char** end) { return static_cast<float>(strtod(from, end)); });
}

int32_t string_to_int_list(const char* text, int32_t* out, int32_t capacity)
{
    if (!text || !out || capacity < 1)
        return -1;
    int32_t count = 0;
    bool inNumber = false;
    int64_t value = 0;
    out[0] = 0;
    for (const char* at = text; *at != '\0'; ++at) {
        if (isDigit(*at)) {
            value = std::min<int64_t>(value * 10 + (*at - '0'), std::numeric_limits<int32_t>::max());
            out[count] = static_cast<int32_t>(value);
            inNumber = true;
        } else if (*at == ',' && inNumber) {
            if (++count == capacity)
                return count;
            out[count] = 0;
            value = 0;
            inNumber = false;
        }
    }
    return inNumber ? count + 1 : count;
}

int32_t url_encode(const char* source, size_t length, char* out, size_t size)
{
    static const char digits[] = "0123456789ABCDEF";
    if (!source || !out || length > std::numeric_limits<int32_t>::max() / 3 || 3 * length >= size)
        return -1;
    size_t at = 0;
    for (size_t i = 0; i < length; ++i) {
        if (isPlain(source[i])) {
            out[at++] = source[i];
            continue;
        }
        const auto byte = static_cast<unsigned char>(source[i]);
        out[at++] = '%';
        out[at++] = digits[byte >> 4];
        out[at++] = digits[byte & 15];
    }
    out[at] = '\0';
    return static_cast<int32_t>(at);
}

size_t url_decode(char* buffer, size_t length)
{
    size_t to = 0;
    for (size_t from = 0; from < length; ++from, ++to) {
        if (buffer[from] == '%' && length - from > 2) {
            const int high = hexValue(buffer[from + 1]);
            const int low = hexValue(buffer[from + 2]);
            if (high >= 0 && low >= 0) {
                buffer[to] = static_cast<char>(high * 16 + low);
                from += 2;
                continue;
            }
        }
        buffer[to] = buffer[from];
    }
    buffer[to] = '\0';
    return to;
}
