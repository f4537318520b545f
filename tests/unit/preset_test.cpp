// Presets that come from awkward files, and the methods that page through them and set their speed.

#include "head.h"

namespace {

const std::string SETTINGS = "config preset_config 'preset_config'\n";

class Presets : public Head {
protected:
    void SetUp() override
    {
        Head::SetUp();
        rig::store("ptzd", SETTINGS);
        ASSERT_EQ(reloadPresetList(), RESULT_OK);
    }
    /// A stored preset; `without` leaves an option out.
    static std::string preset(int slot, int id, int enabled, const std::string& without = "")
    {
        std::vector<std::pair<std::string, std::string>> options = {
            {"id", std::to_string(id)},          {"read_only", "1"},       {"name", "gate"},
            {"position_pan", "-0.25"},           {"position_tilt", "0.5"}, {"position_zoom", "0.125"},
            {"enabled", std::to_string(enabled)}};
        std::erase_if(options, [&](const auto& option) { return option.first == without; });
        return section("preset", "preset_" + std::to_string(slot), options);
    }
    static PresetEntry slot(int number)
    {
        return presetTableNow().presetTable[number - 1];
    }
    static std::string setNamed(const std::string& id, const std::string& name)
    {
        return call("setPreset", R"({"id":")" + id + R"(","name":")" + name + "\"}");
    }
    static std::string done(const std::string& name, const std::string& id, int code = 0)
    {
        return R"({"name":")" + name + R"(","id":")" + id + R"(","error_code":)" + std::to_string(code) + "}";
    }
    static std::string ids()
    {
        const std::string all = call("getPresetAll");
        return all.substr(0, all.find("],") + 1);
    }
};

TEST_F(Presets, LoadWhatIsStoredAndMapEnabledIdsOnly)
{
    gContext.motion.tourCurrentPresetId.store(4);
    rig::store("ptzd", preset(2, 5, 1) + preset(3, 6, 0) + preset(4, 0, 1) + preset(5, 9, 1) +
                           preset(6, -2147483647, 1) + preset(7, 8, 1) + preset(8, 1, 1, "name"));
    ASSERT_EQ(reloadPresetList(), RESULT_OK);
    EXPECT_EQ(gContext.motion.tourCurrentPresetId.load(), 0) << "the tour starts anew";
    PresetEntry found{};
    ASSERT_TRUE(presetFind(5, found));
    EXPECT_STREQ(found.name, "gate");
    EXPECT_EQ(std::tuple(found.position_pan, found.position_tilt, found.position_zoom),
              std::tuple(-0.25F, 0.5F, 0.125F));
    EXPECT_EQ(slot(3).id, 6);
    EXPECT_FALSE(presetFind(6, found)) << "not enabled";
    for (const int number : {4, 5, 6})
        EXPECT_EQ(slot(number).enabled, 0) << "a foreign id is a free slot: " << number;
    EXPECT_EQ(fakes.reports.size(), 3u);
    EXPECT_TRUE(presetFind(8, found)) << "the last id";
    ASSERT_TRUE(presetFind(1, found));
    EXPECT_STREQ(found.name, "preset_8") << "a missing name, unlike a missing section";
    EXPECT_STREQ(slot(1).name, "preset1");

    gContext.motion.tourCurrentPresetId.store(4);
    for (const char* option : {"id", "position_pan", "position_tilt", "position_zoom", "read_only", "enabled"}) {
        rig::store("ptzd", preset(1, 1, 1) + preset(2, 2, 1, option) + preset(3, 3, 1));
        EXPECT_EQ(reloadPresetList(), ERR_DEVICE);
        EXPECT_TRUE(reported("reloadPresetList", "preset_2." + std::string(option) + " is NULL")) << option;
        EXPECT_TRUE(presetFind(1, found));
        EXPECT_FALSE(presetFind(2, found) || presetFind(3, found)) << "it ends the load";
    }
    EXPECT_EQ(gContext.motion.tourCurrentPresetId.load(), 4);
}

