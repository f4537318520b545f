/* Blobmsg from JSON text and to it. Any thread; a buffer or attribute belongs to one thread at a time. */
#ifndef LIBUBOX_BLOBMSG_JSON_H
#define LIBUBOX_BLOBMSG_JSON_H

#include <libubox/blobmsg.h>

/* Adds the members of a JSON object to what is in the buffer. False when the text does not parse, is no object, or the
 * buffer cannot grow. */
bool blobmsg_add_json_from_string(struct blob_buf* buf, const char* text);

/* May return a text to print in the place of the attribute's value, or null to have it printed as usual. The text must
 * live until the next call. */
typedef const char* (*blobmsg_json_format_t)(void* priv, struct blob_attr* attr);

/* JSON text of an attribute, to be freed with free(); null without memory. With `list` its children between brackets
 * (an array) or braces (anything else), without it the attribute with its name. Indent below 0: compact; else one line
 * a member, starting at that depth. */
char* blobmsg_format_json_with_cb(struct blob_attr* attr, bool list, blobmsg_json_format_t cb, void* priv, int indent);

/* Compact text of an attribute's value, without its name. */
char* blobmsg_format_json_value(struct blob_attr* attr);

static inline char* blobmsg_format_json(struct blob_attr* attr, bool list)
{
    return blobmsg_format_json_with_cb(attr, list, NULL, NULL, -1);
}

static inline char* blobmsg_format_json_indent(struct blob_attr* attr, bool list, int indent)
{
    return blobmsg_format_json_with_cb(attr, list, NULL, NULL, indent);
}

#endif
