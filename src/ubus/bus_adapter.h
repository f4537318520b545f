// The adapter of the bus library: every call to it is made here, under BusLock.
//
// The library keeps one output buffer and one table of parsed attributes for the whole process, so its calls must not
// overlap, whatever connection they are for. BusLock is the innermost lock and is never held while something is waited
// for but the bus daemon's own answer. Results are the library's: 0 for success, else its status.
#pragma once

#include "ubus/method_call.h"
#include "ubus/ubus_state.h"

#include <stdint.h>

/// Holds BusLock for the length of a scope. It is taken in no other way, so that a handler which the library calls from
/// inside one of its own calls knows that it must release it.
class SCOPED_CAPABILITY BusGuard {
public:
    BusGuard() ACQUIRE(gContext.ubus.BusLock);
    ~BusGuard() RELEASE();
    BusGuard(const BusGuard&) = delete;
    BusGuard& operator=(const BusGuard&) = delete;
};

/// Connects; a null path is the library's default socket. @return null on failure; the caller owns the connection.
[[nodiscard]] ubus_context* busConnect(const char* path) REQUIRES(gContext.ubus.BusLock);
void busFree(ubus_context* connection) REQUIRES(gContext.ubus.BusLock);

/// Frees the event loop's connection, gUbusctx, and the loop at shutdown. A thread that is inside the library while the
/// bus daemon does not answer keeps the lock for ever: after `timeoutMs` both are left to the end of the process.
/// Thread: main.
void busEnd(int32_t timeoutMs) EXCLUDES(gContext.ubus.BusLock);

[[nodiscard]] int busReconnect(ubus_context* connection, const char* path) REQUIRES(gContext.ubus.BusLock);
[[nodiscard]] int busAddObject(ubus_context* connection, ubus_object* object) REQUIRES(gContext.ubus.BusLock);
[[nodiscard]] int busSendReply(ubus_context* connection, ubus_request_data* request, blob_attr* message)
    REQUIRES(gContext.ubus.BusLock);

/// Notifies an object's subscribers without waiting for any answer; nobody learns whether that fails.
void busNotify(ubus_context* connection, ubus_object* object, const char* type, blob_attr* message)
    REQUIRES(gContext.ubus.BusLock);

[[nodiscard]] int busLookupId(ubus_context* connection, const char* path, uint32_t& id) REQUIRES(gContext.ubus.BusLock);

/// Sends a request and returns; its callbacks run inside a later busHandle of the same connection.
[[nodiscard]] int busInvokeAsync(ubus_context* connection, uint32_t object, const char* method, blob_attr* message,
                                 ubus_request* request, ubus_data_handler_t onData, ubus_complete_handler_t onComplete)
    REQUIRES(gContext.ubus.BusLock);

/// Ends a request that is not complete; its callbacks do not run any more.
void busAbort(ubus_context* connection, ubus_request* request) REQUIRES(gContext.ubus.BusLock);

/// Reads and dispatches what has arrived on a connection that is in no event loop.
void busHandle(ubus_context* connection) REQUIRES(gContext.ubus.BusLock);

/// From now on the event loop dispatches this connection under BusLock. Thread: event loop. Call it again after a
/// reconnection.
void busDispatchUnderLock(ubus_context* connection);

/// Serves a call that the library dispatches, with BusLock released while the handler's body runs.
void busServe(UbusHandler* handler, const Call& call);

/// busServe for one handler, as an entry of the method table. @return 0, always: the outcome travels in the answer
/// only.
template <UbusHandler* handler>
int served(ubus_context* connection, ubus_object*, ubus_request_data* request, const char*, blob_attr* arguments)
{
    busServe(handler, {connection, request, arguments});
    return 0;
}
