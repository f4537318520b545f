// The eight presets: the table in memory, and package ptzd where it is kept.
#pragma once

#include "core/context.h"
#include "core/result_code.h"

#include <stdint.h>

/// The table as it stands. Any thread; takes PresetLock.
[[nodiscard]] PresetTable presetTableNow() EXCLUDES(gContext.preset.PresetLock);

/// Puts a table in its place, whole. Thread: event loop; takes PresetLock.
void presetTableSet(const PresetTable& table) EXCLUDES(gContext.preset.PresetLock);

/// @return false, `out` unchanged, when no enabled preset has the id (any value). Any thread; takes PresetLock.
[[nodiscard]] bool presetFind(int32_t id, PresetEntry& out) EXCLUDES(gContext.preset.PresetLock);

/// Whether the configuration store gives a name back as it got it: one that is empty or holds control characters it
/// does not.
[[nodiscard]] bool presetNameStorable(const char* name);

/// Replaces the table by what is stored; a missing section is a free slot, and so is, reported, an enabled one whose id
/// is not 1..8. On success the preset tour starts anew.
/// @return RESULT_OK; ERR_DEVICE, reported, when an option but `name` cannot be read: the slots from there on are free;
/// or when the whole list cannot be read: the table stays as it is.
/// Thread: main; takes ConfigStoreLock and PresetLock.
[[nodiscard]] int32_t reloadPresetList() EXCLUDES(gContext.preset.PresetLock);

/// Stores the table. @return RESULT_OK; ERR_DEVICE when a change fails, reported, or before any reloadPresetList has
/// read the list; CFG_UCI_FAILED when the commit fails. Then reloadPresetList makes memory match storage again.
/// Thread: event loop; takes ConfigStoreLock and, under it, PresetLock.
[[nodiscard]] int32_t savePresetList() EXCLUDES(gContext.preset.PresetLock);

/// Loads presetSpeed and presetImageFreezeEnabled. @return RESULT_OK or ERR_DEVICE, reported; what was read before the
/// failure counts. Thread: main; takes ConfigStoreLock.
[[nodiscard]] int32_t reloadPresetConfig();
