// The weekly plan: what is no day, and what a stored one is read as.

#include "head.h"
#include "tour/plan.h"
#include "tour/touring.h"

namespace {

class Plan : public Head {
protected:
    void SetUp() override
    {
        Head::SetUp();
        ASSERT_EQ(TourInit(), 0);
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
        return rig::call("set_plan_config", R"({")" + day + R"(":[)" + ranges + "]}");
    }
    static bool stores(const std::string& text)
    {
        return rig::stored("ptz_plan").find(text) != std::string::npos;
    }
    static const PlanEntry& entry(int day, int index)
    {
        return gContext.tour.activePlan.tables[day][index];
    }
};

TEST_F(Plan, LoadsWhatIsStoredGapsAndUnknownActionsIncluded)
{
    const std::string withoutId =
        section("sunday", "sunday_2", {{"start_time", "720"}, {"end_time", "1440"}, {"action_type", "preset"}});
    rig::store("ptz_plan", planned("sunday_1", "480", "720", "preset", "2x") + withoutId +
                               planned("tuesday_3", "1", "2", "goto", "1"));
    ASSERT_EQ(plan_load_plan(), PLAN_OK);
    EXPECT_EQ(entry(0, 0).action_type, PLAN_ACTION_PRESET);
    EXPECT_EQ(planPresetId(entry(0, 0)), 2);
    EXPECT_EQ(planPresetId(entry(0, 1)), 0) << "without an id";
    EXPECT_EQ(entry(2, 0).valid, 0) << "a gap is allowed";
    EXPECT_EQ(entry(2, 2).action_type, PLAN_ACTION_UNKNOWN);
    EXPECT_TRUE(reported("plan_check_plan_list_all", "week[2] error!"));

    rig::store("ptz_plan",
               planned("sunday_1", "1", "2", "preset", "1") + planned("saturday_10", "1", "x", "preset", "1"));
    EXPECT_EQ(plan_load_plan(), PLAN_STORAGE);
    EXPECT_TRUE(reported("plan_load_plan", "error to load timer plan, rebuild it"));
    EXPECT_EQ(entry(0, 0).valid, 0) << "an entry that cannot be read empties the plan";
}

TEST_F(Plan, RefusesWhatIsNoDay)
{
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
    };
    for (const std::string& ranges : wrong)
        EXPECT_EQ(set("monday", ranges), PLAN_INVALID) << ranges;
    EXPECT_EQ(rig::stored("ptz_plan"), "");
    std::string eleven;
    for (int i = 1; i <= 11; ++i)
        eleven += (i > 1 ? "," : "") + disable("sunday_" + std::to_string(i), i, i + 1);
    EXPECT_EQ(set("sunday", eleven), PLAN_INVALID);
    EXPECT_EQ(set("sunday", eleven.substr(0, eleven.rfind(",{"))), PLAN_OK) << "ten are fine";
    EXPECT_EQ(gContext.tour.planChanged.load(), 1);
    EXPECT_EQ(set("friday", disable("friday_1", 0, 1440)), PLAN_OK) << "a whole day";
    EXPECT_EQ(call("set_plan_config"), code(PLAN_OK)) << "no day at all";
}

// The request that came last is what presets are taken out of.
TEST_F(Plan, LosesThePresetsThatAreDeleted)
{
    EXPECT_EQ(call("set_plan_config", R"({"sunday":[)" + preset("sunday_1", 1, 2, "1") + "," +
                                          preset("sunday_2", 2, 3, "2") + R"(],"friday":[)" +
                                          preset("friday_1", 1, 2, "2") + "]}"),
              code(PLAN_OK));
    EXPECT_TRUE(stores("sunday_1") && stores("sunday_2") && stores("friday_1"));
    EXPECT_EQ(call("delPreset", R"({"id":["1"]})"), code(PLAN_OK));
    EXPECT_FALSE(stores("sunday_1"));
    EXPECT_TRUE(stores("sunday_2"));
    EXPECT_EQ(call("clearPreset"), code(PLAN_OK));
    EXPECT_FALSE(stores("sunday_2") || stores("friday_1"));
}

TEST_F(Plan, AFailedSaveIsAnsweredAndLeavesNothingBehind)
{
    ASSERT_EQ(set("sunday", preset("sunday_1", 1, 2, "1")), PLAN_OK);
    gContext.tour.planChanged.store(0);
    fakes.failingChange = 5; // the section of the second range
    EXPECT_EQ(set("monday", disable("monday_1", 1, 2) + "," + disable("monday_2", 2, 3)), PLAN_STORAGE);
    EXPECT_TRUE(reported("plan_save_plan", "error to save plan"));
    EXPECT_EQ(gContext.tour.planChanged.load(), 0);
    EXPECT_EQ(set("friday", disable("friday_1", 1, 2)), PLAN_OK);
    EXPECT_FALSE(stores("monday")) << "half of what was answered as failed";

    const std::string before = rig::stored("ptz_plan");
    gContext.tour.planChanged.store(0);
    rig::spoilStore();
    EXPECT_EQ(set("sunday", disable("sunday_1", 1, 2)), CFG_UCI_FAILED);
    EXPECT_EQ(gContext.tour.planChanged.load(), 0);
    EXPECT_EQ(rig::stored("ptz_plan"), before);
    char action[16] = "";
    EXPECT_EQ(cfg_uci_get_string_value(UCI_PTZ_PLAN, "sunday_1", "action_type", action, sizeof(action)), 0);
    EXPECT_STREQ(action, "preset") << "the loaded package is as stored";
}

} // namespace
