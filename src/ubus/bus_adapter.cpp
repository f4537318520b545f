#define PTZD_BUS_ADAPTER
#include "ubus/bus_adapter.h"

#include <poll.h>

namespace {

thread_local bool holdsBus = false;

// The library's own callback for its socket; the event loop's thread only.
void (*libraryDispatch)(uloop_fd*, unsigned int) = nullptr;

void dispatchUnderLock(uloop_fd* descriptor, unsigned int events)
{
    const BusGuard hold;
    libraryDispatch(descriptor, events);
}

} // namespace

BusGuard::BusGuard()
{
    gContext.ubus.BusLock.lock();
    holdsBus = true;
}

BusGuard::~BusGuard()
{
    holdsBus = false;
    gContext.ubus.BusLock.unlock();
}

ubus_context* busConnect(const char* path)
{
    return ubus_connect(path);
}

void busFree(ubus_context* connection)
{
    ubus_free(connection);
}

// The analysis cannot follow a lock that is only tried for in a loop.
void busEnd(int32_t timeoutMs) NO_THREAD_SAFETY_ANALYSIS
{
    constexpr int32_t PAUSE_MS = 10;
    for (int32_t waited = 0; !gContext.ubus.BusLock.tryLock(); waited += PAUSE_MS) {
        if (waited >= timeoutMs)
            return;
        (void)poll(nullptr, 0, PAUSE_MS);
    }
    ubus_free(gContext.ubus.gUbusctx);
    gContext.ubus.gUbusctx = nullptr; // for a worker that has a notification to send
    uloop_done();                     // a worker that connects calls uloop_init, under the same lock
    gContext.ubus.BusLock.unlock();
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

void busNotify(ubus_context* connection, ubus_object* object, const char* type, blob_attr* message)
{
    constexpr int NO_ANSWER = -1; // any other timeout waits for the subscribers
    (void)ubus_notify(connection, object, type, message, NO_ANSWER);
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

// The analysis cannot follow a call through the library, further down whose stack the lock was taken.
void busServe(UbusHandler* handler, const Call& call) NO_THREAD_SAFETY_ANALYSIS
{
    // Held on, the lock would close a circle: a handler waits for MotionStateLock, whose owner, sending a notification,
    // waits for BusLock. Besides the loop's dispatch, the library serves calls at the end of its own waiting calls: one
    // may arrive with the answer to the object's registration.
    if (!holdsBus)
        return handler(call);
    holdsBus = false;
    gContext.ubus.BusLock.unlock();
    handler(call);
    gContext.ubus.BusLock.lock();
    holdsBus = true;
}
