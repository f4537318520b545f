#include "ubox.h"

#include <algorithm>
#include <cerrno>
#include <string_view>

namespace {

bool nameIsSound(const blob_attr* attr, bool required)
{
    if (!blob_is_extended(attr))
        return !required;
    size_t payload = blob_len(attr);
    if (payload < sizeof(blobmsg_hdr))
        return false;
    const auto* header = static_cast<const blobmsg_hdr*>(blob_data(attr));
    unsigned length = be16_to_cpu(header->namelen);
    if (static_cast<size_t>(blobmsg_hdrlen(length)) > payload)
        return false;
    return header->name[length] == 0 && (length > 0 || !required);
}

bool valueIsSound(const blob_attr* attr)
{
    size_t length = blobmsg_data_len(attr);
    switch (blobmsg_type(attr)) {
    case BLOBMSG_TYPE_UNSPEC:
    case BLOBMSG_TYPE_ARRAY:
    case BLOBMSG_TYPE_TABLE:
        return true;
    case BLOBMSG_TYPE_STRING:
        return length > 0 && blobmsg_get_string(attr)[length - 1] == 0;
    case BLOBMSG_TYPE_INT64:
        return length == 8;
    case BLOBMSG_TYPE_INT32:
        return length == 4;
    case BLOBMSG_TYPE_INT16:
        return length == 2;
    case BLOBMSG_TYPE_INT8:
        return length == 1;
    case BLOBMSG_TYPE_DOUBLE:
        return length >= 8;
    default:
        return false;
    }
}

bool isInteger(int type)
{
    return type >= BLOBMSG_TYPE_INT64 && type <= BLOBMSG_TYPE_INT8;
}

bool takesType(const blobmsg_policy& entry, int type)
{
    return entry.type == BLOBMSG_TYPE_UNSPEC || static_cast<int>(entry.type) == type ||
           (entry.type == BLOBMSG_CAST_INT64 && isInteger(type));
}

} // namespace

bool blobmsg_check_attr_len(const blob_attr* attr, bool name, size_t len)
{
    if (len < sizeof(blob_attr) || blob_raw_len(attr) < sizeof(blob_attr) || blob_raw_len(attr) > len)
        return false;
    return nameIsSound(attr, name) && valueIsSound(attr);
}

bool blobmsg_check_attr(const blob_attr* attr, bool name)
{
    return blobmsg_check_attr_len(attr, name, blob_raw_len(attr));
}

int blobmsg_parse(const blobmsg_policy* policy, int policy_len, blob_attr** tb, void* data, unsigned int len)
{
    std::fill_n(tb, policy_len, nullptr);
    if (!data || len == 0)
        return -EINVAL;
    size_t rest = len;
    for (auto* attr = static_cast<blob_attr*>(data); attrFits(attr, rest); attr = nextAttr(attr, rest)) {
        if (!blobmsg_check_attr_len(attr, false, rest))
            return -1;
        if (!blob_is_extended(attr))
            continue;
        const auto* header = static_cast<const blobmsg_hdr*>(blob_data(attr));
        std::string_view name(blobmsg_name(attr), be16_to_cpu(header->namelen));
        for (int i = 0; i < policy_len; ++i) {
            if (!tb[i] && policy[i].name && takesType(policy[i], blobmsg_type(attr)) && name == policy[i].name &&
                !name.empty())
                tb[i] = attr;
        }
    }
    return 0;
}
