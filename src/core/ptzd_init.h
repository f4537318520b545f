// Start-up, service and teardown of the daemon.
#pragma once

#include <stdint.h>

/// Brings everything up, serves until the daemon is asked to end, and tears down. The timers have been created and
/// shutdownInit has been called.
/// @return 0 after a normal end, also when the daemon is asked to end while it starts; -1 when start-up fails.
/// Thread: main.
[[nodiscard]] int32_t PtzdInit();
