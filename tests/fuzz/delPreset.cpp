// delPreset: any message, on any table of presets.

#include "daemon_fuzz.h"
#include "preset/preset_store.h"
#include "tour/plan.h"

namespace {

/// Slots 1..8 with the enabled ones of a mask, at ids that a shift turns about.
std::string presetSections(unsigned enabled, unsigned shift)
{
    std::string text;
    for (unsigned slot = 1; slot <= PRESET_COUNT; ++slot) {
        const unsigned id = (slot + shift) % PRESET_COUNT + 1;
        const std::string number = std::to_string(slot);
        text += "config preset 'preset_" + number + "'\n\toption id '" + std::to_string(id) +
                "'\n\toption read_only '" + std::to_string(slot % 2) + "'\n\toption name 'name " + number +
                "'\n\toption position_pan '0." + number + "'\n\toption position_tilt '-0." + number +
                "'\n\toption position_zoom '0'\n\toption enabled '" + std::to_string(enabled >> (slot - 1) & 1U) +
                "'\n";
    }
    return text;
}

PresetTable expectedAfter(PresetTable table, const PresetTable& now)
{
    for (PresetEntry& entry : table.presetTable)
        if (entry.enabled != 0 && now.presetSlotOfId[entry.id - 1] == 0)
            entry.enabled = 0;
    return table;
}

/// What is left is what was there, in its order, packed to the front.
void checkPacked(const PresetTable& before, const PresetTable& now)
{
    const PresetTable kept = expectedAfter(before, now);
    const PresetEntry* next = now.presetTable;
    for (const PresetEntry& entry : kept.presetTable) {
        if (entry.enabled == 0)
            continue;
        RIG_CHECK(next->enabled == 1 && next->id == entry.id && next->read_only == entry.read_only &&
                      next->position_pan == entry.position_pan && next->position_tilt == entry.position_tilt &&
                      std::string_view(next->name) == entry.name,
                  "id %d stands in the place of %d\n", next->id, entry.id);
        ++next;
    }
    for (; next != std::end(now.presetTable); ++next)
        RIG_CHECK(next->enabled == 0, "id %d is new\n", next->id);
}

void deleteFrom(const std::vector<uint8_t>& message)
{
    runWorkers();
    const PresetTable before = presetTableNow();
    const std::string presets = rig::stored("ptzd");
    const std::string plan = rig::stored("ptz_plan");
    const int32_t code = rig::call("delPreset", message);
    RIG_CHECK(code == RESULT_OK || code == ERR_PARAM, "code %d\n", code);
    checkState();
    RIG_CHECK(rig::stored("ptz_plan") == plan, "no pending plan, and yet it changed\n");
    if (code != RESULT_OK) {
        RIG_CHECK(rig::stored("ptzd") == presets, "a refusal has changed what is stored\n");
        return;
    }
    checkPacked(before, presetTableNow());
    checkPresetsStored();
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input input(data, size);
    const uint8_t enabled = input.byte();
    const uint8_t shift = input.byte();
    const auto message = messageFrom(input);
    if (!message)
        return -1;
    const std::string settings =
        "config ptzd 'config'\n\toption power_off_recover '1'\n" + presetSections(enabled, shift);
    rig::reset();
    const int32_t result = fuzzDaemon({{"ptzd", settings}}, [&] { deleteFrom(*message); });
    RIG_CHECK(result == 0, "did not start\n");
    return 0;
}
