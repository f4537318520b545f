// Turning the head to a preset.
#pragma once

#include "core/motion.h"
#include "core/result_code.h"
#include "motor/tour_motion.h"
#include "preset/preset_store.h"
#include "ubus/method_call.h"

#include <stdint.h>

#include <iterator>

inline constexpr blobmsg_policy gotoPresetPolicy[] = {
    {"id", BLOBMSG_TYPE_STRING},
    {"speed_pan", BLOBMSG_TYPE_STRING},
    {"speed_tilt", BLOBMSG_TYPE_STRING},
    {"speed_zoom", BLOBMSG_TYPE_STRING}, // taken and ignored
};
enum GotoPresetArg { GOTO_ID, GOTO_SPEED_PAN, GOTO_SPEED_TILT, GOTO_SPEED_ZOOM, GOTO_ARG_COUNT };
static_assert(std::size(gotoPresetPolicy) == GOTO_ARG_COUNT);

/// Starts the head toward a preset for a user, at the speed factors; returns once both axes are started.
/// @return RESULT_OK; ERR_DEVICE when a request fails or no enabled preset has the id.
/// Thread: event loop; takes PresetLock, MotionLock and MotionStateLock, one after the other.
[[nodiscard]] ResultCode presetMove(int32_t id)
    EXCLUDES(gContext.preset.PresetLock, gContext.motion.MotionLock, gContext.motion.MotionStateLock);

/// The same for a tour, which any command may overtake (motor/tour_motion.h). Thread: touring; locks as presetMove.
[[nodiscard]] TourMove presetTourMove(uint32_t ticket, int32_t id)
    EXCLUDES(gContext.preset.PresetLock, gContext.motion.MotionLock, gContext.motion.MotionStateLock);

/// The integer part of the axis's largest speed times its factor. Any thread; no lock.
[[nodiscard]] int32_t factoredSpeed(AxisIndex axis);

/// `gotoPreset`: to preset `id` at fractions of each axis's largest speed; without one, at full speed.
UbusHandler ubusGotoPreset;
