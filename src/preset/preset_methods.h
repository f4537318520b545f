// The methods that manage the presets. Each writes its change through to storage at once.
#pragma once

#include "ubus/method_call.h"

inline constexpr blobmsg_policy setPresetPolicy[] = {
    {"id", BLOBMSG_TYPE_STRING},
    {"name", BLOBMSG_TYPE_STRING},
    {"save_ptz", BLOBMSG_TYPE_STRING},
};
inline constexpr blobmsg_policy deletePresetPolicy[] = {{"id", BLOBMSG_TYPE_ARRAY}};
inline constexpr blobmsg_policy presetConfigPolicy[] = {
    {"image_freeze_enabled", BLOBMSG_TYPE_STRING},
    {"speed", BLOBMSG_TYPE_STRING},
};
inline constexpr blobmsg_policy presetPagePolicy[] = {
    {"start_id", BLOBMSG_TYPE_STRING},
    {"count", BLOBMSG_TYPE_STRING},
};

/// `setPreset`: creates or overwrites a preset, with `save_ptz` "1" at the head's position.
UbusHandler ubusSetPreset;
/// `delPreset`: deletes presets, closes the gaps in the table, and takes them out of the weekly plan.
UbusHandler ubusDeletePreset;
/// `clearPreset`: frees all slots and empties the days of the weekly plan.
UbusHandler ubusClearPreset;
/// `getPresetAll`, and `getPresetPage` for ids above `start_id`, at most `start_id` + `count`.
UbusHandler ubusGetPresetAll;
UbusHandler ubusGetPresetPage;
/// `setPresetConfig` stores the two settings, `reloadPresetConfig` loads them.
UbusHandler ubusSetPresetConfig;
UbusHandler ubusReloadPresetConfig;
