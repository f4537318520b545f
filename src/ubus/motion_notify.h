// The notification "motion" to those who subscribe to the object: one for each begin of a motion, one for its end.
//
// It is sent without waiting for an answer, on the event loop's connection, which owns the object.
#pragma once

#include "core/bus_library.h"
#include "ubus/ubus_state.h"

#include <stdint.h>

/// What a notification says, its fields as they are sent.
struct MotionEvent {
    uint32_t id;         // of the motion
    bool begins;         // else it ends
    const char* origin;  // of a begin
    const char* outcome; // of an end
    uint32_t by;         // of an end: the motion that supersedes this one, or 0
    bool placed;         // whether x and y are known
    int64_t x;           // coordinate units, image-flip sign applied back: the target of a begin, the place of an end
    int64_t y;
};

/// Whether anybody subscribes. Any thread; no lock.
[[nodiscard]] bool motionSubscribed();

/// Sends a notification; one for which there is no memory, or no connection, is not sent. Any thread.
void motionNotify(const MotionEvent& event) REQUIRES(gContext.ubus.BusLock);

/// The library's callback, when the first subscriber comes and when the last one goes. Thread: event loop.
void onSubscribers(ubus_context* connection, ubus_object* object);

/// Nobody subscribes any more: the connection has broken. Thread: event loop.
void motionSubscribersGone();
