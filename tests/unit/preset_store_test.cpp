#include "config/uci_store.h"
#include "fakes/stored_head.h"
#include "preset/preset_store.h"

namespace {

class PresetStore : public StoredHead {
protected:
    static std::string section(int slot, const std::string& options)
    {
        return "config preset 'preset_" + std::to_string(slot) + "'\n" + options;
    }
    /// All options of a section; `without` leaves one out.
    static std::string options(int id, int enabled, const std::string& without = "")
    {
        std::string text;
        const std::pair<std::string, std::string> all[] = {
            {"id", std::to_string(id)},
            {"read_only", "1"},
            {"name", "door"},
            {"position_pan", "-0.25"},
            {"position_tilt", "0.5"},
            {"position_zoom", "0.125"},
            {"enabled", std::to_string(enabled)},
        };
        for (const auto& [name, value] : all)
            if (name != without)
                text += "\toption " + name + " '" + value + "'\n";
        return text;
    }
    static PresetEntry slot(int number)
    {
        return presetTableNow().presetTable[number - 1];
    }
};

TEST_F(PresetStore, AnEmptyPackageIsEightFreeSlotsAndTheTourStartsAnew)
{
    gContext.tour.tourCurrentPresetId.store(4);
    EXPECT_EQ(reloadPresetList(), RESULT_OK);
    EXPECT_STREQ(slot(1).name, "preset1");
    EXPECT_STREQ(slot(8).name, "preset8");
    PresetEntry found{};
    for (int32_t id = 0; id <= 9; ++id)
        EXPECT_FALSE(presetFind(id, found)) << id;
    EXPECT_EQ(gContext.tour.tourCurrentPresetId.load(), 0);
}

TEST_F(PresetStore, LoadsWhatIsStoredAndMapsEnabledIdsOnly)
{
    write("ptzd", section(2, options(5, 1)) + section(3, options(6, 0)) + section(8, options(1, 1, "name")));
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
    EXPECT_TRUE(fakes.reports.empty());
}

TEST_F(PresetStore, AnUnreadableOptionEndsTheLoad)
{
    gContext.tour.tourCurrentPresetId.store(4);
    for (const char* option : {"id", "position_pan", "position_tilt", "position_zoom", "read_only", "enabled"}) {
        fakes.reports.clear();
        write("ptzd", section(1, options(1, 1)) + section(2, options(2, 1, option)) + section(3, options(3, 1)));
        EXPECT_EQ(reloadPresetList(), ERR_DEVICE);
        EXPECT_TRUE(reported("reloadPresetList", "preset_2." + std::string(option) + " is NULL")) << option;
        PresetEntry found{};
        EXPECT_TRUE(presetFind(1, found));
        EXPECT_FALSE(presetFind(2, found));
        EXPECT_FALSE(presetFind(3, found));
        EXPECT_STREQ(slot(3).name, "");
    }
    EXPECT_EQ(gContext.tour.tourCurrentPresetId.load(), 4);
}

TEST_F(PresetStore, AnEnabledSectionWithAForeignIdIsAFreeSlot)
{
    write("ptzd", section(1, options(0, 1)) + section(2, options(9, 1)) + section(3, options(-2147483647, 1)) +
                      section(4, options(9, 0)) + section(5, options(8, 1)));
    EXPECT_EQ(reloadPresetList(), RESULT_OK);
    for (int number : {1, 2, 3, 4})
        EXPECT_EQ(slot(number).enabled, 0) << number;
    EXPECT_EQ(fakes.reports.size(), 3u);
    PresetEntry found{};
    EXPECT_TRUE(presetFind(8, found));
}

TEST_F(PresetStore, StoresEightSectionsAndGivesThemBackExactly)
{
    write("ptzd", "config ptzd 'config'\n\toption power_off_recover '1'\n" + section(4, "\toption stray '1'\n"));
    PresetTable table{};
    for (int i = 0; i < PRESET_COUNT; ++i)
        snprintf(table.presetTable[i].name, PRESET_NAME_SIZE, "preset%d", i + 1);
    table.presetTable[1] = {5, -1.0F, 1.0F / 3, 0, 1, 1, "it's a \"\\ #;=\tT\xc3\xbcr 12345678901"};
    table.presetSlotOfId[4] = 2;
    presetTableSet(table);
    ASSERT_EQ(savePresetList(), RESULT_OK);
    const std::string stored = file("ptzd");
    EXPECT_NE(stored.find("config preset 'preset_2'\n"
                          "\toption id '5'\n"
                          "\toption read_only '1'\n"
                          "\toption name 'it'\\''s a \"\\ #;=\tT\xc3\xbcr 12345678901'\n"
                          "\toption position_pan '-1.000000'\n"
                          "\toption position_tilt '0.333333'\n"
                          "\toption position_zoom '0.000000'\n"
                          "\toption enabled '1'\n"),
              std::string::npos)
        << stored;
    EXPECT_NE(stored.find("preset_8"), std::string::npos);
    EXPECT_EQ(stored.find("stray"), std::string::npos);
    EXPECT_NE(stored.find("power_off_recover"), std::string::npos);
    presetTableSet({});
    ASSERT_EQ(reloadPresetList(), RESULT_OK);
    PresetEntry found{};
    ASSERT_TRUE(presetFind(5, found));
    EXPECT_STREQ(found.name, table.presetTable[1].name);
}

TEST_F(PresetStore, LoadsTheSettingsAndSaysWhatIsMissing)
{
    const std::string head = "config preset_config 'preset_config'\n";
    const std::pair<std::string, const char*> incomplete[] = {
        {"", "preset_config is NULL"},
        {head + "\toption image_freeze_enabled '1'\n", "preset_config.speed is NULL"},
        {head + "\toption speed '0.5'\n", "preset_config.image_freeze_enabled is NULL"},
    };
    for (const auto& [text, report] : incomplete) {
        write("ptzd", text);
        EXPECT_EQ(reloadPresetConfig(), ERR_DEVICE);
        EXPECT_TRUE(reported("reloadPresetConfig", report));
    }
    EXPECT_EQ(gContext.preset.presetSpeed, 0.5F) << "read before the failure";
    write("ptzd", head + "\toption speed '2'\n\toption image_freeze_enabled '1'\n");
    EXPECT_EQ(reloadPresetConfig(), RESULT_OK);
    EXPECT_EQ(gContext.preset.presetSpeed, 2.0F);
    EXPECT_EQ(gContext.preset.presetImageFreezeEnabled, 1);
}

} // namespace
