#include "tour/plan.h"

#include "config/uci_store.h"
#include "core/log.h"
#include "core/numbers.h"
#include "tour/tour_state.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

namespace {

constexpr int32_t DAY_MINUTES = 24 * 60;
constexpr const char* ACTION_NAMES[] = {"disable", "preset"};

/// action_id with the NUL that 64 bytes of text leave no room for.
struct ActionText {
    char text[sizeof(PlanEntry::action_id) + 1];
};

ActionText actionText(const PlanEntry& entry)
{
    ActionText action{};
    memcpy(action.text, entry.action_id, sizeof(entry.action_id));
    return action;
}

void clearActivePlan()
{
    for (int day = 0; day < WEEK_DAYS; ++day) {
        gContext.tour.activePlan.counts[day] = 0;
        std::fill_n(gContext.tour.activePlan.tables[day], PLAN_DAY_ENTRIES, PlanEntry{});
    }
}

/// @return false when an option that every entry has cannot be read.
bool readEntry(const char* section, PlanEntry& entry)
{
    char action[16] = "";
    // A preset's id may be missing: the entry then has no target.
    (void)cfg_uci_get_string_value(UCI_PTZ_PLAN, section, "action_id", entry.action_id, sizeof(entry.action_id));
    if (cfg_uci_get_int_value(UCI_PTZ_PLAN, section, "start_time", &entry.start_time) != 0 ||
        cfg_uci_get_int_value(UCI_PTZ_PLAN, section, "end_time", &entry.end_time) != 0 ||
        cfg_uci_get_string_value(UCI_PTZ_PLAN, section, "action_type", action, sizeof(action)) != 0)
        return false;
    entry.action_type = PLAN_ACTION_UNKNOWN;
    for (const PlanAction known : {PLAN_ACTION_DISABLE, PLAN_ACTION_PRESET})
        if (strcmp(action, ACTION_NAMES[known]) == 0)
            entry.action_type = known;
    entry.valid = 1;
    return true;
}

/// The options of a section that exists; one that cannot be written is missing from what is stored.
void writeEntry(const char* section, const PlanEntry& entry)
{
    const bool preset = entry.action_type == PLAN_ACTION_PRESET;
    (void)cfg_uci_set_int_value(UCI_PTZ_PLAN, section, "start_time", entry.start_time);
    (void)cfg_uci_set_int_value(UCI_PTZ_PLAN, section, "end_time", entry.end_time);
    (void)cfg_uci_set_string_value(UCI_PTZ_PLAN, section, "action_type",
                                   ACTION_NAMES[preset ? PLAN_ACTION_PRESET : PLAN_ACTION_DISABLE]);
    if (preset)
        (void)cfg_uci_set_string_value(UCI_PTZ_PLAN, section, "action_id", actionText(entry).text);
}

bool inPlan(const DayPlanSet& plan, int day)
{
    return (plan.dayMask >> day & 1) != 0;
}

/// Marks the entries of the pending plan's days invalid that `drop` names, and stores the plan.
template <typename Drop>
int32_t dropEntries(Drop drop)
{
    DayPlanSet& plan = gContext.tour.pendingPlan;
    for (int day = 0; day < WEEK_DAYS; ++day)
        for (int i = 0; inPlan(plan, day) && i < PLAN_DAY_ENTRIES; ++i)
            if (drop(plan.tables[day][i]))
                plan.tables[day][i].valid = 0;
    return plan_save_pending();
}

} // namespace

PlanEntryName planEntryName(int day, int number)
{
    PlanEntryName name{};
    (void)snprintf(name.text, sizeof(name.text), "%s_%d", planPolicy[day].name, number);
    return name;
}

int32_t planPresetId(const PlanEntry& entry)
{
    const long long id = strtoll(actionText(entry).text, nullptr, 10);
    return saturated32(id);
}

bool plan_check_plan_list(const PlanEntry* table, int32_t expected)
{
    if (!table)
        return false;
    int32_t count = 0;
    int32_t earliest = 0;
    for (const PlanEntry& entry : std::span(table, PLAN_DAY_ENTRIES)) {
        if (entry.valid == 0)
            continue;
        if (entry.start_time > entry.end_time || entry.start_time < earliest || entry.end_time > DAY_MINUTES ||
            (entry.action_type != PLAN_ACTION_DISABLE && entry.action_type != PLAN_ACTION_PRESET))
            return false;
        earliest = entry.end_time;
        ++count;
    }
    return count == expected;
}

bool plan_check_plan_list_all(const DayPlanSet& plan)
{
    for (int day = 0; day < WEEK_DAYS; ++day) {
        if (!plan_check_plan_list(plan.tables[day], plan.counts[day])) {
            LOG_ERROR("week[%d] error!\n", day);
            return false;
        }
    }
    return true;
}

int32_t plan_load_plan()
{
    const UciTransaction transaction(UCI_PTZ_PLAN);
    cfg_uci_pkg_reload(UCI_PTZ_PLAN);
    clearActivePlan();
    DayPlanSet& plan = gContext.tour.activePlan;
    for (int day = 0; day < WEEK_DAYS; ++day) {
        for (int number = 1; number <= PLAN_DAY_ENTRIES; ++number) {
            const PlanEntryName section = planEntryName(day, number);
            PlanEntry& entry = plan.tables[day][number - 1];
            entry.weekday = day;
            if (!cfg_uci_get_section(UCI_PTZ_PLAN, section.text))
                continue;
            if (!readEntry(section.text, entry)) {
                LOG_ERROR("error to load timer plan, rebuild it\n");
                clearActivePlan();
                return PLAN_STORAGE;
            }
            ++plan.counts[day];
        }
    }
    (void)plan_check_plan_list_all(plan); // logged there
    return PLAN_OK;
}

int32_t plan_save_plan(DayPlanSet plan)
{
    const UciTransaction transaction(UCI_PTZ_PLAN);
    for (int day = 0; day < WEEK_DAYS; ++day) {
        if (!inPlan(plan, day))
            continue;
        for (int number = 1; number <= PLAN_DAY_ENTRIES; ++number) {
            const PlanEntryName section = planEntryName(day, number);
            const PlanEntry& entry = plan.tables[day][number - 1];
            if (cfg_uci_delete(UCI_PTZ_PLAN, section.text, planPolicy[day].name) != 0 ||
                (entry.valid != 0 && cfg_uci_set_section(UCI_PTZ_PLAN, section.text, planPolicy[day].name) != 0)) {
                LOG_ERROR("error to save plan\n");
                cfg_uci_pkg_reload(UCI_PTZ_PLAN); // the next save must not store half of this one
                return PLAN_STORAGE;
            }
            if (entry.valid != 0)
                writeEntry(section.text, entry);
        }
    }
    LOG_AT(LOG_LEVEL_NOTE, "success to save plan\n");
    const int32_t result = transaction.commit();
    if (result != 0)
        cfg_uci_pkg_reload(UCI_PTZ_PLAN);
    return result;
}

int32_t plan_save_pending()
{
    const int32_t result = plan_save_plan(gContext.tour.pendingPlan);
    if (result == PLAN_OK)
        gContext.tour.planChanged.store(1);
    return result;
}

int32_t plan_drop_presets(std::span<const int32_t> ids)
{
    return dropEntries([&](const PlanEntry& entry) {
        return entry.action_type == PLAN_ACTION_PRESET &&
               std::find(ids.begin(), ids.end(), planPresetId(entry)) != ids.end();
    });
}

int32_t plan_drop_all()
{
    return dropEntries([](const PlanEntry&) { return true; });
}
