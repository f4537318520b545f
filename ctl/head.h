// The head as getStatus reports it.
#pragma once

#include "bus.h"

struct HeadNow {
    int32_t x; // coordinate units
    int32_t y;
    int32_t xSpeed; // 0 at rest, negative toward the lower coordinates
    int32_t ySpeed;
};

[[nodiscard]] constexpr bool moves(const HeadNow& head)
{
    return head.xSpeed != 0 || head.ySpeed != 0;
}

/// What a reply of getStatus says.
[[nodiscard]] HeadNow headIn(const Reply& reply);

/// Asks the daemon; what keeps it from answering ends the program.
[[nodiscard]] HeadNow readHead();
