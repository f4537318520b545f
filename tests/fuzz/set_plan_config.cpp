// set_plan_config: any message, on a plan that is stored already.

#include "daemon_rig.h"
#include "preset/preset_store.h"
#include "tour/plan.h"
#include "tour/tour_state.h"

#include <string.h>

namespace {

DaemonRig rig;

/// An entry a day, and two on Sundays.
std::string storedPlan()
{
    std::string text;
    for (int day = 0; day < WEEK_DAYS; ++day)
        for (int number = 1; number <= (day == 0 ? 2 : 1); ++number)
            text += "config " + std::string(planPolicy[day].name) + " '" + planEntryName(day, number).text +
                    "'\n\toption start_time '" + std::to_string(60 * number) + "'\n\toption end_time '" +
                    std::to_string(60 * number + 60) + "'\n\toption action_type 'preset'\n\toption action_id '" +
                    std::to_string(day + 1) + "'\n";
    return text;
}

std::vector<PlanEntry> day(const DayPlanSet& plan, int number)
{
    return {plan.tables[number], plan.tables[number] + PLAN_DAY_ENTRIES};
}

/// The id as it is stored: a byte less than what the request may hold, and none that the store would not give back.
std::string storedId(const PlanEntry& entry)
{
    const std::string id(entry.action_id, strnlen(entry.action_id, sizeof(entry.action_id)));
    return presetNameStorable(id.c_str()) ? id.substr(0, sizeof(entry.action_id) - 1) : "";
}

bool sameRange(const PlanEntry& a, const PlanEntry& b)
{
    if (a.valid == 0 || b.valid == 0)
        return a.valid == b.valid;
    return a.action_type == b.action_type && a.start_time == b.start_time && a.end_time == b.end_time &&
           (a.action_type != PLAN_ACTION_PRESET || storedId(a) == storedId(b));
}

/// The stored plan is the pending one in the days that this names, and what it was in the others.
void checkStored(const std::vector<std::vector<PlanEntry>>& before)
{
    FUZZ_CHECK(plan_load_plan() == PLAN_OK, "what was stored cannot be read\n");
    const DayPlanSet& active = gContext.tour.activePlan;
    const DayPlanSet& pending = gContext.tour.pendingPlan;
    FUZZ_CHECK(plan_check_plan_list_all(active), "an invalid plan is stored\n");
    for (int number = 0; number < WEEK_DAYS; ++number) {
        const bool given = (pending.dayMask >> number & 1) != 0;
        const std::vector<PlanEntry> expected = given ? day(pending, number) : before[static_cast<size_t>(number)];
        const std::vector<PlanEntry> now = day(active, number);
        FUZZ_CHECK(std::equal(now.begin(), now.end(), expected.begin(), sameRange), "day %d\n", number);
    }
}

void change(const std::vector<uint8_t>& message)
{
    DaemonRig::runWorkers();
    FUZZ_CHECK(plan_load_plan() == PLAN_OK, "the plan that was given cannot be read\n");
    std::vector<std::vector<PlanEntry>> before;
    for (int number = 0; number < WEEK_DAYS; ++number)
        before.push_back(day(gContext.tour.activePlan, number));
    const std::string plan = DaemonRig::stored("ptz_plan");
    const std::string presets = DaemonRig::stored("ptzd");
    const int32_t code = DaemonRig::call("set_plan_config", message);
    FUZZ_CHECK(code == PLAN_OK || code == PLAN_INVALID, "code %d\n", code);
    FUZZ_CHECK(DaemonRig::stored("ptzd") == presets, "presets have changed\n");
    if (code == PLAN_OK)
        checkStored(before);
    else
        FUZZ_CHECK(DaemonRig::stored("ptz_plan") == plan, "a refusal has changed what is stored\n");
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto message = messageFrom(Input(data, size));
    if (!message)
        return -1;
    const int32_t result = rig.run({{"ptz_plan", storedPlan()}}, [&] { change(*message); });
    FUZZ_CHECK(result == 0, "did not start\n");
    return 0;
}
