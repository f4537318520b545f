#include "preset/preset_methods.h"

#include "config/uci_store.h"
#include "config/value_parsers.h"
#include "core/log.h"
#include "core/owned.h"
#include "motor/motion_state.h"
#include "motor/motor_device.h"
#include "preset/preset_store.h"
#include "tour/plan.h"
#include "ubus/method_args.h"
#include "ubus/method_reply.h"

#include <stdio.h>
#include <string.h>

#include <array>
#include <cmath>
#include <initializer_list>
#include <iterator>

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace {

enum SetPresetArg { SET_ID, SET_NAME, SET_SAVE_PTZ, SET_ARG_COUNT };
static_assert(std::size(setPresetPolicy) == SET_ARG_COUNT);
enum ConfigArg { CONFIG_FREEZE, CONFIG_SPEED, CONFIG_ARG_COUNT };
static_assert(std::size(presetConfigPolicy) == CONFIG_ARG_COUNT);
enum PageArg { PAGE_START, PAGE_COUNT, PAGE_ARG_COUNT };
static_assert(std::size(presetPagePolicy) == PAGE_ARG_COUNT);

bool validId(int32_t id)
{
    return id >= 1 && id <= PRESET_COUNT;
}

/// What setPreset is asked for; an id of 0 is none, a null name too.
struct PresetRequest {
    int32_t id;
    int32_t slot; // 1..8
    const char* name;
    bool savePosition;
    double position[AXIS_COUNT]; // captured
};

ResultCode readRequest(const blob_attr* const (&args)[SET_ARG_COUNT], PresetRequest& wanted)
{
    if (args[SET_ID]) {
        wanted.id = decimalArg(args[SET_ID]);
        if (!validId(wanted.id))
            return ERR_PRESET_ID;
    }
    const int32_t save = args[SET_SAVE_PTZ] ? decimalArg(args[SET_SAVE_PTZ]) : 0;
    if (save != 0 && save != 1)
        return ERR_PARAM;
    wanted.savePosition = save == 1;
    if (!args[SET_NAME])
        return RESULT_OK;
    wanted.name = textArg(args[SET_NAME]);
    if (strlen(wanted.name) >= PRESET_NAME_SIZE)
        return ERR_NAME_LENGTH;
    return strchr(wanted.name, '\n') ? ERR_PARAM : RESULT_OK; // others that cannot be stored fail when they are
}

/// The id where none is given, and the slot: the id's own, else the first free one.
ResultCode choosePlace(const PresetTable& table, PresetRequest& wanted)
{
    for (int32_t id = 1; wanted.id == 0 && id <= PRESET_COUNT; ++id)
        if (table.presetSlotOfId[id - 1] == 0)
            wanted.id = id;
    if (wanted.id == 0)
        return ERR_NO_PRESET_LEFT;
    wanted.slot = table.presetSlotOfId[wanted.id - 1];
    for (int32_t slot = 1; wanted.slot == 0 && slot <= PRESET_COUNT; ++slot)
        if (table.presetTable[slot - 1].enabled == 0 && table.presetTable[slot - 1].read_only == 0)
            wanted.slot = slot;
    if (wanted.slot == 0)
        return ERR_NO_PRESET_LEFT;
    return table.presetTable[wanted.slot - 1].read_only != 0 ? ERR_READ_ONLY : RESULT_OK;
}

/// Where the head is, from -1.0 to 1.0 over each axis's travel.
ResultCode capture(double (&position)[AXIS_COUNT])
{
    HeadStatus head{};
    if (const ResultCode result = motorReadStatus(head); result != RESULT_OK)
        return result;
    if (head.running())
        return ERR_MOVING;
    for (const AxisIndex axis : {PAN, TILT})
        position[axis] = 2.0 * head[axis].position / gContext.axes[axis].total_steps - 1.0;
    return RESULT_OK;
}

void clearPosition(PresetEntry& entry)
{
    entry.position_pan = 0;
    entry.position_tilt = 0;
    entry.position_zoom = 0;
}

void enter(PresetTable& table, const PresetRequest& wanted)
{
    PresetEntry& entry = table.presetTable[wanted.slot - 1];
    table.presetSlotOfId[wanted.id - 1] = wanted.slot;
    const bool wasFree = entry.enabled == 0;
    if (wanted.name)
        (void)snprintf(entry.name, sizeof(entry.name), "%s", wanted.name);
    else if (wasFree)
        (void)snprintf(entry.name, sizeof(entry.name), "%s%d", "preset", wanted.id);
    if (wasFree || wanted.savePosition)
        clearPosition(entry);
    if (wanted.savePosition) {
        entry.position_pan = static_cast<float>(wanted.position[PAN]);
        entry.position_tilt = static_cast<float>(wanted.position[TILT]);
    }
    entry.id = wanted.id;
    entry.read_only = 0;
    entry.enabled = 1;
}

/// Stores a changed table; when that fails the table becomes again what is stored, or what it was before where that
/// cannot be read: the next save that succeeds must not store an empty list.
int32_t keep(const PresetTable& table)
{
    const PresetTable before = presetTableNow();
    presetTableSet(table);
    const int32_t result = savePresetList();
    if (result != RESULT_OK) {
        presetTableSet(before);
        (void)reloadPresetList(); // logged there
    }
    return result;
}

/// Up to the save; nothing is changed unless the result is RESULT_OK.
ResultCode prepareSetPreset(const blob_attr* const (&args)[SET_ARG_COUNT], PresetTable& table, PresetRequest& wanted)
{
    if (const ResultCode busy = refusedBy(LENS_MASK | PANORAMA); busy != RESULT_OK)
        return busy;
    if (const ResultCode result = readRequest(args, wanted); result != RESULT_OK)
        return result;
    if (const ResultCode result = choosePlace(table, wanted); result != RESULT_OK)
        return result;
    if (wanted.savePosition)
        return capture(wanted.position);
    return RESULT_OK;
}

/// Frees the slots of ids. @return false at the first that is outside 1..8; those before it are free then.
bool freeSlots(PresetTable& table, const int32_t* ids, int32_t count)
{
    for (int32_t i = 0; i < count; ++i) {
        if (!validId(ids[i]))
            return false;
        int32_t& slot = table.presetSlotOfId[ids[i] - 1];
        if (slot != 0)
            table.presetTable[slot - 1].enabled = 0;
        slot = 0;
    }
    return true;
}

/// Moves the enabled slots down to the front, in their order.
void pack(PresetTable& table)
{
    int32_t to = 0;
    for (PresetEntry& entry : table.presetTable) {
        if (entry.enabled == 0)
            continue;
        PresetEntry& target = table.presetTable[to++];
        table.presetSlotOfId[entry.id - 1] = to;
        if (&target == &entry)
            continue;
        target = entry;
        entry.enabled = 0;
        clearPosition(entry);
    }
}

void addPosition(float position)
{
    char text[64]; // the longest float has 39 digits before its point
    (void)snprintf(text, sizeof(text), "%0.6f", static_cast<double>(position));
    replyAddText(nullptr, text);
}

/// Adds the five arrays of the enabled presets with ids above `after`, at most `last`, in the order of their slots.
void addPresets(int64_t after, int64_t last)
{
    const PresetTable table = presetTableNow();
    const auto addArray = [&](const char* name, void (*add)(const PresetEntry&)) {
        void* array = replyOpenArray(name);
        for (const PresetEntry& entry : table.presetTable)
            if (entry.enabled != 0 && entry.id > after && entry.id <= last)
                add(entry);
        replyClose(array);
    };
    addArray("id", [](const PresetEntry& entry) { replyAddDecimal(nullptr, entry.id); });
    addArray("name", [](const PresetEntry& entry) { replyAddText(nullptr, entry.name); });
    addArray("read_only", [](const PresetEntry& entry) { replyAddDecimal(nullptr, entry.read_only); });
    addArray("position_pan", [](const PresetEntry& entry) { addPosition(entry.position_pan); });
    addArray("position_tilt", [](const PresetEntry& entry) { addPosition(entry.position_tilt); });
}

void replyPresets(const Call& call)
{
    replyAddInt("error_code", RESULT_OK);
    replySend(call);
}

} // namespace

