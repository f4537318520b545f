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
    RIG_CHECK(text, "no text\n");
    return text.get();
}

/// The text of the message that a text gives; none when the text gives no message.
std::optional<std::string> through(const std::string& text)
{
    blob_buf buffer{};
    blob_buf_init(&buffer, 0);
    std::optional<std::string> result;
    if (blobmsg_add_json_from_string(&buffer, text.c_str()))
        result = format(buffer.head);
    blob_buf_free(&buffer);
    return result;
}

/// A text comes back the same, unless it is no JSON: members without a name and what is no number have no form there.
void anyText(const std::string& text)
{
    if (const auto once = through(text)) {
        const auto twice = through(*once);
        RIG_CHECK(!twice || twice == once, "%s\n%s\n", text.c_str(), once->c_str());
    }
}

/// What a policy has found is of its type, and can be read.
void checkFound(blob_attr* const* found)
{
    for (int i = 0; i < POLICY_LENGTH; ++i) {
        if (!found[i])
            continue;
        const int type = blobmsg_type(found[i]);
        RIG_CHECK(POLICY[i].type == BLOBMSG_TYPE_UNSPEC || static_cast<int>(POLICY[i].type) == type ||
                      (POLICY[i].type == BLOBMSG_CAST_INT64 && type >= BLOBMSG_TYPE_INT64 && type <= BLOBMSG_TYPE_INT8),
                  "entry %d: type %d\n", i, type);
        RIG_CHECK(OwnedText(blobmsg_format_json_value(found[i])), "no text\n");
    }
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
    checkFound(found);
    anyText(format(message));
    const OwnedText indented(blobmsg_format_json_indent(message, true, 0));
    RIG_CHECK(indented, "no text\n");
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
