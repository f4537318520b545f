// Calls of the context's own objects.
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

} // namespace

void dispatchCall(ubus_context* ctx, Message* message)
{
    WireFields fields = readFields(rootOf(message));
    if (!fields.at[UBUS_ATTR_OBJID])
        return;
    ubus_object* obj = findObject(ctx, numberIn(fields, UBUS_ATTR_OBJID));
    ubus_request_data req{};
    req.object = numberIn(fields, UBUS_ATTR_OBJID);
    req.peer = message->peer;
    req.seq = message->seq;
    req.acl.user = textIn(fields, UBUS_ATTR_USER);
    req.acl.group = textIn(fields, UBUS_ATTR_GROUP);
    req.acl.object = obj ? obj->name : nullptr;
    int status = obj ? callMethod(ctx, obj, &req, fields) : static_cast<int>(UBUS_STATUS_NOT_FOUND);
    if (!req.deferred)
        ubus_complete_deferred_request(ctx, &req, status);
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
