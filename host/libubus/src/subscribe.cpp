// Subscribers of other clients' objects, and the notifications of own ones.
#include "bus_client.h"

namespace {

int onNotification(ubus_context* ctx, ubus_object* obj, ubus_request_data* req, const char* method, blob_attr* msg)
{
    const ubus_subscriber* sub = container_of(obj, ubus_subscriber, obj);
    return sub->cb ? sub->cb(ctx, obj, req, method, msg) : static_cast<int>(UBUS_STATUS_OK);
}

// The notification's type is in the place of the method's name, so the only method has none.
const ubus_method subscriberMethods[] = {UBUS_METHOD_NOARG(nullptr, onNotification)};

int changeSubscription(ubus_context* ctx, const ubus_subscriber* sub, ubus_msg_type change, uint32_t target)
{
    ubus_request req;
    blob_buf* buf = startMessage(ctx);
    if (!buf || !blob_put_u32(buf, UBUS_ATTR_OBJID, sub->obj.id) || !blob_put_u32(buf, UBUS_ATTR_TARGET, target))
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (int status = startRequest(ctx, &req, change, 0))
        return status;
    return ubus_complete_request(ctx, &req, 0);
}

} // namespace

void reportRemoval(ubus_context* ctx, ubus_object* obj, uint32_t target)
{
    if (obj->methods != subscriberMethods)
        return;
    ubus_subscriber* sub = container_of(obj, ubus_subscriber, obj);
    if (sub->remove_cb)
        sub->remove_cb(ctx, sub, target);
}

int ubus_register_subscriber(ubus_context* ctx, ubus_subscriber* sub)
{
    sub->obj.methods = subscriberMethods;
    sub->obj.n_methods = 1;
    return ubus_add_object(ctx, &sub->obj);
}

int ubus_unregister_subscriber(ubus_context* ctx, ubus_subscriber* sub)
{
    return ubus_remove_object(ctx, &sub->obj);
}

int ubus_subscribe(ubus_context* ctx, ubus_subscriber* sub, uint32_t id)
{
    return changeSubscription(ctx, sub, UBUS_MSG_SUBSCRIBE, id);
}

int ubus_unsubscribe(ubus_context* ctx, ubus_subscriber* sub, uint32_t id)
{
    return changeSubscription(ctx, sub, UBUS_MSG_UNSUBSCRIBE, id);
}

int ubus_notify(ubus_context* ctx, ubus_object* obj, const char* type, blob_attr* msg, int timeout)
{
    if (timeout >= 0)
        return UBUS_STATUS_NOT_SUPPORTED;
    blob_buf* buf = startCall(ctx, obj->id, type);
    if (buf && putData(buf, msg) && blob_put_u8(buf, UBUS_ATTR_NO_REPLY, 1))
        (void)sendMessage(ctx, UBUS_MSG_NOTIFY, ++ctx->request_seq, obj->id); // as if nobody had subscribed
    return UBUS_STATUS_OK;
}
