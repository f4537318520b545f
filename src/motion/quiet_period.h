// The quiet periods after a motion, at whose end the tour may move the head again.
#pragma once

#include "core/motion.h"

/// Callback of usrMoveStopTimer: once the head rests, clears user_moved_recently and disarms the timer; while it moves,
/// nothing, and the timer expires again. Thread: timer; takes MotionStateLock.
void usrMoveStopTimeout(void* unused) EXCLUDES(gContext.motion.MotionStateLock);

/// Callback of scanMoveStopTimer: the same for scanStepDone, which it sets.
void scanMoveStopTimeout(void* unused) EXCLUDES(gContext.motion.MotionStateLock);
