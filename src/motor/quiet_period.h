// The quiet periods after a motion, at whose end the tour may move the head again.
#pragma once

#include "core/motion.h"
#include "core/timer.h"

#include <stdint.h>

inline constexpr int64_t USR_MOVE_STOP_NS = 60 * NS_PER_SECOND;
inline constexpr int64_t SCAN_MOVE_STOP_NS = 15 * NS_PER_SECOND;

/// Starts them for a head that has come to rest: the user's while user_moved_recently is set, the scan's while
/// scanStepDone is not.
void quietPeriodsStart() REQUIRES(gContext.motion.MotionStateLock);

/// Callback of usrMoveStopTimer: once the head rests, clears user_moved_recently and disarms the timer; while it moves,
/// nothing, and the timer expires again. Thread: timer; takes MotionStateLock.
void usrMoveStopTimeout(void* unused) EXCLUDES(gContext.motion.MotionStateLock);

/// Callback of scanMoveStopTimer: the same for scanStepDone, which it sets.
void scanMoveStopTimeout(void* unused) EXCLUDES(gContext.motion.MotionStateLock);
