// Calls that store settings wait here until the event loop has read what else has arrived, and are then carried out in
// their order, one each turn of the loop.
//
// A commit waits for the disk. Carried out as they arrive, the storing calls of many clients would stand before a
// `stop` with a commit each; this way it waits for the one under way. Calls that move the head are never held back: a
// `stop` must not overtake one.
//
// Thread: event loop only.
#pragma once

#include "ubus/bus_door.h"

/// Puts a call at the end of the queue; it is answered when `handler` has run. Where memory is short, and once 256 KiB
/// of calls wait, the ones before it are carried out first, so that none is lost and their order stays. Takes BusLock.
/// @return 0, the handler's outcome so far.
int callEnqueue(UbusHandler* handler, ubus_context* connection, ubus_object* object, ubus_request_data* request,
                blob_attr* message);

/// Drops the calls that still wait, unanswered: their callers went with the connection, or the daemon ends.
void callQueueClear();

/// An entry of the method table whose handler gets its calls out of the queue.
template <UbusHandler* handler>
int enqueued(ubus_context* connection, ubus_object* object, ubus_request_data* request, const char*, blob_attr* message)
{
    return callEnqueue(handler, connection, object, request, message);
}
