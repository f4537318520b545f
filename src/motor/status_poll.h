// The status poll, which finds the end of a motion.
#pragma once

#include "core/motion.h"

/// Callback of statusPollTimer: settles the motion once both axes stand still; a failed read is tried again with the
/// next tick. Thread: timer; takes MotionStateLock and, under it, BusLock.
void motorStatusPoll(void* motionOrigin) EXCLUDES(gContext.motion.MotionStateLock);