void ubusSetPreset(const Call& call)
{
    LOG_TRACE("UBUS: rcv msg sucessed.\n");
    blob_attr* args[SET_ARG_COUNT];
    parseArgs(setPresetPolicy, args, call);
    PresetTable table = presetTableNow();
    PresetRequest wanted{};
    if (const ResultCode refused = prepareSetPreset(args, table, wanted); refused != RESULT_OK)
        return replyCode(call, refused);
    enter(table, wanted);
    const int32_t result = keep(table);
    replyBegin();
    replyAddText("name", presetTableNow().presetTable[wanted.slot - 1].name);
    replyAddDecimal("id", wanted.id);
    replyAddInt("error_code", result);
    replySend(call);
}

void ubusDeletePreset(const Call& call)
{
    LOG_TRACE("UBUS: rcv msg sucessed.\n");
    blob_attr* args[std::size(deletePresetPolicy)];
    parseArgs(deletePresetPolicy, args, call);
    if (!args[0]) {
        LOG_ERROR("error to get ID list\n");
        return replyCode(call, ERR_PARAM);
    }
    if (nestedTooDeeply(args[0]))
        return replyCode(call, ERR_PARAM);
    const Owned<char> text(blobmsg_format_json(args[0], false));
    int32_t ids[PRESET_COUNT];
    const int32_t count = string_to_int_list(text.get(), ids, PRESET_COUNT);
    if (count <= 0)
        return replyCode(call, ERR_PARAM);
    PresetTable table = presetTableNow();
    if (!freeSlots(table, ids, count)) {
        presetTableSet(table); // the ids before the wrong one are gone from memory, but not from storage
        return replyCode(call, ERR_PARAM);
    }
    pack(table);
    (void)keep(table); // a failure is not answered
    replyCode(call, plan_drop_presets({ids, static_cast<size_t>(count)}));
}

