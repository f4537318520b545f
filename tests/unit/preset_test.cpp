// Presets that come from awkward files, and the methods that page through them and set their speed.

#include "config/uci_store.h"
#include "fakes/stored_head.h"
#include "preset/goto_preset.h"
#include "preset/preset_methods.h"
#include "preset/preset_store.h"

namespace {

const std::string SETTINGS = "config preset_config 'preset_config'\n";

class Presets : public StoredHead {
protected:
    void SetUp() override
    {
        StoredHead::SetUp();
        write("ptzd", SETTINGS);
        ASSERT_EQ(reloadPresetList(), RESULT_OK);
    }
    /// A stored preset; `without` leaves an option out.
    static std::string section(int slot, int id, int enabled, const std::string& without = "")
    {
        std::string text = "config preset 'preset_" + std::to_string(slot) + "'\n";
        const std::pair<std::string, std::string> options[] = {
            {"id", std::to_string(id)},
            {"read_only", "1"},
            {"name", "door"},
            {"position_pan", "-0.25"},
            {"position_tilt", "0.5"},
            {"position_zoom", "0.125"},
            {"enabled", std::to_string(enabled)},
        };
        for (const auto& [name, value] : options)
            if (name != without)
                text += "\toption " + name + " '" + value + "'\n";
        return text;
    }
    static PresetEntry slot(int number)
    {
        return presetTableNow().presetTable[number - 1];
    }
    static std::string set(const std::string& id, const std::string& name)
    {
        return call(ubusSetPreset, R"({"id":")" + id + R"(","name":")" + name + "\"}");
    }
    static std::string done(const std::string& name, const std::string& id, int code = 0)
    {
        return R"({"name":")" + name + R"(","id":")" + id + R"(","error_code":)" + std::to_string(code) + "}";
    }
    static std::string code(int value)
    {
        return R"({"error_code":)" + std::to_string(value) + "}";
    }
    static std::string ids()
    {
        const std::string all = call(ubusGetPresetAll);
        return all.substr(0, all.find("],") + 1);
    }
};

TEST_F(Presets, LoadWhatIsStoredAndMapEnabledIdsOnly)
{
    gContext.motion.tourCurrentPresetId.store(4);
    write("ptzd", section(2, 5, 1) + section(3, 6, 0) + section(8, 1, 1, "name"));
    ASSERT_EQ(reloadPresetList(), RESULT_OK);
    PresetEntry found{};
    ASSERT_TRUE(presetFind(5, found));
    EXPECT_STREQ(found.name, "door");
    EXPECT_EQ(found.position_pan, -0.25F);
    EXPECT_EQ(found.position_tilt, 0.5F);
    EXPECT_EQ(found.position_zoom, 0.125F);
    EXPECT_EQ(found.read_only, 1);
    EXPECT_FALSE(presetFind(6, found)) << "not enabled";
    EXPECT_EQ(slot(3).id, 6);
    ASSERT_TRUE(presetFind(1, found));
    EXPECT_STREQ(found.name, "preset_8") << "a missing name, unlike a missing section";
    EXPECT_STREQ(slot(1).name, "preset1");
    EXPECT_EQ(gContext.motion.tourCurrentPresetId.load(), 0) << "the tour starts anew";
    EXPECT_TRUE(fakes.reports.empty());
}

TEST_F(Presets, AnUnreadableOptionEndsTheLoad)
{
    gContext.motion.tourCurrentPresetId.store(4);
    for (const char* option : {"id", "position_pan", "position_tilt", "position_zoom", "read_only", "enabled"}) {
        fakes.reports.clear();
        write("ptzd", section(1, 1, 1) + section(2, 2, 1, option) + section(3, 3, 1));
        EXPECT_EQ(reloadPresetList(), ERR_DEVICE);
        EXPECT_TRUE(reported("reloadPresetList", "preset_2." + std::string(option) + " is NULL")) << option;
        PresetEntry found{};
        EXPECT_TRUE(presetFind(1, found));
        EXPECT_FALSE(presetFind(2, found) || presetFind(3, found));
    }
    EXPECT_EQ(gContext.motion.tourCurrentPresetId.load(), 4);
}

TEST_F(Presets, AnEnabledSectionWithAForeignIdIsAFreeSlot)
{
    write("ptzd",
          section(1, 0, 1) + section(2, 9, 1) + section(3, -2147483647, 1) + section(4, 9, 0) + section(5, 8, 1));
    EXPECT_EQ(reloadPresetList(), RESULT_OK);
    for (const int number : {1, 2, 3, 4})
        EXPECT_EQ(slot(number).enabled, 0) << number;
    EXPECT_EQ(fakes.reports.size(), 3u);
    PresetEntry found{};
    EXPECT_TRUE(presetFind(8, found));
}

TEST_F(Presets, ReadOnlyOnesAreNotOverwrittenButCleared)
{
    write("ptzd", SETTINGS + section(1, 3, 1));
    ASSERT_EQ(reloadPresetList(), RESULT_OK);
    EXPECT_EQ(set("3", "new"), code(ERR_READ_ONLY));
    EXPECT_EQ(call(ubusClearPreset), code(0));
    EXPECT_EQ(ids(), R"({"id":[])");
    EXPECT_EQ(slot(1).read_only, 1);
    EXPECT_EQ(set("1", "next"), done("next", "1"));
    EXPECT_STREQ(slot(2).name, "next") << "a read-only slot is not a free one";
}

