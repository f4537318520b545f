// The configuration store's state.
#pragma once

#include "core/context.h"
#include "core/mutex.h"

struct uci_context;
struct uci_package;

struct UciPackage {
    const char* name;
    uci_package* handle;
};

inline constexpr int UCI_PACKAGE_COUNT = 7;

/// Owner: config/uci_store.
struct ConfigState {
    RecursiveMutex ConfigStoreLock{LockRank::ConfigStore};
    uci_context* uciContext GUARDED_BY(ConfigStoreLock) = nullptr;
    UciPackage uciPackages[UCI_PACKAGE_COUNT] GUARDED_BY(ConfigStoreLock) = {
        {"ptzd", nullptr},         {"image", nullptr},    {"diagd", nullptr}, {"lens_mask", nullptr},
        {"target_track", nullptr}, {"ptz_plan", nullptr}, {"tour", nullptr},
    };
};
