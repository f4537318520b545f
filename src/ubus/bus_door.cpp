#define PTZD_BUS_DOOR
#include "ubus/bus_door.h"

namespace {

// All of this belongs to the event loop's thread.
uloop_fd_handler libraryDispatch = nullptr; // the library's own callback for its socket
bool dispatching = false;                   // inside it, with BusLock held

void dispatchUnderLock(uloop_fd* descriptor, unsigned int events)
{
    LockGuard hold(gContext.ubus.BusLock);
    dispatching = true;
    libraryDispatch(descriptor, events);
    dispatching = false;
}

} // namespace

ubus_context* busConnect(const char* path)
{
    return ubus_connect(path);
}

void busFree(ubus_context* connection)
{
    ubus_free(connection);
}

int busReconnect(ubus_context* connection, const char* path)
{
    return ubus_reconnect(connection, path);
}

int busAddObject(ubus_context* connection, ubus_object* object)
{
    return ubus_add_object(connection, object);
}

int busSendReply(ubus_context* connection, ubus_request_data* request, blob_attr* message)
{
    return ubus_send_reply(connection, request, message);
}

int busLookupId(ubus_context* connection, const char* path, uint32_t& id)
{
    id = 0; // a hidden object is answered with success and no id
    const int status = ubus_lookup_id(connection, path, &id);
    return status == UBUS_STATUS_OK && id == 0 ? UBUS_STATUS_NOT_FOUND : status;
}

int busInvokeAsync(ubus_context* connection, uint32_t object, const char* method, blob_attr* message,
                   ubus_request* request, ubus_data_handler_t onData, ubus_complete_handler_t onComplete)
{
    const int status = ubus_invoke_async(connection, object, method, message, request);
    if (status != UBUS_STATUS_OK)
        return status;
    request->data_cb = onData;
    request->complete_cb = onComplete;
    ubus_complete_request_async(connection, request);
    return UBUS_STATUS_OK;
}

void busAbort(ubus_context* connection, ubus_request* request)
{
    ubus_abort_request(connection, request);
}

void busHandle(ubus_context* connection)
{
    ubus_handle_event(connection);
}

void busDispatchUnderLock(ubus_context* connection)
{
    if (connection->sock.cb == dispatchUnderLock)
        return;
    libraryDispatch = connection->sock.cb;
    connection->sock.cb = dispatchUnderLock;
}

// The analysis cannot follow a call through the library: BusLock was taken by dispatchUnderLock, further up this stack.
int busServe(UbusHandler* handler, ubus_context* connection, ubus_object* object, ubus_request_data* request,
             const char* method, blob_attr* message) NO_THREAD_SAFETY_ANALYSIS
{
    // Held otherwise, the lock would close a circle: a handler waits for MotionStateLock, whose owner, sending a
    // notification, waits for BusLock. A call that the library had put aside reaches us from its own timer, without it.
    if (!dispatching)
        return handler(connection, object, request, method, message);
    gContext.ubus.BusLock.unlock();
    const int result = handler(connection, object, request, method, message);
    gContext.ubus.BusLock.lock();
    return result;
}
