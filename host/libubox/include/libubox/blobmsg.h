/* Named, typed attributes. Each is an extended blob attribute whose id is the type and whose payload starts with a name
 * header: length of the name in 2 bytes big-endian, the name, a NUL, zero padding to a multiple of 4.
 * Any thread; a buffer or attribute belongs to one thread at a time. */
#ifndef LIBUBOX_BLOBMSG_H
#define LIBUBOX_BLOBMSG_H

#include <libubox/blob.h>

enum blobmsg_type {
    BLOBMSG_TYPE_UNSPEC,
    BLOBMSG_TYPE_ARRAY,
    BLOBMSG_TYPE_TABLE,
    BLOBMSG_TYPE_STRING,
    BLOBMSG_TYPE_INT64,
    BLOBMSG_TYPE_INT32,
    BLOBMSG_TYPE_INT16,
    BLOBMSG_TYPE_INT8,
    BLOBMSG_TYPE_BOOL = BLOBMSG_TYPE_INT8,
    BLOBMSG_TYPE_DOUBLE,
    __BLOBMSG_TYPE_LAST,
    BLOBMSG_TYPE_LAST = __BLOBMSG_TYPE_LAST - 1,
    BLOBMSG_CAST_INT64 = __BLOBMSG_TYPE_LAST /* in policies only: any of the four integer types */
};

struct blobmsg_hdr {
    uint16_t namelen;
    uint8_t name[];
} __packed;

struct blobmsg_policy {
    const char* name;
    enum blobmsg_type type;
};

/* Length of the padded name header of a name of `namelen` characters. */
static inline int blobmsg_hdrlen(unsigned int namelen)
{
    return (int)((sizeof(struct blobmsg_hdr) + namelen + 1 + BLOB_ATTR_ALIGN - 1) & ~(BLOB_ATTR_ALIGN - 1u));
}

/* Only for extended attributes. */
static inline const char* blobmsg_name(const struct blob_attr* attr)
{
    return (const char*)((const struct blobmsg_hdr*)blob_data(attr))->name;
}

static inline int blobmsg_type(const struct blob_attr* attr)
{
    return (int)blob_id(attr);
}

/* The value behind the name header, at most the end of the payload, whatever a broken name header says; a non-extended
 * attribute's payload; null for null. */
static inline void* blobmsg_data(const struct blob_attr* attr)
{
    char* data;
    size_t header;

    if (!attr)
        return NULL;
    data = (char*)blob_data(attr);
    header = blob_is_extended(attr) ? sizeof(struct blobmsg_hdr) : 0;
    if (header > 0 && blob_len(attr) >= header)
        header = (size_t)blobmsg_hdrlen(be16_to_cpu(((struct blobmsg_hdr*)data)->namelen));
    return data + (header < blob_len(attr) ? header : blob_len(attr));
}

/* Length of the value without padding, a string's NUL included; 0 for null. */
static inline size_t blobmsg_data_len(const struct blob_attr* attr)
{
    return attr ? blob_len(attr) - (size_t)((char*)blobmsg_data(attr) - (char*)blob_data(attr)) : 0;
}

/* Whether one attribute is well formed; its length field is believed. With `name` it must have a name, too. The content
 * of arrays and tables is not looked at. */
bool blobmsg_check_attr(const struct blob_attr* attr, bool name);

/* The same, in memory of `len` bytes from the attribute on. */
bool blobmsg_check_attr_len(const struct blob_attr* attr, bool name, size_t len);

/* Looks for the fields of the policy in a run of attributes and stores what it finds, else null, in `tb`. 0 when it
 * reached the end, -22 for no data at all, -1 at the first malformed field, with what was found before it kept. */
int blobmsg_parse(const struct blobmsg_policy* policy, int policy_len, struct blob_attr** tb, void* data,
                  unsigned int len);

/* Adders return 0, or -1 when the buffer cannot grow. A null name is an empty one. */
int blobmsg_add_field(struct blob_buf* buf, int type, const char* name, const void* data, unsigned int len);

/* Opens a table or array; null when the buffer cannot grow. */
void* blobmsg_open_nested(struct blob_buf* buf, const char* name, bool array);

