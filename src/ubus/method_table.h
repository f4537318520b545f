// The object `ptzd` with its methods.
#pragma once

#include "core/bus_library.h"

/// The object record; it lives as long as the process. Thread: event loop.
[[nodiscard]] ubus_object& ptzdObject();
