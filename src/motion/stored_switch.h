// Switches that other programs store for the daemon.
#pragma once

#include "config/uci_store.h"

/// Loads a package afresh and reads a section's option `enabled`.
/// @return true when it is "on", in any letter case; a missing one is off. Any thread; takes ConfigStoreLock.
[[nodiscard]] bool storedSwitchOn(UciPackageId id, const char* section);
