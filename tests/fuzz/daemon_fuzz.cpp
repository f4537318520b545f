#include "daemon_fuzz.h"

#include "preset/preset_store.h"
#include "ubus/notify.h"

#include <string.h>

namespace {

constexpr int WORKER_TURNS = 300;

/// In six decimals, as positions are stored.
std::string decimals(float position)
{
    char text[64];
    (void)snprintf(text, sizeof(text), "%0.6f", static_cast<double>(position));
    return text;
}

/// Whether two slots are stored alike.
bool sameEntry(const PresetEntry& a, const PresetEntry& b)
{
    return a.id == b.id && a.read_only == b.read_only && a.enabled == b.enabled && strcmp(a.name, b.name) == 0 &&
           decimals(a.position_pan) == decimals(b.position_pan) &&
           decimals(a.position_tilt) == decimals(b.position_tilt) &&
           decimals(a.position_zoom) == decimals(b.position_zoom);
}

} // namespace

int32_t fuzzDaemon(const Settings& settings, const std::function<void()>& inside)
{
    fakes.turnsLeft = WORKER_TURNS;
    fakes.timeStride = time_t{997} * 60; // through the minutes of all weekdays
    return rig::run(settings, inside);
}

void runWorkers()
{
    while (!fakes.workers.empty()) {
        fakes.turnsLeft = WORKER_TURNS;
        fakes.runWorker();
    }
    fakes.turnsLeft = WORKER_TURNS;
    fakeMotor.requests.clear(); // a rotation test makes many
}

void expire(unsigned timer)
{
    const DaemonTimer& record = rig::timerAt(timer);
    if (fakes.armed(record))
        record.callback(record.argument);
}

std::optional<std::vector<uint8_t>> messageFrom(Input input)
{
    enum { RAW, JSON, DAMAGED, FORMS };
    const int form = input.byte() % FORMS;
    if (form == RAW) {
        const Bytes raw = input.rest();
        return std::vector<uint8_t>(raw.begin(), raw.end());
    }
    const Bytes damage = input.bytes(form == DAMAGED ? size_t{3} * (input.byte() % 8) : 0);
    auto attributes = rig::messageOf(asText(input.rest()));
    for (Input patches(damage); attributes && !attributes->empty() && !patches.empty();) {
        const size_t at = patches.word() % attributes->size();
        (*attributes)[at] = patches.byte();
    }
    return attributes;
}

void checkState()
{
    const PresetTable table = presetTableNow();
    for (int32_t id = 1; id <= PRESET_COUNT; ++id) {
        const int32_t slot = table.presetSlotOfId[id - 1];
        RIG_CHECK(slot >= 0 && slot <= PRESET_COUNT, "id %d: slot %d\n", id, slot);
        if (slot == 0)
            continue;
        const PresetEntry& entry = table.presetTable[slot - 1];
        RIG_CHECK(entry.enabled != 0 && entry.id == id, "id %d: slot %d has id %d\n", id, slot, entry.id);
    }
    bool moving = false;
    for (const FakeNotification& sent : fakes.notifications) {
        RIG_CHECK(sent.state != NOTIFY_MOVING || !moving, "moving is announced twice\n");
        moving = sent.state == NOTIFY_MOVING;
    }
}

void checkPresetsStored()
{
    checkState();
    const PresetTable memory = presetTableNow();
    for (int32_t slot = 1; slot <= PRESET_COUNT; ++slot) {
        const PresetEntry& entry = memory.presetTable[slot - 1];
        if (entry.enabled == 0)
            continue;
        RIG_CHECK(entry.id >= 1 && entry.id <= PRESET_COUNT, "slot %d: id %d\n", slot, entry.id);
        RIG_CHECK(memory.presetSlotOfId[entry.id - 1] == slot, "id %d is in two slots, or in none\n", entry.id);
    }
    const int32_t current = gContext.motion.tourCurrentPresetId.load();
    RIG_CHECK(reloadPresetList() == RESULT_OK, "what was stored cannot be read\n");
    gContext.motion.tourCurrentPresetId.store(current);
    const PresetTable file = presetTableNow();
    for (int32_t slot = 1; slot <= PRESET_COUNT; ++slot) {
        PresetEntry entry = memory.presetTable[slot - 1];
        if (entry.name[0] == '\0') // stored as none, for which the section's name is read
            (void)snprintf(entry.name, sizeof(entry.name), "preset_%d", slot);
        RIG_CHECK(sameEntry(entry, file.presetTable[slot - 1]), "slot %d\n", slot);
        RIG_CHECK(memory.presetSlotOfId[slot - 1] == file.presetSlotOfId[slot - 1], "id %d\n", slot);
    }
}
