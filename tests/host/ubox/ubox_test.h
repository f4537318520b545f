// What the tests of libubox and libubus share: the library's headers, a buffer that frees itself, texts.
#pragma once

#include "host_test.h"

extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/blobmsg_json.h>
#include <libubox/uloop.h>
}
#undef fallthrough

struct Buffer : blob_buf {
    // With the members of a JSON object.
    explicit Buffer(const char* json = "{}") : blob_buf{}
    {
        blob_buf_init(this, 0);
        EXPECT_TRUE(blobmsg_add_json_from_string(this, json));
    }
    ~Buffer()
    {
        blob_buf_free(this);
    }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
};

// Bytes as an attribute: they end where their heap block does, so that AddressSanitizer sees every read past them.
inline blob_attr* attrOf(Bytes& bytes)
{
    return reinterpret_cast<blob_attr*>(bytes.data());
}

// Takes over a text of the library's.
inline std::string takeText(char* text)
{
    const std::string copy = text ? text : "(null)";
    free(text);
    return copy;
}

inline std::string jsonOf(blob_attr* msg)
{
    return takeText(blobmsg_format_json(msg, true));
}