static inline int blobmsg_add_u8(struct blob_buf* buf, const char* name, uint8_t value)
{
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT8, name, &value, sizeof(value));
}

static inline int blobmsg_add_u32(struct blob_buf* buf, const char* name, uint32_t value)
{
    value = cpu_to_be32(value);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT32, name, &value, sizeof(value));
}

static inline int blobmsg_add_u64(struct blob_buf* buf, const char* name, uint64_t value)
{
    value = cpu_to_be64(value);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT64, name, &value, sizeof(value));
}

static inline int blobmsg_add_double(struct blob_buf* buf, const char* name, double value)
{
    uint64_t bits;

    memcpy(&bits, &value, sizeof(bits));
    bits = cpu_to_be64(bits);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_DOUBLE, name, &bits, sizeof(bits));
}

static inline int blobmsg_add_string(struct blob_buf* buf, const char* name, const char* text)
{
    return blobmsg_add_field(buf, BLOBMSG_TYPE_STRING, name, text, (unsigned int)strlen(text) + 1);
}

static inline void* blobmsg_open_array(struct blob_buf* buf, const char* name)
{
    return blobmsg_open_nested(buf, name, true);
}

static inline void* blobmsg_open_table(struct blob_buf* buf, const char* name)
{
    return blobmsg_open_nested(buf, name, false);
}

static inline void blobmsg_close_array(struct blob_buf* buf, void* cookie)
{
    blob_nest_end(buf, cookie);
}

static inline void blobmsg_close_table(struct blob_buf* buf, void* cookie)
{
    blob_nest_end(buf, cookie);
}

/* The readers below trust the attribute: it is of their type, as after blobmsg_parse with a policy. */
static inline uint8_t blobmsg_get_u8(const struct blob_attr* attr)
{
    return *(const uint8_t*)blobmsg_data(attr);
}

static inline bool blobmsg_get_bool(const struct blob_attr* attr)
{
    return blobmsg_get_u8(attr) != 0;
}

static inline uint16_t blobmsg_get_u16(const struct blob_attr* attr)
{
    uint16_t value;

    memcpy(&value, blobmsg_data(attr), sizeof(value));
    return be16_to_cpu(value);
}

static inline uint32_t blobmsg_get_u32(const struct blob_attr* attr)
{
    uint32_t value;

    memcpy(&value, blobmsg_data(attr), sizeof(value));
    return be32_to_cpu(value);
}

static inline uint64_t blobmsg_get_u64(const struct blob_attr* attr)
{
    uint64_t value;

    memcpy(&value, blobmsg_data(attr), sizeof(value));
    return be64_to_cpu(value);
}

static inline double blobmsg_get_double(const struct blob_attr* attr)
{
    uint64_t bits = blobmsg_get_u64(attr);
    double value;

    memcpy(&value, &bits, sizeof(value));
    return value;
}

/* Null for null. */
static inline char* blobmsg_get_string(const struct blob_attr* attr)
{
    return (char*)blobmsg_data(attr);
}

/* Any integer type widened; 0 for other types. */
static inline int64_t blobmsg_cast_s64(const struct blob_attr* attr)
{
    switch (blobmsg_type(attr)) {
    case BLOBMSG_TYPE_INT64:
        return (int64_t)blobmsg_get_u64(attr);
    case BLOBMSG_TYPE_INT32:
        return (int32_t)blobmsg_get_u32(attr);
    case BLOBMSG_TYPE_INT16:
        return (int16_t)blobmsg_get_u16(attr);
    case BLOBMSG_TYPE_INT8:
        return (int8_t)blobmsg_get_u8(attr);
    default:
        return 0;
    }
}

/* Walks over the children of an array, a table, or a head or message attribute; ends like blob_for_each_attr. */
#define blobmsg_for_each_attr(pos, attr, rem)                                                                          \
    for (rem = blobmsg_data_len(attr), pos = (struct blob_attr*)blobmsg_data(attr);                                    \
         rem >= sizeof(struct blob_attr) && blob_pad_len(pos) >= sizeof(struct blob_attr) && blob_pad_len(pos) <= rem; \
         rem -= blob_pad_len(pos), pos = blob_next(pos))

#endif
