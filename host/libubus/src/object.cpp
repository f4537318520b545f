// Registering and removing objects.
#include "bus_client.h"

namespace {

// Asked of the context's list, because an object may outlive the contexts that it was registered with.
bool isRegistered(ubus_context* ctx, const ubus_object* obj)
{
    ubus_object* known = nullptr;
    list_for_each_entry (known, &ctx->objects.list_head, avl.list) {
        if (known == obj)
            return true;
    }
    return false;
}

void forgetObject(ubus_context* ctx, ubus_object* obj)
{
    if (isRegistered(ctx, obj))
        list_del(&obj->avl.list);
    obj->id = 0;
}

bool putMethod(blob_buf* buf, const ubus_method& method)
{
    void* table = blobmsg_open_table(buf, method.name);
    if (!table)
        return false;
    for (int i = 0; i < method.n_policy; ++i) {
        if (blobmsg_add_u32(buf, method.policy[i].name, method.policy[i].type) != 0)
            return false;
    }
    blobmsg_close_table(buf, table);
    return true;
}

bool putSignature(blob_buf* buf, const ubus_object_type* type)
{
    void* signature = blob_nest_start(buf, UBUS_ATTR_SIGNATURE);
    if (!signature)
        return false;
    for (int i = 0; i < type->n_methods; ++i) {
        if (!putMethod(buf, type->methods[i]))
            return false;
    }
    blob_nest_end(buf, signature);
    return true;
}

// A type that the bus knows is named by its id.
bool putObject(blob_buf* buf, const ubus_object* obj)
{
    if (!obj->name || !obj->type)
        return true;
    if (!blob_put_string(buf, UBUS_ATTR_OBJPATH, obj->name))
        return false;
    if (obj->type->id)
        return blob_put_u32(buf, UBUS_ATTR_OBJTYPE, obj->type->id) != nullptr;
    return putSignature(buf, obj->type);
}

// Calls of the object may follow at once, so it is known from here on.
void onObjectAdded(ubus_request* req, int, blob_attr* msg)
{
    auto* obj = static_cast<ubus_object*>(req->priv);
    WireFields fields = readFields(msg);
    if (!fields.at[UBUS_ATTR_OBJID] || isRegistered(req->ctx, obj))
        return;
    obj->id = numberIn(fields, UBUS_ATTR_OBJID);
    if (obj->type && fields.at[UBUS_ATTR_OBJTYPE])
        obj->type->id = numberIn(fields, UBUS_ATTR_OBJTYPE);
    list_add_tail(&obj->avl.list, &req->ctx->objects.list_head);
}

// The type goes with the last object that has it.
void onObjectRemoved(ubus_request* req, int, blob_attr* msg)
{
    auto* obj = static_cast<ubus_object*>(req->priv);
    if (obj->type && readFields(msg).at[UBUS_ATTR_OBJTYPE])
        obj->type->id = 0;
}

} // namespace

int registerObject(ubus_context* ctx, ubus_object* obj)
{
    ubus_request req;
    blob_buf* buf = startMessage(ctx);
    obj->id = 0;
    obj->has_subscribers = false;
    if (!buf || !putObject(buf, obj))
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (int status = startRequest(ctx, &req, UBUS_MSG_ADD_OBJECT, 0))
        return status;
    req.raw_data_cb = onObjectAdded;
    req.priv = obj;
    int status = ubus_complete_request(ctx, &req, 0);
    if (status == UBUS_STATUS_OK)
        return obj->id ? UBUS_STATUS_OK : UBUS_STATUS_NO_DATA;
    forgetObject(ctx, obj);
    return status;
}

int ubus_add_object(ubus_context* ctx, ubus_object* obj)
{
    return isRegistered(ctx, obj) ? static_cast<int>(UBUS_STATUS_INVALID_ARGUMENT) : registerObject(ctx, obj);
}

int ubus_remove_object(ubus_context* ctx, ubus_object* obj)
{
    ubus_request req;
    blob_buf* buf = startMessage(ctx);
    if (!buf || !blob_put_u32(buf, UBUS_ATTR_OBJID, obj->id))
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (int status = startRequest(ctx, &req, UBUS_MSG_REMOVE_OBJECT, 0))
        return status;
    req.raw_data_cb = onObjectRemoved;
    req.priv = obj;
    int status = ubus_complete_request(ctx, &req, 0);
    if (status == UBUS_STATUS_OK)
        forgetObject(ctx, obj);
    return status;
}
