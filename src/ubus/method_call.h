// A method call on the object `ptzd`, and the handlers that serve them.
#pragma once

#include "core/bus_library.h"

/// What the bus hands to a handler: connection, request and arguments, valid until it returns.
struct Call {
    ubus_context* connection;
    ubus_request_data* request;
    blob_attr* arguments;
};

/// Serves one method. It parses the arguments by the method's policy, acts, and answers exactly once before it returns;
/// every failure is a code in the answer. Arguments that the policy does not name are ignored.
/// Thread: event loop. It is called without a lock and takes those of what it calls, one after the other.
using UbusHandler = void(const Call& call);
