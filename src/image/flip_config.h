// The image's flip, which inverts the direction of the axes.
#pragma once

#include "ubus/method_call.h"

#include <stdint.h>

/// Reads imageFlipType from storage. The text is compared over its own length only: a missing or empty one is "off",
/// and the beginning of a name counts as the name.
/// @return 0; -1, the type unchanged, when no name begins so. Thread: main; takes ConfigStoreLock.
[[nodiscard]] int32_t loadImageFlipConfig();

/// `updateImageConfig`: loads the flip type again.
UbusHandler ubusUpdateImageConfig;