TEST_F(Presets, ReadOnlyOnesAreNotOverwrittenButCleared)
{
    rig::store("ptzd", SETTINGS + preset(1, 3, 1));
    ASSERT_EQ(reloadPresetList(), RESULT_OK);
    EXPECT_EQ(setNamed("3", "new"), code(ERR_READ_ONLY));
    EXPECT_EQ(call("clearPreset"), code(0));
    EXPECT_EQ(ids(), R"({"id":[])");
    EXPECT_EQ(slot(1).read_only, 1);
    EXPECT_EQ(setNamed("1", "next"), done("next", "1"));
    EXPECT_STREQ(slot(2).name, "next") << "a read-only slot is not a free one";
}

// A file that cannot be read for a while holds no empty list: what is not known must not be stored later.
TEST_F(Presets, SurviveAFileThatCannotBeReadForAWhile)
{
    setNamed("1", "kept");
    const std::string whole = rig::stored("ptzd");
    rig::store("ptzd", "config preset 'unterminated\n");
    EXPECT_EQ(setNamed("2", "lost"), done("preset2", "2", ERR_DEVICE));
    EXPECT_EQ(ids(), R"({"id":["1"])");
    rig::store("ptzd", whole);
    EXPECT_EQ(setNamed("3", "third"), done("third", "3"));
    EXPECT_EQ(reloadPresetList(), RESULT_OK);
    EXPECT_EQ(ids(), R"({"id":["1","3"])");

    presetTableSet({}); // as after a start that could not read the file
    gContext.preset.presetsLoaded = false;
    EXPECT_EQ(setNamed("2", "early"), done("kept", "2", ERR_DEVICE));
    EXPECT_EQ(ids(), R"({"id":["1","3"])") << "loaded after all";
}

TEST_F(Presets, ComeInPages)
{
    for (int id = 1; id <= PRESET_COUNT; ++id)
        EXPECT_EQ(call("setPreset"), done("preset" + std::to_string(id), std::to_string(id)));
    EXPECT_EQ(call("setPreset"), code(ERR_NO_PRESET_LEFT));
    EXPECT_EQ(call("getPresetPage", R"({"start_id":"2","count":"2"})"),
              R"({"preset":{"preset":{"id":["3","4"],"name":["preset3","preset4"],"read_only":["0","0"],)"
              R"("position_pan":["0.000000","0.000000"],"position_tilt":["0.000000","0.000000"]}},"error_code":0})");
}

TEST_F(Presets, SettingsAreStoredAndLoadedOnRequest)
{
    const auto set = [](const std::string& freeze, const std::string& speed) {
        return call("setPresetConfig", R"({"image_freeze_enabled":")" + freeze + R"(","speed":")" + speed + R"("})");
    };
    for (const auto& [freeze, speed] : {std::pair{"2", "1"}, {"1", "fast"}, {"1", "nan"}, {"1", "-inf"}})
        EXPECT_EQ(set(freeze, speed), code(ERR_PARAM)) << freeze << speed;
    EXPECT_EQ(call("setPresetConfig", R"({"speed":"1"})"), code(ERR_PARAM));
    gContext.preset.presetSpeed = 7;
    EXPECT_EQ(set("1", "-0.5"), code(RESULT_OK));
    EXPECT_EQ(gContext.preset.presetSpeed, 7.0F);
    EXPECT_EQ(call("reloadPresetConfig"), code(RESULT_OK));
    EXPECT_EQ(gContext.preset.presetSpeed, -0.5F);
    rig::store("ptzd", SETTINGS + "\toption speed '0.5'\n");
    EXPECT_EQ(call("reloadPresetConfig"), code(ERR_DEVICE));
    EXPECT_TRUE(reported("reloadPresetConfig", "preset_config.image_freeze_enabled is NULL"));
    rig::spoilStore();
    EXPECT_EQ(set("0", "0.25"), code(CFG_UCI_FAILED));
    float speed = 0;
    EXPECT_EQ(cfg_uci_get_float_value(UCI_PTZD, "preset_config", "speed", &speed), 0);
    EXPECT_EQ(speed, 0.5F) << "the next commit would store what was answered as failed";
}

} // namespace
