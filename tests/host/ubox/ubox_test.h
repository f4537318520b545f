// What the tests of libubox and libubus share: the library's headers, a buffer that frees itself, texts.
#pragma once

#include "host_test.h"

extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/blobmsg_json.h>
#include <libubox/uloop.h>
}
#undef fallthrough

class Buffer {
public:
    // With the members of a JSON object.
    explicit Buffer(const char* json = "{}")
    {
        blob_buf_init(&buf_, 0);
        EXPECT_TRUE(blobmsg_add_json_from_string(&buf_, json));
    }
    ~Buffer()
    {
        blob_buf_free(&buf_);
    }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
    blob_buf* get()
    {
        return &buf_;
    }
    blob_attr* head()
    {
        return buf_.head;
    }

private:
    blob_buf buf_{};
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
