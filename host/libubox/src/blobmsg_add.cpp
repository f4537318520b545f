#include "ubox.h"

#include <cstring>

namespace {

constexpr size_t MAX_NAME = UINT16_MAX;

// Appends a field with its header and name written and its value, of `length` bytes, not.
blob_attr* appendField(blob_buf* buf, int type, const char* name, size_t length)
{
    size_t nameLength = name ? strlen(name) : 0;
    if (nameLength > MAX_NAME || length > BLOB_ATTR_LEN_MASK)
        return nullptr;
    size_t headerLength = static_cast<size_t>(blobmsg_hdrlen(static_cast<unsigned>(nameLength)));
    blob_attr* attr = appendZeroed(buf, type, headerLength + length);
    if (!attr)
        return nullptr;
    attr->id_len |= cpu_to_be32(BLOB_ATTR_EXTENDED);
    auto* header = static_cast<blobmsg_hdr*>(blob_data(attr));
    header->namelen = cpu_to_be16(static_cast<uint16_t>(nameLength));
    if (nameLength > 0)
        memcpy(header->name, name, nameLength);
    return attr;
}

} // namespace

int blobmsg_add_field(blob_buf* buf, int type, const char* name, const void* data, unsigned int len)
{
    blob_attr* attr = appendField(buf, type, name, len);
    if (!attr)
        return -1;
    if (len > 0)
        memcpy(blobmsg_data(attr), data, len);
    return 0;
}

void* blobmsg_open_nested(blob_buf* buf, const char* name, bool array)
{
    // The parent's place is a distance from the start of the buffer, which may move.
    size_t parent = static_cast<size_t>(reinterpret_cast<char*>(buf->head) - static_cast<char*>(buf->buf));
    blob_attr* nested = appendField(buf, array ? BLOBMSG_TYPE_ARRAY : BLOBMSG_TYPE_TABLE, name, 0);
    if (!nested)
        return nullptr;
    buf->head = nested;
    return reinterpret_cast<void*>(parent + BLOB_COOKIE);
}