// A file that cannot be read for a while holds no empty list: what it cannot tell must not be stored later.
TEST_F(Presets, SurviveAFileThatCannotBeReadForAWhile)
{
    set("1", "kept");
    const std::string whole = file("ptzd");
    write("ptzd", "config preset 'unterminated\n");
    EXPECT_EQ(set("2", "lost"), done("preset2", "2", ERR_DEVICE));
    EXPECT_EQ(ids(), R"({"id":["1"])");
    write("ptzd", whole);
    EXPECT_EQ(set("3", "third"), done("third", "3"));
    EXPECT_EQ(reloadPresetList(), RESULT_OK);
    EXPECT_EQ(ids(), R"({"id":["1","3"])");

    presetTableSet({}); // as after a start that could not read the file
    gContext.preset.presetsLoaded = false;
    EXPECT_EQ(set("2", "early"), done("kept", "2", ERR_DEVICE));
    EXPECT_EQ(ids(), R"({"id":["1","3"])") << "loaded after all";
    EXPECT_EQ(set("2", "second"), done("second", "2"));
    EXPECT_EQ(reloadPresetList(), RESULT_OK);
    EXPECT_EQ(ids(), R"({"id":["1","3","2"])");
}

TEST_F(Presets, ComeInPages)
{
    for (int i = 0; i < 6; ++i)
        call(ubusSetPreset);
    EXPECT_EQ(call(ubusGetPresetPage, R"({"start_id":"2","count":"2"})"),
              R"({"preset":{"preset":{"id":["3","4"],"name":["preset3","preset4"],"read_only":["0","0"],)"
              R"("position_pan":["0.000000","0.000000"],"position_tilt":["0.000000","0.000000"]}},"error_code":0})");
    EXPECT_EQ(call(ubusGetPresetPage, R"({"start_id":"2147483647","count":"2147483647"})").substr(0, 27),
              R"({"preset":{"preset":{"id":[)");
    for (const char* wrong :
         {R"({"start_id":"0","count":"0"})", R"({"start_id":"-1","count":"1"})", R"({"start_id":"0"})"})
        EXPECT_EQ(call(ubusGetPresetPage, wrong), code(ERR_PARAM)) << wrong;
}

TEST_F(Presets, SettingsAreStoredAndLoadedOnRequest)
{
    for (const char* wrong :
         {R"({"speed":"1"})", R"({"image_freeze_enabled":"1"})", R"({"image_freeze_enabled":"2","speed":"1"})",
          R"({"image_freeze_enabled":"1","speed":"fast"})", R"({"image_freeze_enabled":"1","speed":"nan"})",
          R"({"image_freeze_enabled":"1","speed":"-inf"})"})
        EXPECT_EQ(call(ubusSetPresetConfig, wrong), code(ERR_PARAM)) << wrong;
    gContext.preset.presetSpeed = 7;
    EXPECT_EQ(call(ubusSetPresetConfig, R"({"image_freeze_enabled":"1","speed":"-0.5"})"), code(0));
    EXPECT_NE(file("ptzd").find("speed '-0.500000'"), std::string::npos);
    EXPECT_EQ(gContext.preset.presetSpeed, 7.0F);
    EXPECT_EQ(call(ubusReloadPresetConfig), code(0));
    EXPECT_EQ(gContext.preset.presetSpeed, -0.5F);
    EXPECT_EQ(gContext.preset.presetImageFreezeEnabled, 1);

    const std::pair<std::string, const char*> incomplete[] = {
        {SETTINGS + "\toption image_freeze_enabled '1'\n", "preset_config.speed is NULL"},
        {SETTINGS + "\toption speed '0.5'\n", "preset_config.image_freeze_enabled is NULL"},
        {"", "preset_config is NULL"},
    };
    for (const auto& [text, report] : incomplete) {
        write("ptzd", text);
        EXPECT_EQ(call(ubusReloadPresetConfig), code(ERR_DEVICE));
        EXPECT_TRUE(reported("reloadPresetConfig", report));
    }
    EXPECT_EQ(call(ubusSetPresetConfig, R"({"image_freeze_enabled":"1","speed":"1"})"), code(ERR_DEVICE));
    EXPECT_TRUE(reported("ubusSetPresetConfig", "error to set option preset_config.speed"));

    write("ptzd", SETTINGS + "\toption speed '0.5'\n\toption image_freeze_enabled '1'\n");
    EXPECT_EQ(call(ubusReloadPresetConfig), code(0));
    spoilStore();
    EXPECT_EQ(call(ubusSetPresetConfig, R"({"image_freeze_enabled":"0","speed":"0.25"})"), code(CFG_UCI_FAILED));
    float speed = 0;
    EXPECT_EQ(cfg_uci_get_float_value(UCI_PTZD, "preset_config", "speed", &speed), 0);
    EXPECT_EQ(speed, 0.5F) << "the next commit would store what was answered as failed";
}

TEST_F(Presets, AStoredPositionOfNonsenseSaturates)
{
    PresetTable table{};
    table.presetTable[0] = {6, 1e30F, -1e30F, 0, 0, 1, "far"};
    table.presetSlotOfId[5] = 1;
    presetTableSet(table);
    EXPECT_EQ(presetMove(6), RESULT_OK);
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_MOVE)[0].steps, 2147483647);
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_MOVE)[1].steps, -2147483647 - 1);
}

} // namespace
