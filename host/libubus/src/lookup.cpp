#include "bus_client.h"

namespace {

struct LookupCall {
    ubus_lookup_handler_t cb;
    void* priv;
};

int startLookup(ubus_context* ctx, ubus_request* req, const char* path)
{
    blob_buf* buf = startMessage(ctx);
    if (!buf || (path && !blob_put_string(buf, UBUS_ATTR_OBJPATH, path)))
        return UBUS_STATUS_INVALID_ARGUMENT;
    return startRequest(ctx, req, UBUS_MSG_LOOKUP, 0);
}

void onObjectFound(ubus_request* req, int, blob_attr* msg)
{
    const auto* call = static_cast<const LookupCall*>(req->priv);
    WireFields fields = readFields(msg);
    if (!fields.at[UBUS_ATTR_OBJID] || !fields.at[UBUS_ATTR_OBJPATH] || !fields.at[UBUS_ATTR_OBJTYPE])
        return;
    ubus_object_data found{
        .id = numberIn(fields, UBUS_ATTR_OBJID),
        .type_id = numberIn(fields, UBUS_ATTR_OBJTYPE),
        .path = textIn(fields, UBUS_ATTR_OBJPATH),
        .signature = fields.at[UBUS_ATTR_SIGNATURE],
    };
    call->cb(req->ctx, &found, call->priv);
}

void onIdFound(ubus_request* req, int, blob_attr* msg)
{
    WireFields fields = readFields(msg);
    if (fields.at[UBUS_ATTR_OBJID])
        *static_cast<uint32_t*>(req->priv) = numberIn(fields, UBUS_ATTR_OBJID);
}

} // namespace

int ubus_lookup(ubus_context* ctx, const char* path, ubus_lookup_handler_t cb, void* priv)
{
    LookupCall call{cb, priv};
    ubus_request req;
    if (int status = startLookup(ctx, &req, path))
        return status;
    req.raw_data_cb = onObjectFound;
    req.priv = &call;
    return ubus_complete_request(ctx, &req, 0);
}

int ubus_lookup_id(ubus_context* ctx, const char* path, uint32_t* id)
{
    ubus_request req;
    if (int status = startLookup(ctx, &req, path))
        return status;
    req.raw_data_cb = onIdFound;
    req.priv = id;
    return ubus_complete_request(ctx, &req, 0);
}
