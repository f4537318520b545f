// What the files of the configuration store share, its library first.
#pragma once

#include "config/uci_state.h"
#include "config/uci_store.h"

extern "C" {
#include <uci.h>
}

/// The loaded package of an id; null for an unknown id, without a context, or when it is not loaded.
[[nodiscard]] uci_package* loadedPackage(int32_t id) REQUIRES(gContext.config.ConfigStoreLock);

/// The section of a loaded package, or null, which is logged at the level of misses.
[[nodiscard]] uci_section* sectionOf(int32_t id, const char* section) REQUIRES(gContext.config.ConfigStoreLock);
