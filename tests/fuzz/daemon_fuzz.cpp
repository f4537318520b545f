#include "daemon_fuzz.h"

#include "preset/preset_store.h"
#include "ubus/notify.h"

namespace {

constexpr int WORKER_TURNS = 300;
}

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
        RIG_CHECK(sent.first != NOTIFY_MOVING || !moving, "moving is announced twice\n");
        moving = sent.first == NOTIFY_MOVING;
    }
}

void checkPresetsStored()
{
    checkState();
    const auto list = [] {
        (void)rig::call("getPresetAll");
        return fakes.reply;
    };
    const std::string before = list();
    const int32_t current = gContext.motion.tourCurrentPresetId.load();
    RIG_CHECK(reloadPresetList() == RESULT_OK, "what was stored cannot be read\n");
    gContext.motion.tourCurrentPresetId.store(current);
    const bool unnamed = before.find(R"("")") != before.npos; // stored as none, for which the section's name is read
    RIG_CHECK(unnamed || list() == before, "%s is not what is stored\n", before.c_str());
}
