#include "preset/preset_store.h"

#include "config/uci_store.h"
#include "core/log.h"
#include "core/result_code.h"
#include "motor/motion_state.h"

#include <stdio.h>
#include <string.h>

namespace {

constexpr char SETTINGS[] = "preset_config";

struct SectionName {
    char text[20];
};

/// Of slots 1..8.
SectionName sectionOf(int slot)
{
    SectionName name{};
    (void)snprintf(name.text, sizeof(name.text), "preset_%d", slot);
    return name;
}

void readName(const char* section, PresetEntry& entry)
{
    if (cfg_uci_get_string_value(UCI_PTZD, section, "name", entry.name, sizeof(entry.name)) == 0 &&
        presetNameStorable(entry.name))
        return;
    LOG_AT(LOG_LEVEL_DEFAULTED, "%s.name is NULL\n", section);
    (void)snprintf(entry.name, sizeof(entry.name), "%s", section);
}

/// @return the name of the option that cannot be read, or null.
const char* readPreset(const char* section, PresetEntry& entry)
{
    if (cfg_uci_get_int_value(UCI_PTZD, section, "id", &entry.id) != 0)
        return "id";
    readName(section, entry);
    if (cfg_uci_get_float_value(UCI_PTZD, section, "position_pan", &entry.position_pan) != 0)
        return "position_pan";
    if (cfg_uci_get_float_value(UCI_PTZD, section, "position_tilt", &entry.position_tilt) != 0)
        return "position_tilt";
    if (cfg_uci_get_float_value(UCI_PTZD, section, "position_zoom", &entry.position_zoom) != 0)
        return "position_zoom";
    if (cfg_uci_get_int_value(UCI_PTZD, section, "read_only", &entry.read_only) != 0)
        return "read_only";
    if (cfg_uci_get_int_value(UCI_PTZD, section, "enabled", &entry.enabled) != 0)
        return "enabled";
    return nullptr;
}

/// @return the name of the option that cannot be set, or null.
const char* writePreset(const char* section, const PresetEntry& entry)
{
    if (cfg_uci_set_int_value(UCI_PTZD, section, "id", entry.id) != 0)
        return "id";
    if (cfg_uci_set_int_value(UCI_PTZD, section, "read_only", entry.read_only) != 0)
        return "read_only";
    if (cfg_uci_set_string_value(UCI_PTZD, section, "name", entry.name) != 0)
        return "name";
    if (cfg_uci_set_float_value(UCI_PTZD, section, "position_pan", entry.position_pan) != 0)
        return "position_pan";
    if (cfg_uci_set_float_value(UCI_PTZD, section, "position_tilt", entry.position_tilt) != 0)
        return "position_tilt";
    if (cfg_uci_set_float_value(UCI_PTZD, section, "position_zoom", entry.position_zoom) != 0)
        return "position_zoom";
    if (cfg_uci_set_int_value(UCI_PTZD, section, "enabled", entry.enabled) != 0)
        return "enabled";
    return nullptr;
}

} // namespace

PresetTable presetTableNow()
{
    LockGuard hold(gContext.preset.PresetLock);
    return gContext.preset.presets;
}

void presetTableSet(const PresetTable& table)
{
    LockGuard hold(gContext.preset.PresetLock);
    gContext.preset.presets = table;
}

bool presetFind(int32_t id, PresetEntry& out)
{
    if (id < 1 || id > PRESET_COUNT)
        return false;
    LockGuard hold(gContext.preset.PresetLock);
    const int32_t slot = gContext.preset.presets.presetSlotOfId[id - 1];
    if (slot == 0)
        return false;
    out = gContext.preset.presets.presetTable[slot - 1];
    return true;
}

bool presetNameStorable(const char* name)
{
    if (*name == '\0')
        return false;
    for (; *name != '\0'; ++name)
        if (static_cast<unsigned char>(*name) < ' ' && !strchr("\t\r\n", *name))
            return false;
    return true;
}

int32_t reloadPresetList()
{
    PresetTable loaded{};
    ResultCode result = RESULT_OK;
    {
        const UciTransaction transaction(UCI_PTZD);
        if (cfg_uci_pkg_reload(UCI_PTZD) != 0)
            return ERR_DEVICE; // logged there; an unreadable list is not an empty one
        gContext.preset.presetsLoaded = true;
        for (int slot = 1; slot <= PRESET_COUNT && result == RESULT_OK; ++slot) {
            const SectionName section = sectionOf(slot);
            PresetEntry& entry = loaded.presetTable[slot - 1];
            if (!cfg_uci_get_section(UCI_PTZD, section.text)) {
                (void)snprintf(entry.name, sizeof(entry.name), "%s%d", "preset", slot);
                continue;
            }
            if (const char* missing = readPreset(section.text, entry)) {
                LOG_ERROR("%s.%s is NULL\n", section.text, missing);
                result = ERR_DEVICE;
            } else if (entry.enabled != 0 && (entry.id < 1 || entry.id > PRESET_COUNT)) {
                LOG_ERROR("%s.id is out of range\n", section.text);
                entry.enabled = 0;
            } else if (entry.enabled != 0) {
                loaded.presetSlotOfId[entry.id - 1] = slot;
            }
        }
    }
    presetTableSet(loaded);
    if (result == RESULT_OK)
        tourPresetReset();
    return result;
}

int32_t savePresetList()
{
    if (!gContext.preset.presetsLoaded)
        return ERR_DEVICE; // logged then: what is in storage is not known, and must not be replaced
    const UciTransaction transaction(UCI_PTZD);
    (void)cfg_uci_pkg_reload(UCI_PTZD); // logged there; nothing can be set then
    for (int slot = 1; slot <= PRESET_COUNT; ++slot) {
        const SectionName section = sectionOf(slot);
        if (cfg_uci_delete(UCI_PTZD, section.text, "preset") != 0) {
            LOG_ERROR("error to delete sector %s\n", section.text);
            return ERR_DEVICE;
        }
    }
    const PresetTable table = presetTableNow();
    for (int slot = 1; slot <= PRESET_COUNT; ++slot) {
        const SectionName section = sectionOf(slot);
        if (cfg_uci_set_section(UCI_PTZD, section.text, "preset") != 0) {
            LOG_ERROR("error to set sector %s\n", section.text);
            return ERR_DEVICE;
        }
        if (const char* failed = writePreset(section.text, table.presetTable[slot - 1])) {
            LOG_ERROR("error to set option %s.%s\n", section.text, failed);
            return ERR_DEVICE;
        }
    }
    LOG_TRACE("save preset list\n");
    return transaction.commit();
}

int32_t reloadPresetConfig()
{
    const UciTransaction transaction(UCI_PTZD);
    cfg_uci_pkg_reload(UCI_PTZD);
    if (!cfg_uci_get_section(UCI_PTZD, SETTINGS)) {
        LOG_ERROR("%s is NULL\n", SETTINGS);
        return ERR_DEVICE;
    }
    if (cfg_uci_get_float_value(UCI_PTZD, SETTINGS, "speed", &gContext.preset.presetSpeed) != 0) {
        LOG_ERROR("%s.speed is NULL\n", SETTINGS);
        return ERR_DEVICE;
    }
    if (cfg_uci_get_int_value(UCI_PTZD, SETTINGS, "image_freeze_enabled", &gContext.preset.presetImageFreezeEnabled) !=
        0) {
        LOG_ERROR("%s.image_freeze_enabled is NULL\n", SETTINGS);
        return ERR_DEVICE;
    }
    return RESULT_OK;
}
