// The request that sets the weekly plan.

#include "config/json_helpers.h"
#include "core/log.h"
#include "tour/tour_state.h"
#include "ubus/method_args.h"
#include "ubus/method_reply.h"

#include <json-c/json.h>
#include <string.h>

#include <algorithm>
#include <memory>

namespace {

struct ReleaseJson {
    void operator()(json_object* value) const
    {
        json_object_put(value);
    }
};

bool readAction(json_object* range, PlanEntry& entry)
{
    const char* action = json_get_string(range, "action_type");
    if (!action)
        return false;
    const bool preset = strcmp(action, "preset") == 0;
    if (!preset && strcmp(action, "disable") != 0)
        return false;
    entry.action_type = preset ? PLAN_ACTION_PRESET : PLAN_ACTION_DISABLE;
    const char* id = json_get_string(range, "action_id");
    if (!id)
        id = "NULL";
    memcpy(entry.action_id, id, strnlen(id, sizeof(entry.action_id)));
    return true;
}

/// One element of a weekday's array: an object whose member "sunday_1" and so on holds the range.
bool readRange(json_object* element, int day, int number, PlanEntry& entry)
{
    json_object* range = nullptr;
    if (!json_object_is_type(element, json_type_object) ||
        json_object_object_get_ex(element, planEntryName(day, number).text, &range) == 0)
        return false;
    entry.valid = 1;
    entry.weekday = day;
    return json_get_int(range, "start_time", &entry.start_time) == 0 &&
           json_get_int(range, "end_time", &entry.end_time) == 0 && readAction(range, entry);
}

bool readDay(blob_attr* argument, int day, DayPlanSet& plan)
{
    if (nestedTooDeeply(argument))
        return false;
    const std::unique_ptr<json_object, ReleaseJson> ranges(
        json_alloc_get_json_array_from_blobmsg_array(argument, planPolicy[day].name));
    if (!ranges || !plan.tables[day])
        return false;
    const size_t count = json_object_array_length(ranges.get());
    std::fill_n(plan.tables[day], PLAN_DAY_ENTRIES, PlanEntry{});
    plan.counts[day] = static_cast<int32_t>(std::min<size_t>(count, PLAN_DAY_ENTRIES + 1));
    plan.dayMask |= 1 << day;
    if (count > PLAN_DAY_ENTRIES)
        return false;
    for (size_t i = 0; i < count; ++i)
        if (!readRange(json_object_array_get_idx(ranges.get(), i), day, static_cast<int>(i) + 1, plan.tables[day][i]))
            return false;
    return true;
}

/// Builds the pending plan anew; a fault leaves it as far as it was built.
bool readPlan(blob_attr* const (&days)[WEEK_DAYS], DayPlanSet& plan)
{
    plan = {};
    std::copy_n(gContext.tour.planScratchTables, WEEK_DAYS, plan.tables);
    for (int day = 0; day < WEEK_DAYS; ++day)
        if (days[day] && !readDay(days[day], day, plan))
            return false;
    return true;
}

} // namespace

void plan_modify_plan(const Call& call)
{
    blob_attr* days[WEEK_DAYS];
    parseArgs(planPolicy, days, call);
    DayPlanSet& plan = gContext.tour.pendingPlan;
    if (!readPlan(days, plan))
        return replyCode(call, PLAN_INVALID);
    for (int day = 0; day < WEEK_DAYS; ++day) {
        if (days[day] && !plan_check_plan_list(plan.tables[day], plan.counts[day])) {
            LOG_AT(LOG_LEVEL_MISS, "check plan list error %d!\n", plan.counts[day]);
            return replyCode(call, PLAN_INVALID);
        }
    }
    replyCode(call, plan_save_pending());
}