void ubusClearPreset(const Call& call)
{
    LOG_TRACE("UBUS: rcv msg sucessed.\n");
    PresetTable table = presetTableNow();
    for (int32_t& slot : table.presetSlotOfId)
        slot = 0;
    for (PresetEntry& entry : table.presetTable) {
        entry.enabled = 0;
        clearPosition(entry);
    }
    (void)keep(table); // a failure is not answered
    replyCode(call, plan_drop_all());
}

void ubusGetPresetAll(const Call& call)
{
    LOG_TRACE("UBUS: rcv msg sucessed.\n");
    replyBegin();
    addPresets(0, PRESET_COUNT);
    replyPresets(call);
}

void ubusGetPresetPage(const Call& call)
{
    LOG_TRACE("UBUS: rcv msg sucessed.\n");
    std::array<int32_t, PAGE_ARG_COUNT> values{};
    if (!decimalArgs(presetPagePolicy, values, call) || values[PAGE_START] < 0 || values[PAGE_COUNT] < 1)
        return replyCode(call, ERR_PARAM);
    replyBegin();
    void* outer = replyOpenTable("preset");
    void* inner = replyOpenTable("preset");
    addPresets(values[PAGE_START], static_cast<int64_t>(values[PAGE_START]) + values[PAGE_COUNT]);
    replyClose(inner);
    replyClose(outer);
    replyPresets(call);
}

void ubusSetPresetConfig(const Call& call)
{
    LOG_TRACE("UBUS: rcv msg sucessed.\n");
    blob_attr* args[CONFIG_ARG_COUNT];
    parseArgs(presetConfigPolicy, args, call);
    if (!args[CONFIG_FREEZE] || !args[CONFIG_SPEED])
        return replyCode(call, ERR_PARAM);
    const int32_t freeze = decimalArg(args[CONFIG_FREEZE]);
    float speed = 0;
    if ((freeze != 0 && freeze != 1) || string_to_float(textArg(args[CONFIG_SPEED]), &speed) != 0 ||
        !std::isfinite(speed))
        return replyCode(call, ERR_PARAM);
    constexpr char section[] = "preset_config";
    int32_t result = RESULT_OK;
    {
        const UciTransaction transaction(UCI_PTZD);
        if (cfg_uci_set_float_value(UCI_PTZD, section, "speed", speed) != 0) {
            LOG_ERROR("error to set option %s.speed\n", section);
            result = ERR_DEVICE;
        } else if (cfg_uci_set_int_value(UCI_PTZD, section, "image_freeze_enabled", freeze) != 0) {
            LOG_ERROR("error to set option %s.image_freeze_enabled\n", section);
            result = ERR_DEVICE;
        }
        if (const int32_t committed = transaction.commit(); committed != 0) {
            result = result != RESULT_OK ? result : committed;
            (void)cfg_uci_pkg_reload(UCI_PTZD); // logged there; no later commit shall store what was answered as failed
        }
    }
    replyCode(call, result);
}

void ubusReloadPresetConfig(const Call& call)
{
    LOG_TRACE("UBUS: rcv msg sucessed.\n");
    replyCode(call, reloadPresetConfig());
}
