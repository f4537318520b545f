/* Binary attributes: a 4-byte big-endian word (bit 31 "extended", 7 bits id, 24 bits length with this word and without
 * padding), the payload, zero padding to a multiple of 4. A nested attribute's payload is a run of padded attributes.
 * Functions here may run on any thread; a buffer or attribute belongs to one thread at a time. */
#ifndef LIBUBOX_BLOB_H
#define LIBUBOX_BLOB_H

#include <stdarg.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <libubox/utils.h>

#define BLOB_COOKIE 0x01234567

#define BLOB_ATTR_ID_MASK 0x7f000000
#define BLOB_ATTR_ID_SHIFT 24
#define BLOB_ATTR_LEN_MASK 0x00ffffff
#define BLOB_ATTR_ALIGN 4
#define BLOB_ATTR_EXTENDED 0x80000000

struct blob_attr {
    uint32_t id_len;
    char data[];
} __packed;

/* Zero it once before the first blob_buf_init. `head` is the attribute being filled; `grow` makes the memory larger by
 * at least `required` bytes and is chosen by blob_buf_init when null. */
struct blob_buf {
    struct blob_attr* head;
    bool (*grow)(struct blob_buf* buf, int required);
    int buflen;
    void* buf;
};

static inline void* blob_data(const struct blob_attr* attr)
{
    return (void*)attr->data;
}

static inline unsigned int blob_id(const struct blob_attr* attr)
{
    return (be32_to_cpu(attr->id_len) & BLOB_ATTR_ID_MASK) >> BLOB_ATTR_ID_SHIFT;
}

static inline bool blob_is_extended(const struct blob_attr* attr)
{
    return (be32_to_cpu(attr->id_len) & BLOB_ATTR_EXTENDED) != 0;
}

/* Length with the header, without padding, in bytes. */
static inline size_t blob_raw_len(const struct blob_attr* attr)
{
    return be32_to_cpu(attr->id_len) & BLOB_ATTR_LEN_MASK;
}

/* Length of the payload in bytes; 0 for a length field that does not even cover the header. */
static inline size_t blob_len(const struct blob_attr* attr)
{
    size_t length = blob_raw_len(attr);

    return length < sizeof(struct blob_attr) ? 0 : length - sizeof(struct blob_attr);
}

/* Length with header and padding, in bytes. */
static inline size_t blob_pad_len(const struct blob_attr* attr)
{
    return (blob_raw_len(attr) + BLOB_ATTR_ALIGN - 1) & ~(size_t)(BLOB_ATTR_ALIGN - 1);
}

static inline struct blob_attr* blob_next(const struct blob_attr* attr)
{
    return (struct blob_attr*)((char*)attr + blob_pad_len(attr));
}

static inline uint8_t blob_get_u8(const struct blob_attr* attr)
{
    return (uint8_t)attr->data[0];
}

static inline uint32_t blob_get_u32(const struct blob_attr* attr)
{
    uint32_t value;

    memcpy(&value, attr->data, sizeof(value));
    return be32_to_cpu(value);
}

static inline const char* blob_get_string(const struct blob_attr* attr)
{
    return attr->data;
}

/* Starts a new empty head attribute with this id in the memory that the buffer has (256 zeroed bytes the first time).
 * Open nested attributes are given up. 0, or -12 without memory. */
int blob_buf_init(struct blob_buf* buf, int id);

/* Frees the memory and resets the buffer, which may be freed or initialised again. */
void blob_buf_free(struct blob_buf* buf);

/* Makes the memory `required` bytes larger, in steps of 256. False without memory, or past 16,777,215 bytes. The buffer
 * may move, so that pointers to attributes in it die; `head` is kept right. */
bool blob_buf_grow(struct blob_buf* buf, int required);

/* Appends an attribute. Null when the buffer cannot grow, like all that append here. */
struct blob_attr* blob_put(struct blob_buf* buf, int id, const void* data, unsigned int len);
struct blob_attr* blob_put_string(struct blob_buf* buf, int id, const char* text);
struct blob_attr* blob_put_u8(struct blob_buf* buf, int id, uint8_t value);
struct blob_attr* blob_put_u32(struct blob_buf* buf, int id, uint32_t value);

/* Opens a nested attribute, which becomes the head; null when the buffer cannot grow. */
void* blob_nest_start(struct blob_buf* buf, int id);
void blob_nest_end(struct blob_buf* buf, void* cookie);

/* Walks over the children of a plain attribute, which may be null; ends at the first that does not fit with its
 * padding. `rem` is a size_t. */
#define blob_for_each_attr(pos, attr, rem)                                                                             \
    for (rem = (attr) ? blob_len(attr) : 0, pos = (struct blob_attr*)((attr) ? blob_data(attr) : NULL);                \
         rem >= sizeof(struct blob_attr) && blob_pad_len(pos) >= sizeof(struct blob_attr) && blob_pad_len(pos) <= rem; \
         rem -= blob_pad_len(pos), pos = blob_next(pos))

#endif
