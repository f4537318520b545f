// Target tracking: motions that follow a target, from a point to which the head returns afterwards.
//
// Thread: event loop; the commands take MotionLock and MotionStateLock, one after the other, never both.
#pragma once

#include "core/context.h"
#include "core/result_code.h"
#include "ubus/method_call.h"

#include <stdint.h>

#include <atomic>

inline constexpr blobmsg_policy trackPolicy[] = {
    {"x_coord", BLOBMSG_TYPE_STRING},
    {"y_coord", BLOBMSG_TYPE_STRING},
    {"x_speed", BLOBMSG_TYPE_STRING},
    {"y_speed", BLOBMSG_TYPE_STRING},
};

/// Owner: motion/track.
struct TrackState {
    std::atomic<int32_t> targetTrackEnabled{0};
};

/// Starts both axes by a displacement, cut at the travel limits, each with a speed of its own. The first such motion
/// after one that was neither tracking nor a return stores the point of return.
///
/// @param dx, dy          coordinate units, image-flip sign not yet applied; any value
/// @param xSpeed, ySpeed  cut to 1..max_speed
/// @return RESULT_OK, or the first that applies: ERR_CALIBRATING, ERR_LENS_MASK, ERR_PANORAMA while busy; ERR_DEVICE
///         when a request fails; ERR_CALIBRATING while an axis runs; ERR_NO_TRAVEL (all but a failing move request
///         leave the head alone)
[[nodiscard]] ResultCode trackTarget(int32_t dx, int32_t dy, int32_t xSpeed, int32_t ySpeed);

/// Brings the head back to the stored position after tracking, and ends the tracking episode in any case; does nothing
/// when a user has moved the head since.
/// @return RESULT_OK once both axes are started or need not move; ERR_CALIBRATING while calibrating or while a motion
///         other than tracking runs, ERR_LENS_MASK, ERR_PANORAMA; ERR_DEVICE when an option is missing or a request
///         fails.
/// Thread: event loop.
[[nodiscard]] ResultCode moveToLastPostion();

/// Reads targetTrackEnabled from storage; a missing option switches it off. Takes ConfigStoreLock.
void loadTargetTrackConfig();

/// `targetTrack`; `targetTrackBack`, which returns the head; `reloadTargetTrackConfig`, which does so when tracking has
/// just been switched off.
UbusHandler ubusTargetTrack;
UbusHandler ubusTargetTrackBack;
UbusHandler ubusReloadTargetTrackConfig;
