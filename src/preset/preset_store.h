// The eight presets: the table in memory, and package ptzd where it is kept.
#pragma once

#include "core/context.h"
#include "core/mutex.h"

#include <stdint.h>

#include <atomic>

inline constexpr int PRESET_COUNT = 8;
inline constexpr int PRESET_NAME_SIZE = 33; // 32 bytes and the NUL

/// One stored preset. Positions run from -1.0, step 0, to 1.0, the far end of the travel.
struct PresetEntry {
    int32_t id; // 1..8
    float position_pan;
    float position_tilt;
    float position_zoom; // the head has no zoom: 0
    int32_t read_only;
    int32_t enabled; // 0: the slot is free
    char name[PRESET_NAME_SIZE];
};

/// Slot n, 1..8, is element n - 1. A preset's slot and its id differ.
struct PresetTable {
    PresetEntry presetTable[PRESET_COUNT];
    int32_t presetSlotOfId[PRESET_COUNT]; // element i: the slot of the enabled preset with id i + 1, or 0
};

/// Owner: preset/. The table is written on the event loop's thread alone.
struct PresetState {
    Mutex PresetLock{LockRank::Preset};
    PresetTable presets GUARDED_BY(PresetLock) = {};
    bool presetsLoaded = false; // event loop only
    float presetSpeed = 0;      // these two: event loop only
    int32_t presetImageFreezeEnabled = 0;
    std::atomic<float> panSpeedFactor{1.0F}; // fraction of max_speed, above 0 and at most 1
    std::atomic<float> tiltSpeedFactor{1.0F};
};

/// The table as it is now. Any thread; takes PresetLock.
[[nodiscard]] PresetTable presetTableNow() EXCLUDES(gContext.preset.PresetLock);

/// Puts a table in its place, whole. Thread: event loop; takes PresetLock.
void presetTableSet(const PresetTable& table) EXCLUDES(gContext.preset.PresetLock);

/// @return false, `out` unchanged, when no enabled preset has the id (any value). Any thread; takes PresetLock.
[[nodiscard]] bool presetFind(int32_t id, PresetEntry& out) EXCLUDES(gContext.preset.PresetLock);

/// Whether the configuration store gives a name back as it got it: one that is empty or holds control characters it
/// does not.
[[nodiscard]] bool presetNameStorable(const char* name);

/// Replaces the table by what is stored; a missing section is a free slot, and so is, logged, an enabled one whose id
/// is not 1..8. On success the preset tour starts anew.
/// @return RESULT_OK; ERR_DEVICE, logged, when an option but `name` cannot be read: the slots from there on are free;
/// or when the whole list cannot be read: the table stays as it is.
/// Thread: main; takes ConfigStoreLock and PresetLock.
[[nodiscard]] int32_t reloadPresetList() EXCLUDES(gContext.preset.PresetLock);

/// Stores the table. @return RESULT_OK; ERR_DEVICE when a change fails, logged, or before any reloadPresetList has
/// read the list; CFG_UCI_FAILED when the commit fails. Then reloadPresetList makes memory match storage again.
/// Thread: event loop; takes ConfigStoreLock and, under it, PresetLock.
[[nodiscard]] int32_t savePresetList() EXCLUDES(gContext.preset.PresetLock);

/// Loads presetSpeed and presetImageFreezeEnabled. @return RESULT_OK or ERR_DEVICE, logged; what was read before the
/// failure counts. Thread: main; takes ConfigStoreLock.
[[nodiscard]] int32_t reloadPresetConfig();
