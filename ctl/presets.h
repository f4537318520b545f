// The presets as getPresetAll lists them.
#pragma once

#include "bus.h"
#include "preset/preset_store.h"

struct PresetNow {
    int32_t id;
    int32_t x; // coordinate units
    int32_t y;
    const char* name; // lives as long as the reply
};

struct PresetList {
    Reply reply;
    PresetNow presets[PRESET_COUNT];
    size_t count;
};

/// Asks the daemon; what keeps it from answering ends the program.
[[nodiscard]] PresetList readPresets();
