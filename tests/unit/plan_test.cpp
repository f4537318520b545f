// The weekly plan: what is no day, and what a stored one is read as.

#include "config/uci_store.h"
#include "fakes/stored_head.h"
#include "preset/preset_methods.h"
#include "preset/preset_store.h"
#include "tour/plan.h"
#include "tour/tour_state.h"

namespace {

class Plan : public StoredHead {
protected:
    void SetUp() override
    {
        StoredHead::SetUp();
        for (int day = 0; day < WEEK_DAYS; ++day) {
            gContext.tour.planScratchTables[day] = scratch[day];
            gContext.tour.activePlan.tables[day] = active[day];
        }
        gContext.tour.pendingPlan = {};
        gContext.tour.planChanged.store(0);
    }
    void TearDown() override
    {
        gContext.tour.activePlan = {};
        gContext.tour.pendingPlan = {};
        for (PlanEntry*& table : gContext.tour.planScratchTables)
            table = nullptr;
        StoredHead::TearDown();
    }
    /// A section of the stored plan.
    static std::string section(const std::string& name, int start, const std::string& end, const std::string& action,
                               const std::string& id = "")
    {
        const auto option = [](const char* key, const std::string& value) {
            return std::string("\toption ") + key + " '" + value + "'\n";
        };
        return "config " + name.substr(0, name.find('_')) + " '" + name + "'\n" +
               option("start_time", std::to_string(start)) + option("end_time", end) + option("action_type", action) +
               (id.empty() ? "" : option("action_id", id));
    }
    /// An element of a request's weekday.
    static std::string range(const std::string& name, int start, int end, const std::string& rest)
    {
        return R"({")" + name + R"(":{"start_time":)" + std::to_string(start) + R"(,"end_time":)" +
               std::to_string(end) + "," + rest + "}}";
    }
    static std::string preset(const std::string& name, int start, int end, const std::string& id)
    {
        return range(name, start, end, R"("action_type":"preset","action_id":")" + id + R"(")");
    }
    static std::string disable(const std::string& name, int start, int end)
    {
        return range(name, start, end, R"("action_type":"disable")");
    }
    static int set(const std::string& day, const std::string& ranges)
    {
        return answer(call(plan_modify_plan, R"({")" + day + R"(":[)" + ranges + "]}"));
    }
    static int answer(const std::string& reply)
    {
        int code = 1;
        EXPECT_EQ(sscanf(reply.c_str(), R"({"error_code":%d})", &code), 1) << reply;
        return code;
    }
    static const PlanEntry& entry(int day, int index)
    {
        return gContext.tour.activePlan.tables[day][index];
    }

