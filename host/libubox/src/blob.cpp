#include "ubox.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t GROWTH_STEP = 256;
constexpr size_t MAX_BUFFER = BLOB_ATTR_LEN_MASK;

constexpr size_t padded(size_t length)
{
    return (length + BLOB_ATTR_ALIGN - 1) & ~size_t{BLOB_ATTR_ALIGN - 1};
}

size_t offsetOf(const blob_buf* buf, const void* place)
{
    return static_cast<size_t>(static_cast<const char*>(place) - static_cast<const char*>(buf->buf));
}

blob_attr* attrAt(const blob_buf* buf, size_t offset)
{
    return reinterpret_cast<blob_attr*>(static_cast<char*>(buf->buf) + offset);
}

void setRawLength(blob_attr* attr, size_t length)
{
    uint32_t word = be32_to_cpu(attr->id_len) & ~static_cast<uint32_t>(BLOB_ATTR_LEN_MASK);
    attr->id_len = cpu_to_be32(word | static_cast<uint32_t>(length));
}

bool growOnHeap(blob_buf* buf, int required)
{
    size_t old = static_cast<size_t>(buf->buflen);
    size_t wanted = (old + static_cast<size_t>(required) + GROWTH_STEP - 1) / GROWTH_STEP * GROWTH_STEP;
    wanted = std::min(wanted, MAX_BUFFER);

    auto* memory = static_cast<char*>(realloc(buf->buf, wanted));
    if (!memory)
        return false;
    memset(memory + old, 0, wanted - old);
    buf->buf = memory;
    buf->buflen = static_cast<int>(wanted);
    return true;
}

// Makes room for `length` more bytes, a multiple of 4, at the end of the head attribute and gives their address.
char* extendHead(blob_buf* buf, size_t length)
{
    size_t end = offsetOf(buf, buf->head) + blob_pad_len(buf->head);
    if (length > MAX_BUFFER || end + length > MAX_BUFFER)
        return nullptr;
    size_t have = static_cast<size_t>(buf->buflen);
    if (end + length > have && !blob_buf_grow(buf, static_cast<int>(end + length - have)))
        return nullptr;
    setRawLength(buf->head, blob_pad_len(buf->head) + length);
    return static_cast<char*>(buf->buf) + end;
}

// Appends an attribute with its header and zero padding written and its payload not.
blob_attr* appendAttr(blob_buf* buf, int id, size_t payload)
{
    size_t length = sizeof(blob_attr) + payload;
    char* place = payload > MAX_BUFFER ? nullptr : extendHead(buf, padded(length));
    if (!place)
        return nullptr;
    auto* attr = reinterpret_cast<blob_attr*>(place);
    attr->id_len = cpu_to_be32((static_cast<uint32_t>(id) << BLOB_ATTR_ID_SHIFT & BLOB_ATTR_ID_MASK) |
                               static_cast<uint32_t>(length));
    memset(place + length, 0, padded(length) - length);
    return attr;
}

} // namespace

bool blob_buf_grow(blob_buf* buf, int required)
{
    if (required < 0 || static_cast<size_t>(buf->buflen) + static_cast<size_t>(required) > MAX_BUFFER)
        return false;
    size_t head = buf->head ? offsetOf(buf, buf->head) : 0;
    if (!buf->grow || !buf->grow(buf, required))
        return false;
    buf->head = attrAt(buf, head);
    return true;
}

int blob_buf_init(blob_buf* buf, int id)
{
    if (!buf->grow)
        buf->grow = growOnHeap;
    buf->head = static_cast<blob_attr*>(buf->buf);
    if (static_cast<size_t>(buf->buflen) < sizeof(blob_attr) && !blob_buf_grow(buf, sizeof(blob_attr)))
        return -ENOMEM;
    buf->head->id_len = cpu_to_be32((static_cast<uint32_t>(id) << BLOB_ATTR_ID_SHIFT & BLOB_ATTR_ID_MASK) |
                                    static_cast<uint32_t>(sizeof(blob_attr)));
    return 0;
}

void blob_buf_free(blob_buf* buf)
{
    free(buf->buf);
    buf->buf = nullptr;
    buf->head = nullptr;
    buf->buflen = 0;
}

blob_attr* appendZeroed(blob_buf* buf, int id, size_t payload)
{
    blob_attr* attr = appendAttr(buf, id, payload);
    if (attr)
        memset(attr->data, 0, payload);
    return attr;
}

blob_attr* blob_put(blob_buf* buf, int id, const void* data, unsigned int len)
{
    blob_attr* attr = appendAttr(buf, id, len);
    if (attr && len > 0)
        memcpy(attr->data, data, len);
    return attr;
}

blob_attr* blob_put_string(blob_buf* buf, int id, const char* text)
{
    return blob_put(buf, id, text, static_cast<unsigned>(strlen(text)) + 1);
}

blob_attr* blob_put_u8(blob_buf* buf, int id, uint8_t value)
{
    return blob_put(buf, id, &value, sizeof(value));
}

blob_attr* blob_put_u32(blob_buf* buf, int id, uint32_t value)
{
    value = cpu_to_be32(value);
    return blob_put(buf, id, &value, sizeof(value));
}

void* blob_nest_start(blob_buf* buf, int id)
{
    size_t parent = offsetOf(buf, buf->head);
    blob_attr* nested = appendAttr(buf, id, 0);
    if (!nested)
        return nullptr;
    buf->head = nested;
    return reinterpret_cast<void*>(parent + BLOB_COOKIE);
}

void blob_nest_end(blob_buf* buf, void* cookie)
{
    blob_attr* parent = attrAt(buf, reinterpret_cast<uintptr_t>(cookie) - BLOB_COOKIE);
    size_t end = offsetOf(buf, buf->head) + blob_pad_len(buf->head);

    setRawLength(parent, end - offsetOf(buf, parent));
    buf->head = parent;
}
