// The daemon's place on the bus: connection, object, event loop, reconnection.
#pragma once

#include <stdint.h>

/// Connects (three attempts, a second apart), registers the object `ptzd` and runs the event loop until the daemon is
/// asked to end; then gives the connection back. uloop_init has been called.
/// @return 0 after a normal end, also when the daemon is asked to end while it connects; -1 when it could not connect
///         or register.
/// Thread: main. Hold no lock.
[[nodiscard]] int32_t ubusInit();
