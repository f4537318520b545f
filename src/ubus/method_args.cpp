#include "ubus/method_args.h"

#include "core/numbers.h"

#include <stdlib.h>

namespace {

constexpr int NESTING_MAX = 64;

/// What is left of an open container.
struct Level {
    blob_attr* next;
    size_t rest;
};

bool isContainer(const blob_attr* attribute)
{
    return blobmsg_type(attribute) == BLOBMSG_TYPE_ARRAY || blobmsg_type(attribute) == BLOBMSG_TYPE_TABLE;
}

Level opened(blob_attr* container)
{
    return {static_cast<blob_attr*>(blobmsg_data(container)), blobmsg_data_len(container)};
}

/// Whether a whole attribute follows, as the library's own loops see it.
bool hasNext(const Level& level)
{
    return level.rest >= sizeof(blob_attr) && blob_pad_len(level.next) <= level.rest &&
           blob_pad_len(level.next) >= sizeof(blob_attr);
}

} // namespace

bool nestedTooDeeply(blob_attr* argument)
{
    Level levels[NESTING_MAX] = {opened(argument)};
    for (int depth = 1; depth > 0;) {
        Level& level = levels[depth - 1];
        if (!hasNext(level)) {
            --depth;
            continue;
        }
        blob_attr* child = level.next;
        level.rest -= blob_pad_len(child);
        level.next = blob_next(child);
        if (!blobmsg_check_attr(child, false) || !isContainer(child))
            continue;
        if (depth == NESTING_MAX)
            return true;
        levels[depth++] = opened(child);
    }
    return false;
}

const char* textArg(const blob_attr* argument)
{
    return static_cast<const char*>(blobmsg_data(argument));
}

int32_t decimalArg(const blob_attr* argument)
{
    return saturated32(strtoll(textArg(argument), nullptr, 10)); // which saturates at its own limits
}
