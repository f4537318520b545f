#include "command.h"

#include <cstdio>

extern "C" { // the header does not say so itself
#include <libubox/blobmsg_json.h>
}

namespace {

// A signature gives an argument's type as a number: here is what to print for it. Null prints the table around it.
const char* typeText(void*, blob_attr* attr)
{
    if (blobmsg_type(attr) == BLOBMSG_TYPE_TABLE)
        return nullptr;
    if (blobmsg_type(attr) != BLOBMSG_TYPE_INT32)
        return "\"(unknown)\"";
    switch (blobmsg_get_u32(attr)) {
    case BLOBMSG_TYPE_ARRAY:
        return "\"Array\"";
    case BLOBMSG_TYPE_TABLE:
        return "\"Table\"";
    case BLOBMSG_TYPE_STRING:
        return "\"String\"";
    case BLOBMSG_TYPE_INT32:
        return "\"Integer\"";
    case BLOBMSG_TYPE_BOOL:
        return "\"Boolean\"";
    default:
        return "\"(unknown)\"";
    }
}

void printName(ubus_context*, ubus_object_data* object, void*)
{
    printf("%s\n", object->path);
}

void printMethods(ubus_context*, ubus_object_data* object, void*)
{
    printf("'%s' @%08x\n", object->path, object->id);
    blob_attr* method = nullptr;
    size_t rest = 0;
    if (!object->signature)
        return;
    blob_for_each_attr (method, object->signature, rest) {
        if (!blobmsg_check_attr_len(method, true, rest))
            return;
        const Text line(blobmsg_format_json_with_cb(method, false, typeText, nullptr, -1));
        printf("\t%s\n", line ? line.get() : "");
    }
}

} // namespace

Outcome listObjects(ubus_context& bus, const Options& options, Arguments arguments)
{
    if (arguments.size() > 1)
        return {.wrongUse = true};
    const bool withMethods = options.verbose && !options.terse;
    const char* path = arguments.empty() ? nullptr : arguments[0];
    return {.status = ubus_lookup(&bus, path, withMethods ? printMethods : printName, nullptr)};
}
