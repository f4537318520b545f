#include "ubus/method_args.h"

#include <stdlib.h>

#include <algorithm>
#include <limits>

int32_t decimalArg(const blob_attr* argument)
{
    const auto* text = static_cast<const char*>(blobmsg_data(argument));
    const long long value = strtoll(text, nullptr, 10); // saturates at its own limits
    return static_cast<int32_t>(
        std::clamp<long long>(value, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()));
}
