#include <array>
#include <cstdio>

#include "libubus.h"

namespace {

constexpr std::array STATUS_TEXTS{
    "Success",
    "Invalid command",
    "Invalid argument",
    "Method not found",
    "Not found",
    "No response",
    "Permission denied",
    "Request timed out",
    "Operation not supported",
    "Unknown error",
    "Connection failed",
    "Out of memory",
    "Parsing message data failed",
    "System error",
};
static_assert(STATUS_TEXTS.size() == __UBUS_STATUS_LAST);

thread_local char unknownText[32];

} // namespace

const char* ubus_strerror(int error)
{
    if (error >= 0 && error < __UBUS_STATUS_LAST)
        return STATUS_TEXTS[static_cast<size_t>(error)];
    snprintf(unknownText, sizeof(unknownText), "Unknown error: %d", error);
    return unknownText;
}
