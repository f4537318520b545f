// The stored position of the head: saved after user motions, restored at start, returned to after tracking.
#pragma once

#include "core/context.h"
#include "core/result_code.h"
#include "ubus/bus_door.h"

#include <stdint.h>

inline constexpr int64_t SAVE_STEPS_NS = 10 * NS_PER_SECOND;
inline constexpr blobmsg_policy powerOffRecoverPolicy[] = {{"recover", BLOBMSG_TYPE_STRING}};

/// Arms or re-arms saveStepsTimer when power-off recovery is on, after a command of a user; allows saves again. Thread:
/// event loop; no lock.
void saveStepsArm();

/// Bars saves and disarms saveStepsTimer, before the head goes where it must not come back to. Called inside a
/// transaction of package ptzd: a save that looked at the head before, or looks at it from now on, has no effect.
/// @return false when they were barred already: then the head may stand there, and what is stored is to stay.
/// Thread: event loop.
[[nodiscard]] bool savesBar();

/// Allows saves again: while the mask is off every begin step of a command but the lens mask's does, and every command
/// of a user; a tour's does not, as it may leave one axis where it stands. Any thread; no lock.
void savesAllow();

/// Callback of saveStepsTimer, also called directly: stores both axes' positions when both stand still, and disarms the
/// timer; otherwise it changes nothing, and the timer tries again. It changes nothing while saves are barred either.
/// Any thread; takes ConfigStoreLock; hold neither motion lock.
void saveCurSteps(void* unused);

/// An axis's stored position in steps, or its home where none is stored or it is negative.
/// @return false when the option cannot be read. Any thread; takes ConfigStoreLock.
[[nodiscard]] bool storedOrHomeSteps(AxisIndex axis, int32_t& out);

/// Brings the head back to the stored position after tracking, and ends the tracking episode in any case; does nothing
/// when a user has moved the head since.
/// @return RESULT_OK once both axes are started or need not move; ERR_CALIBRATING while calibrating or while a motion
///         other than tracking runs, ERR_LENS_MASK, ERR_PANORAMA; ERR_DEVICE when an option is missing or a request
///         fails.
/// Thread: event loop; takes MotionStateLock and MotionLock, one after the other.
[[nodiscard]] ResultCode moveToLastPostion() EXCLUDES(gContext.motion.MotionStateLock, gContext.motion.MotionLock);

/// `setPowerOffRecover`: switches power-off recovery, `recover` "1" or "0", in memory and in storage.
UbusHandler ubusSetPowerOffRecover;