    PlanEntry scratch[WEEK_DAYS][PLAN_DAY_ENTRIES] = {};
    PlanEntry active[WEEK_DAYS][PLAN_DAY_ENTRIES] = {};
};

TEST_F(Plan, LoadsWhatIsStoredGapsAndUnknownActionsIncluded)
{
    write("ptz_plan", section("friday_7", 1, "2", "disable") + section("sunday_1", 480, "720", "preset", "2x") +
                          section("sunday_2", 720, "1440", "preset") + section("tuesday_3", 1, "2", "goto"));
    ASSERT_EQ(plan_load_plan(), PLAN_OK);
    EXPECT_EQ(entry(5, 0).valid, 0);
    EXPECT_EQ(entry(5, 6).valid, 1) << "a gap before it is allowed";
    EXPECT_EQ(entry(5, 6).action_type, PLAN_ACTION_DISABLE);
    EXPECT_EQ(gContext.tour.activePlan.counts[0], 2);
    EXPECT_EQ(entry(0, 0).action_type, PLAN_ACTION_PRESET);
    EXPECT_EQ(entry(0, 0).start_time, 480);
    EXPECT_EQ(planPresetId(entry(0, 0)), 2);
    EXPECT_EQ(planPresetId(entry(0, 1)), 0) << "without an id";
    EXPECT_EQ(entry(2, 2).action_type, PLAN_ACTION_UNKNOWN);
    EXPECT_EQ(entry(2, 2).valid, 1);
    EXPECT_TRUE(reported("plan_check_plan_list_all", "week[2] error!"));
    EXPECT_EQ(fakes.reports.size(), 1u);
}

TEST_F(Plan, AnEntryThatCannotBeReadEmptiesTheActivePlan)
{
    write("ptz_plan", section("sunday_1", 1, "2", "preset"));
    ASSERT_EQ(plan_load_plan(), PLAN_OK);
    write("ptz_plan", section("sunday_1", 1, "2", "preset") + section("saturday_10", 1, "x", "preset"));
    EXPECT_EQ(plan_load_plan(), PLAN_STORAGE);
    EXPECT_TRUE(reported("plan_load_plan", "error to load timer plan, rebuild it"));
    EXPECT_EQ(entry(0, 0).valid, 0);
    EXPECT_EQ(gContext.tour.activePlan.counts[0], 0);
}

TEST_F(Plan, RefusesWhatIsNoDay)
{
    const std::string before = file("ptz_plan");
    const std::string wrong[] = {
        disable("monday_1", 480, 720) + "," + disable("monday_2", 700, 900),
        disable("monday_1", 0, 1441),
        disable("monday_1", -1, 5),
        disable("monday_1", 6, 5),
        disable("monday_2", 1, 2),
        range("monday_1", 1, 2, R"("action_type":"goto")"),
        range("monday_1", 1, 2, R"("action_id":"1")"),
        R"({"monday_1":{"start_time":1,"action_type":"disable"}})",
        R"({"monday_1":{"end_time":1,"action_type":"disable"}})",
        R"({"monday_1":5})",
        R"(5)",
    };
    for (const std::string& ranges : wrong)
        EXPECT_EQ(set("monday", ranges), PLAN_INVALID) << ranges;
    EXPECT_EQ(file("ptz_plan"), before);
    std::string eleven;
    for (int i = 1; i <= 11; ++i)
        eleven += (i > 1 ? "," : "") + disable("sunday_" + std::to_string(i), i, i + 1);
    EXPECT_EQ(set("sunday", eleven), PLAN_INVALID);
    EXPECT_EQ(set("sunday", eleven.substr(0, eleven.rfind(",{"))), PLAN_OK) << "ten are fine";
    EXPECT_EQ(gContext.tour.planChanged.load(), 1);
    EXPECT_EQ(set("tuesday", disable("tuesday_1", 5, 5)), PLAN_OK) << "an empty range";
    EXPECT_EQ(call(plan_modify_plan), R"({"error_code":0})") << "no day at all";
}

TEST_F(Plan, ActionIdsHave64BytesAtMost)
{
    const std::string id = "7" + std::string(63, 'x');
    EXPECT_EQ(set("sunday",
                  preset("sunday_1", 1, 2, id + "cut") + "," + range("sunday_2", 2, 3, R"("action_type":"preset")")),
              PLAN_OK);
    EXPECT_NE(file("ptz_plan").find("action_id '" + id + "'\n"), std::string::npos) << file("ptz_plan");
    EXPECT_NE(file("ptz_plan").find("action_id 'NULL'\n"), std::string::npos);
    EXPECT_EQ(planPresetId(scratch[0][0]), 7);
    ASSERT_EQ(plan_load_plan(), PLAN_OK);
    EXPECT_EQ(planPresetId(entry(0, 0)), 7);
    EXPECT_EQ(planPresetId(entry(0, 1)), 0);
}

TEST_F(Plan, WithoutARequestSinceTheStartADeletionLeavesTheStoredPlan)
{
    write("ptz_plan", section("sunday_1", 1, "2", "preset", "1"));
    ASSERT_EQ(cfg_uci_init(), 0);
    EXPECT_EQ(answer(call(ubusDeletePreset, R"({"id":["1"]})")), PLAN_OK);
    EXPECT_EQ(answer(call(ubusClearPreset)), PLAN_OK);
    EXPECT_NE(file("ptz_plan").find("sunday_1"), std::string::npos);
}

TEST_F(Plan, AFailedCommitIsAnsweredAndNotFollowed)
{
    ASSERT_EQ(set("sunday", preset("sunday_1", 1, 2, "1")), PLAN_OK);
    gContext.tour.planChanged.store(0);
    const std::string before = file("ptz_plan");
    spoilStore();
    EXPECT_EQ(set("sunday", disable("sunday_1", 1, 2)), CFG_UCI_FAILED);
    EXPECT_EQ(gContext.tour.planChanged.load(), 0);
    EXPECT_EQ(file("ptz_plan"), before);
    char action[16] = "";
    EXPECT_EQ(cfg_uci_get_string_value(UCI_PTZ_PLAN, "sunday_1", "action_type", action, sizeof(action)), 0);
    EXPECT_STREQ(action, "preset") << "the loaded package is as stored";
}

} // namespace
