// Arithmetic that saturates: results are those of 32-bit arithmetic wherever that does not overflow.
#pragma once

#include <stdint.h>

#include <algorithm>
#include <limits>

/// The nearest 32-bit integer. Any thread.
[[nodiscard]] constexpr int32_t saturated32(int64_t value)
{
    return static_cast<int32_t>(
        std::clamp<int64_t>(value, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()));
}
