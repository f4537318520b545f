#include "ubus/call_queue.h"

#include <stdlib.h>
#include <string.h>

/// A heap object of the queue; the message stands behind it.
struct WaitingCall {
    WaitingCall* next;
    UbusHandler* handler;
    ubus_context* connection;
    ubus_object* object;
    ubus_request_data request;
    size_t bytes; // with the message
};

namespace {

constexpr size_t QUEUE_BYTES = size_t{256} * 1024;

blob_attr* messageOf(WaitingCall* call)
{
    return reinterpret_cast<blob_attr*>(call + 1);
}

WaitingCall* takeFirst()
{
    CallQueue& queue = gContext.ubus.callQueue;
    WaitingCall* call = queue.first;
    queue.first = call->next;
    if (!queue.first)
        queue.last = nullptr;
    queue.bytes -= call->bytes;
    return call;
}

void carryOutFirst()
{
    WaitingCall* call = takeFirst();
    const int status = call->handler(call->connection, call->object, &call->request, nullptr, messageOf(call));
    {
        const BusGuard hold;
        busCompleteDeferred(call->connection, &call->request, status);
    }
    free(call);
}

void onTurn(uloop_timeout* timeout)
{
    if (gContext.ubus.callQueue.first)
        carryOutFirst();
    if (gContext.ubus.callQueue.first)
        uloop_timeout_set(timeout, 0); // expires in the next turn, after that turn's calls have been read
}

} // namespace

int callEnqueue(UbusHandler* handler, ubus_context* connection, ubus_object* object, ubus_request_data* request,
                blob_attr* message)
{
    CallQueue& queue = gContext.ubus.callQueue;
    const size_t length = blob_raw_len(message);
    auto* call = static_cast<WaitingCall*>(malloc(sizeof(WaitingCall) + length));
    while (queue.first && (!call || queue.bytes + length > QUEUE_BYTES))
        carryOutFirst();
    if (!call)
        return handler(connection, object, request, nullptr, message);
    *call = {nullptr, handler, connection, object, {}, sizeof(WaitingCall) + length};
    memcpy(messageOf(call), message, length);
    {
        const BusGuard hold;
        busDefer(connection, request, &call->request);
    }
    (queue.last ? queue.last->next : queue.first) = call;
    queue.last = call;
    queue.bytes += call->bytes;
    queue.turn.cb = onTurn;
    if (!queue.turn.pending)
        uloop_timeout_set(&queue.turn, 0);
    return 0;
}

void callQueueClear()
{
    uloop_timeout_cancel(&gContext.ubus.callQueue.turn);
    while (gContext.ubus.callQueue.first)
        free(takeFirst());
}
