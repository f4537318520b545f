// The library's public headers, which have no C linkage of their own, and what its sources share.
#pragma once

extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/blobmsg_json.h>
#include <libubox/uloop.h>
#include <libubox/utils.h>
}
#undef fallthrough

// Appends an attribute of `payload` zero bytes; null when the buffer cannot grow.
blob_attr* appendZeroed(blob_buf* buf, int id, size_t payload);

// Whether an attribute of a run lies, with its padding, wholly within the `rest` bytes that are left of the run.
inline bool attrFits(const blob_attr* attr, size_t rest)
{
    return rest >= sizeof(blob_attr) && blob_pad_len(attr) >= sizeof(blob_attr) && blob_pad_len(attr) <= rest;
}

// The attribute behind one of a run, of which `rest` bytes were left.
inline blob_attr* nextAttr(blob_attr* attr, size_t& rest)
{
    rest -= blob_pad_len(attr);
    return blob_next(attr);
}
