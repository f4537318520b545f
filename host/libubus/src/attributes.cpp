#include "bus_client.h"

namespace {

enum class Kind { Unknown, Number, Byte, Text, Nested };

constexpr Kind KINDS[UBUS_ATTR_MAX] = {
    Kind::Unknown, // UNSPEC
    Kind::Number,  // STATUS
    Kind::Text,    // OBJPATH
    Kind::Number,  // OBJID
    Kind::Text,    // METHOD
    Kind::Number,  // OBJTYPE
    Kind::Nested,  // SIGNATURE
    Kind::Nested,  // DATA
    Kind::Number,  // TARGET
    Kind::Byte,    // ACTIVE
    Kind::Byte,    // NO_REPLY
    Kind::Nested,  // SUBSCRIBERS
    Kind::Text,    // USER
    Kind::Text,    // GROUP
};

bool isSound(const blob_attr* attr, Kind kind)
{
    size_t length = blob_len(attr);
    switch (kind) {
    case Kind::Unknown:
        return false;
    case Kind::Number:
        return length == sizeof(uint32_t);
    case Kind::Byte:
        return length == sizeof(uint8_t);
    case Kind::Text:
        return length > 0 && blob_get_string(attr)[length - 1] == 0;
    case Kind::Nested:
        return true;
    }
    return false;
}

} // namespace

WireFields readFields(const blob_attr* root)
{
    WireFields fields{};
    blob_attr* attr = nullptr;
    size_t rest = 0;
    blob_for_each_attr (attr, root, rest) {
        unsigned id = blob_id(attr);
        if (id < UBUS_ATTR_MAX && isSound(attr, KINDS[id]))
            fields.at[id] = attr;
    }
    return fields;
}
