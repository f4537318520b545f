#include "ubus/motion_notify.h"

#include "ubus/bus_adapter.h"
#include "ubus/method_reply.h"
#include "ubus/method_table.h"

namespace {

bool putEvent(blob_buf& buffer, const MotionEvent& event)
{
    return blob_buf_init(&buffer, 0) == 0 && blobmsg_add_u32(&buffer, "id", event.id) == 0 &&
           addString(buffer, "state", event.begins ? "moving" : "idle") &&
           (!event.begins || addString(buffer, "origin", event.origin)) &&
           (!event.placed || (addDecimal(buffer, "x", event.x) && addDecimal(buffer, "y", event.y))) &&
           (event.begins || addString(buffer, "outcome", event.outcome)) &&
           (event.by == 0 || blobmsg_add_u32(&buffer, "by", event.by) == 0);
}

} // namespace

bool motionSubscribed()
{
    return gContext.ubus.subscribed.load();
}

void motionNotify(const MotionEvent& event)
{
    if (gContext.ubus.gUbusctx && putEvent(gContext.ubus.motionBuf, event))
        busNotify(gContext.ubus.gUbusctx, &ptzdObject(), "motion", gContext.ubus.motionBuf.head);
}

void onSubscribers(ubus_context*, ubus_object* object)
{
    gContext.ubus.subscribed.store(object->has_subscribers);
}

void motionSubscribersGone()
{
    ptzdObject().has_subscribers = false; // the library leaves it as it was
    gContext.ubus.subscribed.store(false);
}
