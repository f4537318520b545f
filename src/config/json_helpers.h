// From a blobmsg array argument to JSON, and the members of JSON objects. Any thread; no lock.
#pragma once

#include <stdint.h>

struct blob_attr;
struct json_object;

/// A member's text, owned by the object; null when an argument or the member is missing or null.
[[nodiscard]] const char* json_get_string(json_object* object, const char* key);

/// A member as a 32-bit integer (json-c's conversion: saturating, text by its number).
/// @return 0; -1 when an argument or the member is missing. `out` is written on success only.
[[nodiscard]] int32_t json_get_int(json_object* object, const char* key, int32_t* out);

/// The texts of a JSON array's elements, which stay owned by the value; the caller frees the pointer array.
/// @return the number of elements; -1, with *out null, when an argument is missing, the value is no array, the array is
/// empty or memory is short.
[[nodiscard]] int32_t json_array_to_strings(const char*** out, json_object* value);

/// A blobmsg ARRAY argument as a JSON array, which the caller releases with json_object_put; null, logged, when it
/// cannot be formatted or is no array.
[[nodiscard]] json_object* json_alloc_get_json_array_from_blobmsg_array(blob_attr* attribute, const char* name);
