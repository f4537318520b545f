#include "config/json_helpers.h"

#include "core/log.h"
#include "core/owned.h"

#include <json-c/json.h>
#include <stdlib.h>
#include <string.h>

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace {

/// The member, or null; a member that is JSON null counts as missing.
json_object* memberOf(json_object* object, const char* key)
{
    json_object* value = nullptr;
    if (!object || !key || !json_object_is_type(object, json_type_object))
        return nullptr;
    return json_object_object_get_ex(object, key, &value) != 0 ? value : nullptr;
}

} // namespace

const char* json_get_string(json_object* object, const char* key)
{
    json_object* value = memberOf(object, key);
    return value ? json_object_get_string(value) : nullptr;
}

int32_t json_get_int(json_object* object, const char* key, int32_t* out)
{
    json_object* value = memberOf(object, key);
    if (!value || !out)
        return -1;
    *out = json_object_get_int(value);
    return 0;
}

int32_t json_array_to_strings(const char*** out, json_object* value)
{
    if (!out)
        return -1;
    *out = nullptr;
    if (!value || !json_object_is_type(value, json_type_array))
        return -1;
    const size_t count = json_object_array_length(value);
    if (count == 0 || count > INT32_MAX)
        return -1;
    auto** texts = static_cast<const char**>(calloc(count, sizeof(const char*)));
    if (!texts)
        return -1;
    for (size_t i = 0; i < count; ++i)
        texts[i] = json_object_get_string(json_object_array_get_idx(value, i));
    *out = texts;
    return static_cast<int32_t>(count);
}

json_object* json_alloc_get_json_array_from_blobmsg_array(blob_attr* attribute, const char* name)
{
    if (!attribute || !name)
        return nullptr;
    const Owned<char> text(blobmsg_format_json(attribute, false));
    const size_t skipped = strlen(name) + 3; // the quoted name and the colon in front of the array
    if (!text || strlen(text.get()) < skipped) {
        LOG_ERROR("get format string preset tokenlist\n");
        return nullptr;
    }
    json_object* value = json_tokener_parse(text.get() + skipped);
    if (!value || !json_object_is_type(value, json_type_array)) {
        LOG_ERROR("json tokener parse preset list error\n");
        json_object_put(value); // null is harmless
        return nullptr;
    }
    return value;
}
