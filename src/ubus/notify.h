// The notifications of the head's motion: a call to the object "CET" and a broadcast event.
//
// Each uses a connection of its own for its length, so the event loop's is never blocked; the calling thread is: by a
// missing "CET" for about a second, by one that does not answer for another.
#pragma once

#include "core/motion.h"
#include "ubus/ubus_state.h"

#include <stdint.h>

enum NotifyState : int32_t {
    NOTIFY_IDLE = 0,
    NOTIFY_MOVING = 1,
};

/// Notifies that the head has stopped or started: the call, and, unless the origin is ORIGIN_TRACK, the event. Any
/// other state sends nothing. Failures are logged and otherwise ignored. Any thread; needs MotionStateLock, takes
/// BusLock.
void motorNotifyState(int32_t state, int32_t origin) REQUIRES(gContext.motion.MotionStateLock)
    EXCLUDES(gContext.ubus.BusLock);

/// Calls a method of "CET" with the motion's origin as the text `type` and waits at most 1000 ms for its answer.
/// @return 0 when it answered err_code 0, else -1, logged. Threads and locks as motorNotifyState.
int32_t ubusNotifyWithParam(const char* method, int32_t origin) REQUIRES(gContext.motion.MotionStateLock)
    EXCLUDES(gContext.ubus.BusLock);

/// Broadcasts "motor_rotate_event" with an action, "start" or "stop", and waits at most 1000 ms for the bus daemon's
/// answer. @return 0; the bus library's status when it could not be sent, -1 without a connection, both logged.
/// Any thread; takes BusLock.
int32_t ubus_send_alarm_event(const char* action) EXCLUDES(gContext.ubus.BusLock);
