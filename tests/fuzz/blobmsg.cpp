// Blobmsg: any bytes through checks, parsers and the JSON formatter, and JSON text to blobmsg and back.

#include "fuzz.h"

#include <memory>
#include <optional>

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace {

constexpr blobmsg_policy POLICY[] = {
    {"a", BLOBMSG_TYPE_UNSPEC}, {"b", BLOBMSG_TYPE_ARRAY}, {"c", BLOBMSG_TYPE_TABLE},    {"d", BLOBMSG_TYPE_STRING},
    {"e", BLOBMSG_TYPE_INT64},  {"f", BLOBMSG_TYPE_INT32}, {"g", BLOBMSG_TYPE_INT16},    {"h", BLOBMSG_TYPE_INT8},
    {"i", BLOBMSG_TYPE_DOUBLE}, {"j", BLOBMSG_CAST_INT64}, {nullptr, BLOBMSG_TYPE_INT8}, {"a", BLOBMSG_TYPE_STRING},
};
constexpr int POLICY_LENGTH = static_cast<int>(std::size(POLICY));

struct FreeText {
    void operator()(char* text) const
    {
        free(text);
    }
};
using OwnedText = std::unique_ptr<char, FreeText>;

std::string format(blob_attr* message)
{
    const OwnedText text(blobmsg_format_json(message, true));
    FUZZ_CHECK(text, "no text\n");
    return text.get();
}

/// Whether a member of a table at any depth has an empty name. It is shown without one, which is no JSON.
bool hasNameless(const blob_attr* container, bool table)
{
    const blob_attr* child = nullptr;
    size_t rest = 0;
    blobmsg_for_each_attr (child, container, rest) {
        const int type = blobmsg_type(child);
        if (table && *blobmsg_name(child) == '\0')
            return true;
        if ((type == BLOBMSG_TYPE_TABLE || type == BLOBMSG_TYPE_ARRAY) &&
            hasNameless(child, type == BLOBMSG_TYPE_TABLE))
            return true;
    }
    return false;
}

/// The text of the message that a text gives; none when the text gives no message, or one whose text is no JSON.
std::optional<std::string> through(const std::string& text)
{
    blob_buf buffer{};
    blob_buf_init(&buffer, 0);
    std::optional<std::string> result;
    if (blobmsg_add_json_from_string(&buffer, text.c_str()) && !hasNameless(buffer.head, true))
        result = format(buffer.head);
    blob_buf_free(&buffer);
    return result;
}

/// JSON has no words for what is no number.
bool isJson(const std::string& formatted)
{
    return formatted.find("inf") == formatted.npos && formatted.find("nan") == formatted.npos;
}

/// What a policy has found is of its type, and can be read.
uint64_t readFound(blob_attr* const* found)
{
    uint64_t sum = 0;
    for (int i = 0; i < POLICY_LENGTH; ++i) {
        if (!found[i])
            continue;
        const int type = blobmsg_type(found[i]);
        const bool integer = type >= BLOBMSG_TYPE_INT64 && type <= BLOBMSG_TYPE_INT8;
        FUZZ_CHECK(POLICY[i].type == BLOBMSG_TYPE_UNSPEC || static_cast<int>(POLICY[i].type) == type ||
                       (POLICY[i].type == BLOBMSG_CAST_INT64 && integer),
                   "entry %d: type %d\n", i, type);
        if (type == BLOBMSG_TYPE_STRING)
            sum += std::string_view(blobmsg_get_string(found[i])).size();
        if (integer)
            sum += static_cast<uint64_t>(blobmsg_cast_s64(found[i]));
        if (type == BLOBMSG_TYPE_DOUBLE)
            sum += blobmsg_get_double(found[i]) > 0 ? 1 : 0;
    }
    return sum;
}

const char* insteadOfNumbers(void*, blob_attr* attribute)
{
    return blobmsg_type(attribute) == BLOBMSG_TYPE_INT32 ? "0" : nullptr;
}

void anyBytes(Bytes bytes)
{
    // Exactly as long as it is, so that a byte read behind it is found.
    const size_t length = sizeof(blob_attr) + bytes.size();
    const std::unique_ptr<uint8_t[]> copy(new uint8_t[length]);
    auto* message = reinterpret_cast<blob_attr*>(copy.get());
    message->id_len = cpu_to_be32(static_cast<uint32_t>(length));
    std::copy(bytes.begin(), bytes.end(), copy.get() + sizeof(blob_attr));

    blob_attr* found[POLICY_LENGTH];
    (void)blobmsg_parse(POLICY, POLICY_LENGTH, found, blob_data(message), static_cast<unsigned>(blob_len(message)));
    const uint64_t sum = readFound(found);
    asm volatile("" : : "r"(sum)); // so that nothing of the reading is left out

    const std::string text = format(message);
    if (const auto again = through(text); again && isJson(*again))
        FUZZ_CHECK(through(*again) == again, "%s\n%s\n", text.c_str(), again->c_str());
    const OwnedText indented(blobmsg_format_json_indent(message, true, 0));
    const OwnedText instead(blobmsg_format_json_with_cb(message, true, insteadOfNumbers, nullptr, 3));
    FUZZ_CHECK(indented && instead, "no text\n");
    blob_attr* child = nullptr;
    size_t rest = 0;
    blob_for_each_attr (child, message, rest) {
        (void)blobmsg_check_attr_len(child, true, rest);
        if (!blobmsg_check_attr_len(child, false, rest))
            break;
        const OwnedText value(blobmsg_format_json_value(child));
        const OwnedText named(blobmsg_format_json(child, false));
        FUZZ_CHECK(value && named, "no text\n");
    }
}

void anyText(const std::string& text)
{
    const auto once = through(text);
    if (once && isJson(*once))
        FUZZ_CHECK(through(*once) == once, "%s\n%s\n", text.c_str(), once->c_str());
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input input(data, size);
    if (input.byte() % 2 == 0)
        anyBytes(input.rest());
    else
        anyText(asText(input.rest()).c_str());
    return 0;
}
