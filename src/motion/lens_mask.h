// The lens mask: a tilt position beyond the normal limits that keeps the lens out of sight.
#pragma once

#include "ubus/method_call.h"

#include <stdint.h>

/// Reads from storage whether the mask is to be on: 1 or 0. Any thread; takes ConfigStoreLock.
[[nodiscard]] int32_t lensMaskWanted();

/// The tilt axis's mask position in absolute steps, the same under every image flip. Any thread, no lock.
[[nodiscard]] int32_t lensMaskTiltSteps();

/// `lensMask`: makes the head follow the stored switch, into the mask position, storing where it was, or back out to
/// the stored position. Takes MotionLock, MotionStateLock and ConfigStoreLock, one after the other.
UbusHandler ubusLensMask;
