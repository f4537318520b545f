// The context as its owner's loop sees it: what comes for its objects is dispatched, calls are answered, and a loss is
// reported.
#include "bus_client.h"

#include <cstring>

namespace {

ubus_object* findObject(ubus_context* ctx, uint32_t id)
{
    ubus_object* obj = nullptr;
    list_for_each_entry (obj, &ctx->objects.list_head, avl.list) {
        if (obj->id == id)
            return obj;
    }
    return nullptr;
}

// A method without a name takes every call.
const ubus_method* findMethod(const ubus_object* obj, const char* name)
{
    for (int i = 0; i < obj->n_methods; ++i) {
        const ubus_method* method = &obj->methods[i];
        if (!method->name || strcmp(method->name, name) == 0)
            return method;
    }
    return nullptr;
}

int callMethod(ubus_context* ctx, ubus_object* obj, ubus_request_data* req, const WireFields& fields)
{
    const char* name = textIn(fields, UBUS_ATTR_METHOD);
    blob_attr* data = fields.at[UBUS_ATTR_DATA];
    if (!name || !data)
        return UBUS_STATUS_INVALID_ARGUMENT;
    const ubus_method* method = findMethod(obj, name);
    return method ? method->handler(ctx, obj, req, name, data) : UBUS_STATUS_METHOD_NOT_FOUND;
}

void dispatchCall(ubus_context* ctx, ubus_object* obj, const Message* message, const WireFields& fields)
{
    ubus_request_data req{};
    req.object = numberIn(fields, UBUS_ATTR_OBJID);
    req.peer = message->peer;
    req.seq = message->seq;
    req.acl.user = textIn(fields, UBUS_ATTR_USER);
    req.acl.group = textIn(fields, UBUS_ATTR_GROUP);
    req.acl.object = obj ? obj->name : nullptr;
    int status = obj ? callMethod(ctx, obj, &req, fields) : static_cast<int>(UBUS_STATUS_NOT_FOUND);
    if (!req.deferred && !isSet(fields, UBUS_ATTR_NO_REPLY))
        ubus_complete_deferred_request(ctx, &req, status);
}

void noteSubscribers(ubus_context* ctx, ubus_object* obj, bool active)
{
    obj->has_subscribers = active;
    if (obj->subscribe_cb)
        obj->subscribe_cb(ctx, obj);
}

void dispatchMessage(ubus_context* ctx, Message* message)
{
    WireFields fields = readFields(rootOf(message));
    if (!fields.at[UBUS_ATTR_OBJID])
        return;
    ubus_object* obj = findObject(ctx, numberIn(fields, UBUS_ATTR_OBJID));
    if (message->type == UBUS_MSG_INVOKE)
        dispatchCall(ctx, obj, message, fields);
    else if (obj && message->type == UBUS_MSG_NOTIFY && fields.at[UBUS_ATTR_ACTIVE])
        noteSubscribers(ctx, obj, isSet(fields, UBUS_ATTR_ACTIVE));
    else if (obj && message->type == UBUS_MSG_UNSUBSCRIBE && fields.at[UBUS_ATTR_TARGET])
        reportRemoval(ctx, obj, numberIn(fields, UBUS_ATTR_TARGET));
}

// Runs after the outermost wait or handler, from the loop if the socket is in it. The context may be gone afterwards.
void reportLoss(ubus_context* ctx)
{
    ubus_connection* connection = ctx->connection;
    if (ctx->stack_depth > 0 || connection->reporting)
        return;
    bool freed = false;
    connection->freed = &freed;
    connection->reporting = true;
    while (!freed && connection->lostPending) {
        connection->lostPending = false;
        if (ctx->sock.registered)
            uloop_fd_delete(&ctx->sock);
        if (ctx->connection_lost)
            ctx->connection_lost(ctx);
    }
    if (freed)
        return;
    connection->reporting = false;
    connection->freed = nullptr;
}

} // namespace

void dispatchPending(ubus_context* ctx)
{
    if (ctx->stack_depth > 0 || list_empty(&ctx->pending))
        return;
    const Message* last = list_entry(ctx->pending.prev, Message, list);
    bool lastHandled = false;
    ++ctx->stack_depth;
    while (!list_empty(&ctx->pending) && (!lastHandled || !ctx->sock.registered)) {
        Message* message = list_first_entry(&ctx->pending, Message, list);
        list_del(&message->list);
        lastHandled = lastHandled || message == last;
        dispatchMessage(ctx, message);
        releaseMessage(ctx, message);
    }
    --ctx->stack_depth;
    if (!list_empty(&ctx->pending))
        uloop_timeout_set(&ctx->pending_timer, PENDING_DELAY_MS);
}

void handleSocket(uloop_fd* sock, unsigned int)
{
    ubus_context* ctx = container_of(sock, ubus_context, sock);
    dispatchPending(ctx);
    while (Message* message = nextMessage(ctx)) {
        handleMessage(ctx, message);
        dispatchPending(ctx);
        // The rest is left to the loop, which does not call again after an error.
        if (ctx->cancel_poll && !sock->eof && !sock->error)
            break;
    }
    if (ctx->connection->broken)
        endAllRequests(ctx);
    if (ctx->connection->broken && sock->registered)
        uloop_fd_delete(sock);
    reportLoss(ctx);
}

void handlePendingTimer(uloop_timeout* timer)
{
    ubus_context* ctx = container_of(timer, ubus_context, pending_timer);
    dispatchPending(ctx);
    reportLoss(ctx);
}

int ubus_send_reply(ubus_context* ctx, ubus_request_data* req, blob_attr* msg)
{
    blob_buf* buf = startMessage(ctx);
    if (!buf || !blob_put_u32(buf, UBUS_ATTR_OBJID, req->object) || !putData(buf, msg))
        return UBUS_STATUS_NO_DATA;
    return sendMessage(ctx, UBUS_MSG_DATA, req->seq, req->peer) ? UBUS_STATUS_OK : UBUS_STATUS_NO_DATA;
}

void ubus_defer_request(ubus_context*, ubus_request_data* req, ubus_request_data* new_req)
{
    *new_req = {};
    new_req->object = req->object;
    new_req->peer = req->peer;
    new_req->seq = req->seq;
    req->deferred = true;
}

void ubus_complete_deferred_request(ubus_context* ctx, ubus_request_data* req, int ret)
{
    blob_buf* buf = startMessage(ctx);
    if (!buf || !blob_put_u32(buf, UBUS_ATTR_STATUS, static_cast<uint32_t>(ret)) ||
        !blob_put_u32(buf, UBUS_ATTR_OBJID, req->object))
        return;
    // Nobody is left to be notified when it cannot be sent.
    (void)sendMessage(ctx, UBUS_MSG_STATUS, req->seq, req->peer);
}
