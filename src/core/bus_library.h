// The bus libraries' headers, the way C++ needs them. Their calls on a connection are made in ubus/bus_adapter.cpp
// only, because the library is not safe across threads; elsewhere the names of those calls do not compile.
#pragma once

extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
#include <libubus.h>
}
#undef fallthrough // spoils [[fallthrough]]

#ifndef PTZD_BUS_ADAPTER
#pragma GCC poison ubus_connect ubus_free ubus_reconnect ubus_add_object ubus_send_reply ubus_lookup_id
#pragma GCC poison ubus_invoke ubus_invoke_async ubus_complete_request_async ubus_abort_request ubus_handle_event
#pragma GCC poison ubus_send_event ubus_notify ubus_defer_request ubus_complete_deferred_request
#endif
