// What the files of the configuration store share.
#pragma once

#include "config/uci_library.h"
#include "config/uci_state.h"
#include "config/uci_store.h"

inline constexpr size_t UCI_KEY_SIZE = 1024;

/// The loaded package of an id; null for an unknown id, without a context, or when it is not loaded.
[[nodiscard]] uci_package* loadedPackage(int32_t id) REQUIRES(gContext.config.ConfigStoreLock);

/// The section of a loaded package, or null, which is reported at the level of misses.
[[nodiscard]] uci_section* sectionOf(int32_t id, const char* section) REQUIRES(gContext.config.ConfigStoreLock);
