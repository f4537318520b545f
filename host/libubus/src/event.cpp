#include "bus_client.h"

namespace {

int onEvent(ubus_context* ctx, ubus_object* obj, ubus_request_data*, const char* method, blob_attr* msg)
{
    ubus_event_handler* ev = container_of(obj, ubus_event_handler, obj);
    ev->cb(ctx, ev, method, msg);
    return UBUS_STATUS_OK;
}

// The event's name is in the place of the method's, so the only method has none.
const ubus_method eventMethods[] = {UBUS_METHOD_NOARG(nullptr, onEvent)};

// Calls a method of the bus's own event object. `put` adds its arguments.
template <typename Put>
int callEventObject(ubus_context* ctx, const char* method, Put put)
{
    ubus_request req;
    blob_buf* buf = startCall(ctx, UBUS_SYSTEM_OBJECT_EVENT, method);
    void* data = buf ? blob_nest_start(buf, UBUS_ATTR_DATA) : nullptr;
    if (!data || !put(buf))
        return UBUS_STATUS_INVALID_ARGUMENT;
    blob_nest_end(buf, data);
    if (int status = startRequest(ctx, &req, UBUS_MSG_INVOKE, UBUS_SYSTEM_OBJECT_EVENT))
        return status;
    return ubus_complete_request(ctx, &req, 0);
}

} // namespace

int ubus_send_event(ubus_context* ctx, const char* id, blob_attr* data)
{
    return callEventObject(ctx, "send", [=](blob_buf* buf) {
        return blobmsg_add_string(buf, "id", id) == 0 &&
               blobmsg_add_field(buf, BLOBMSG_TYPE_TABLE, "data", data ? blob_data(data) : nullptr,
                                 data ? static_cast<unsigned>(blob_len(data)) : 0) == 0;
    });
}

int ubus_register_event_handler(ubus_context* ctx, ubus_event_handler* ev, const char* pattern)
{
    if (!ev->obj.id) {
        ev->obj.methods = eventMethods;
        ev->obj.n_methods = 1;
        if (int status = ubus_add_object(ctx, &ev->obj))
            return status;
    }
    return callEventObject(ctx, "register", [=](blob_buf* buf) {
        return blobmsg_add_u32(buf, "object", ev->obj.id) == 0 && blobmsg_add_string(buf, "pattern", pattern) == 0;
    });
}

int ubus_unregister_event_handler(ubus_context* ctx, ubus_event_handler* ev)
{
    return ubus_remove_object(ctx, &ev->obj);
}
