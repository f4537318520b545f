// What the tests of libubox share: the library's headers, a buffer that frees itself, exact heap copies.
#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <gtest/gtest.h>

extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/blobmsg_json.h>
#include <libubox/uloop.h>
}
#undef fallthrough

#include "vector_file.h"

struct FreeMemory {
    void operator()(void* memory) const
    {
        free(memory);
    }
};

class Buffer {
public:
    explicit Buffer(int id = 0)
    {
        blob_buf_init(&buf_, id);
    }
    // With the members of a JSON object.
    explicit Buffer(const char* json) : Buffer()
    {
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
    std::string hex()
    {
        return hexFromBytes(buf_.head, blob_raw_len(buf_.head));
    }

private:
    blob_buf buf_{};
};

// A copy that ends exactly at the end of its heap block, so that AddressSanitizer sees every read past it.
class HeapCopy {
public:
    explicit HeapCopy(const Bytes& bytes) : memory_(malloc(bytes.size()))
    {
        if (!bytes.empty())
            memcpy(memory_.get(), bytes.data(), bytes.size());
    }
    void* data()
    {
        return memory_.get();
    }
    blob_attr* attr()
    {
        return static_cast<blob_attr*>(memory_.get());
    }

private:
    std::unique_ptr<void, FreeMemory> memory_;
};

// Takes over a text of the library's.
inline std::string takeText(char* text)
{
    std::unique_ptr<char, FreeMemory> owner(text);
    return text ? text : "(null)";
}

inline std::string jsonOf(blob_attr* msg)
{
    return takeText(blobmsg_format_json(msg, true));
}
