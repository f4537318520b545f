// The orderly end: SIGINT and SIGTERM.
#pragma once

#include <stdint.h>

/// Takes SIGINT and SIGTERM over: the first one asks the daemon to end, a second one ends the process at once with
/// status 128 plus its number. A signal that the parent had ignored stays ignored.
/// @return 0, or -1 when the wake-up pipe cannot be made. Thread: main, once, before any other thread starts.
[[nodiscard]] int32_t shutdownInit();

/// True once a signal has asked the daemon to end. Any thread; no lock.
[[nodiscard]] bool shutdownRequested();

/// The descriptor that becomes readable with the first signal; -1 before shutdownInit.
[[nodiscard]] int shutdownDescriptor();

/// Sleeps `ms` milliseconds, or until the daemon is asked to end. Thread: main. Hold no lock.
/// @return true when the daemon is asked to end.
bool shutdownSleep(int32_t ms);
