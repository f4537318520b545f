#include "ubox.h"

#include <cstdint>
#include <limits>
#include <memory>

#include <json-c/json.h>

namespace {

struct PutJson {
    void operator()(json_object* object) const
    {
        json_object_put(object);
    }
};
using JsonHandle = std::unique_ptr<json_object, PutJson>;

bool addValue(blob_buf* buf, const char* name, json_object* value);

bool addMembers(blob_buf* buf, json_object* object)
{
    bool added = true;
    for (json_object_iterator at = json_object_iter_begin(object), end = json_object_iter_end(object);
         added && !json_object_iter_equal(&at, &end); json_object_iter_next(&at))
        added = addValue(buf, json_object_iter_peek_name(&at), json_object_iter_peek_value(&at));
    return added;
}

bool addElements(blob_buf* buf, json_object* array)
{
    bool added = true;
    size_t count = json_object_array_length(array);
    for (size_t i = 0; added && i < count; ++i)
        added = addValue(buf, nullptr, json_object_array_get_idx(array, i));
    return added;
}

bool addNested(blob_buf* buf, const char* name, json_object* value, bool array)
{
    void* cookie = blobmsg_open_nested(buf, name, array);
    if (!cookie)
        return false;
    bool added = array ? addElements(buf, value) : addMembers(buf, value);
    blob_nest_end(buf, cookie);
    return added;
}

int addInteger(blob_buf* buf, const char* name, int64_t value)
{
    if (value < std::numeric_limits<int32_t>::min() || value > std::numeric_limits<int32_t>::max())
        return blobmsg_add_u64(buf, name, static_cast<uint64_t>(value));
    return blobmsg_add_u32(buf, name, static_cast<uint32_t>(value));
}

// The parser refuses texts of more than 32 levels, which bounds the recursion.
bool addValue(blob_buf* buf, const char* name, json_object* value)
{
    switch (json_object_get_type(value)) {
    case json_type_null:
        return blobmsg_add_field(buf, BLOBMSG_TYPE_UNSPEC, name, nullptr, 0) == 0;
    case json_type_boolean:
        return blobmsg_add_u8(buf, name, json_object_get_boolean(value) ? 1 : 0) == 0;
    case json_type_double:
        return blobmsg_add_double(buf, name, json_object_get_double(value)) == 0;
    case json_type_int:
        return addInteger(buf, name, json_object_get_int64(value)) == 0;
    case json_type_string:
        return blobmsg_add_string(buf, name, json_object_get_string(value)) == 0;
    case json_type_array:
        return addNested(buf, name, value, true);
    case json_type_object:
        return addNested(buf, name, value, false);
    }
    return false;
}

} // namespace

bool blobmsg_add_json_from_string(blob_buf* buf, const char* text)
{
    JsonHandle object(json_tokener_parse(text));
    return json_object_is_type(object.get(), json_type_object) && addMembers(buf, object.get());
}
