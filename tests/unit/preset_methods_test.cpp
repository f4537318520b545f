#include "fakes/stored_head.h"
#include "motor/motion_state.h"
#include "preset/goto_preset.h"
#include "preset/preset_methods.h"
#include "preset/preset_store.h"
#include "ubus/notify.h"

namespace {

class Presets : public StoredHead {
protected:
    void SetUp() override
    {
        StoredHead::SetUp();
        write("ptzd", "config preset_config 'preset_config'\n");
        ASSERT_EQ(reloadPresetList(), RESULT_OK);
    }
    static std::string code(int value)
    {
        return R"({"error_code":)" + std::to_string(value) + "}";
    }
    static std::string done(const std::string& name, int id)
    {
        return R"({"name":")" + name + R"(","id":")" + std::to_string(id) + R"(","error_code":0})";
    }
    static std::string ids()
    {
        const std::string all = call(ubusGetPresetAll);
        return all.substr(0, all.find("],") + 1);
    }
    static PresetEntry preset(int32_t id)
    {
        PresetEntry found{};
        EXPECT_TRUE(presetFind(id, found)) << id;
        return found;
    }
    static void stand(int32_t pan, int32_t tilt)
    {
        fakeMotor.status[PAN].position = pan;
        fakeMotor.status[TILT].position = tilt;
    }
};

TEST_F(Presets, AreCreatedAtTheLowestFreeIdInTheFirstFreeSlot)
{
    EXPECT_EQ(call(ubusSetPreset, R"({"id":"2","name":"gate"})"), done("gate", 2));
    EXPECT_EQ(call(ubusSetPreset), done("preset1", 1));
    EXPECT_EQ(call(ubusSetPreset), done("preset3", 3));
    EXPECT_EQ(call(ubusGetPresetAll),
              R"({"id":["2","1","3"],"name":["gate","preset1","preset3"],"read_only":["0","0","0"],)"
              R"("position_pan":["0.000000","0.000000","0.000000"],)"
              R"("position_tilt":["0.000000","0.000000","0.000000"],"error_code":0})");
    for (int i = 4; i <= 8; ++i)
        EXPECT_EQ(call(ubusSetPreset), done("preset" + std::to_string(i), i));
    EXPECT_EQ(call(ubusSetPreset), code(ERR_NO_PRESET_LEFT));
    EXPECT_EQ(call(ubusSetPreset, R"({"id":"8"})"), done("preset8", 8)) << "its own slot";
}

TEST_F(Presets, CaptureWhereTheHeadStandsAndKeepItUnlessAsked)
{
    stand(0, 1220); // of 3000 and 1220
    EXPECT_EQ(call(ubusSetPreset, R"({"id":"4","save_ptz":"1"})"), done("preset4", 4));
    EXPECT_EQ(preset(4).position_pan, -1.0F);
    EXPECT_EQ(preset(4).position_tilt, 1.0F);
    stand(1500, 0);
    EXPECT_EQ(call(ubusSetPreset, R"({"id":"4","save_ptz":"0","name":"new"})"), done("new", 4));
    EXPECT_EQ(preset(4).position_pan, -1.0F);
    EXPECT_EQ(call(ubusSetPreset, R"({"id":"4","save_ptz":"1"})"), done("new", 4));
    EXPECT_EQ(preset(4).position_pan, 0.0F);
    EXPECT_EQ(preset(4).position_tilt, -1.0F);
    EXPECT_NE(file("ptzd").find("position_tilt '-1.000000'"), std::string::npos);
}

TEST_F(Presets, RefusalsComeInTheirOrderAndChangeNothing)
{
    const std::string before = file("ptzd");
    const std::string tooLong = R"("name":"123456789012345678901234567890123")";
    const std::string all = R"({"id":"9","save_ptz":"2",)" + tooLong + "}";
    lensMaskSetEnabled(1);
    gContext.panorama.panoramaRunning.store(1);
    EXPECT_EQ(call(ubusSetPreset, all), code(ERR_LENS_MASK));
    lensMaskSetEnabled(0);
    EXPECT_EQ(call(ubusSetPreset, all), code(ERR_PANORAMA));
    gContext.panorama.panoramaRunning.store(0);
    const std::pair<std::string, int> wrong[] = {
        {all, ERR_PRESET_ID},
        {R"({"id":"0"})", ERR_PRESET_ID},
        {R"({"save_ptz":"2",)" + tooLong + "}", ERR_PARAM},
        {"{" + tooLong + "}", ERR_NAME_LENGTH},
        {R"({"name":"a\nb"})", ERR_PARAM},
        {R"({"name":"a\u0001"})", ERR_PARAM},
        {R"({"name":"\u001f"})", ERR_PARAM},
        {R"({"name":""})", ERR_PARAM},
    };
    for (const auto& [arguments, result] : wrong)
        EXPECT_EQ(call(ubusSetPreset, arguments), code(result)) << arguments;
    fakeMotor.fail(TILT, MOTOR_IOC_GET_STATUS);
    EXPECT_EQ(call(ubusSetPreset, R"({"save_ptz":"1"})"), code(ERR_DEVICE));
    fakeMotor.failing.clear();
    fakeMotor.status[TILT].running = 1;
    EXPECT_EQ(call(ubusSetPreset, R"({"save_ptz":"1"})"), code(ERR_MOVING));
    EXPECT_EQ(file("ptzd"), before);
    EXPECT_EQ(ids(), R"({"id":[])");
    EXPECT_EQ(call(ubusSetPreset, R"({"name":"12345678901234567890123456789012"})"),
              done("12345678901234567890123456789012", 1));
}

TEST_F(Presets, ReadOnlyOnesAreNotOverwrittenButCleared)
{
    call(ubusSetPreset, R"({"id":"3"})");
    PresetTable table = presetTableNow();
    table.presetTable[0].read_only = 1;
    presetTableSet(table);
    EXPECT_EQ(call(ubusSetPreset, R"({"id":"3"})"), code(ERR_READ_ONLY));
    EXPECT_EQ(call(ubusClearPreset), code(0));
    EXPECT_EQ(ids(), R"({"id":[])");
    EXPECT_EQ(presetTableNow().presetTable[0].read_only, 1);
    EXPECT_EQ(call(ubusSetPreset), done("preset1", 1));
    EXPECT_EQ(presetTableNow().presetSlotOfId[0], 2) << "a read-only slot is not a free one";
}

// A file that cannot be read for a while holds no empty list: what it cannot tell must not be stored later.
TEST_F(Presets, SurviveAnUnreadableFile)
{
    call(ubusSetPreset, R"({"id":"1","name":"kept"})");
    const std::string whole = file("ptzd");
    write("ptzd", "config preset 'unterminated\n");
    EXPECT_EQ(call(ubusSetPreset, R"({"id":"2","name":"lost"})"), R"({"name":"preset2","id":"2","error_code":-64301})");
    EXPECT_EQ(ids(), R"({"id":["1"])");
    write("ptzd", whole);
    EXPECT_EQ(call(ubusSetPreset, R"({"id":"3"})"), done("preset3", 3));
    EXPECT_EQ(reloadPresetList(), RESULT_OK);
    EXPECT_STREQ(preset(1).name, "kept");
}

TEST_F(Presets, SurviveAFileThatTheStartCouldNotRead)
{
    call(ubusSetPreset, R"({"id":"1","name":"kept"})");
    presetTableSet({});
    gContext.preset.presetsLoaded = false;
    EXPECT_EQ(call(ubusSetPreset, R"({"id":"2","name":"early"})"), R"({"name":"kept","id":"2","error_code":-64301})");
    EXPECT_EQ(ids(), R"({"id":["1"])") << "loaded after all";
    EXPECT_EQ(call(ubusSetPreset, R"({"id":"2"})"), done("preset2", 2));
    EXPECT_EQ(reloadPresetList(), RESULT_OK);
    EXPECT_STREQ(preset(1).name, "kept");
}

TEST_F(Presets, AreDeletedAndTheRestPacked)
{
    for (const char* id : {"1", "2", "3", "5"}) {
        stand(id[0] * 10, 0);
        call(ubusSetPreset, R"({"id":")" + std::string(id) + R"(","save_ptz":"1"})");
    }
    const float third = preset(5).position_pan;
    EXPECT_EQ(call(ubusDeletePreset, R"({"id":["3","1","7"]})"), code(0));
    EXPECT_EQ(ids(), R"({"id":["2","5"])");
    const PresetTable table = presetTableNow();
    EXPECT_EQ(table.presetSlotOfId[1], 1);
    EXPECT_EQ(table.presetSlotOfId[4], 2);
    EXPECT_EQ(table.presetTable[1].position_pan, third);
    EXPECT_EQ(table.presetTable[3].id, 5) << "the old place keeps id and name";
    EXPECT_EQ(table.presetTable[3].position_pan, 0.0F);
    EXPECT_EQ(call(ubusDeletePreset, R"({"id":["-2"]})"), code(0)) << "the sign is skipped";
    ASSERT_EQ(reloadPresetList(), RESULT_OK);
    EXPECT_EQ(ids(), R"({"id":["5"])");
}

TEST_F(Presets, AWrongIdStopsADeletionAfterTheOnesBeforeIt)
{
    call(ubusSetPreset);
    call(ubusSetPreset);
    EXPECT_EQ(call(ubusDeletePreset), code(ERR_PARAM));
    EXPECT_TRUE(reported("ubusDeletePreset", "error to get ID list"));
    EXPECT_EQ(call(ubusDeletePreset, R"({"id":[]})"), code(ERR_PARAM));
    EXPECT_EQ(call(ubusDeletePreset, R"({"id":["x"]})"), code(ERR_PARAM));
    EXPECT_EQ(call(ubusDeletePreset, R"({"id":[1,9,2]})"), code(ERR_PARAM));
    EXPECT_EQ(ids(), R"({"id":["2"])");
    ASSERT_EQ(reloadPresetList(), RESULT_OK);
    EXPECT_EQ(ids(), R"({"id":["1","2"])") << "nothing was saved";
    EXPECT_EQ(call(ubusDeletePreset, R"({"id":[1,1,1,1,1,1,1,1,99]})"), code(0)) << "the ninth number does not count";
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
    EXPECT_EQ(call(ubusGetPresetPage, R"({"start_id":"0","count":"0"})"), code(ERR_PARAM));
    EXPECT_EQ(call(ubusGetPresetPage, R"({"start_id":"-1","count":"1"})"), code(ERR_PARAM));
    EXPECT_EQ(call(ubusGetPresetPage, R"({"start_id":"0"})"), code(ERR_PARAM));
}

TEST_F(Presets, SettingsAreStoredAndLoadedOnRequest)
{
    gContext.preset.presetSpeed = 7;
    for (const char* wrong :
         {R"({"speed":"1"})", R"({"image_freeze_enabled":"1"})", R"({"image_freeze_enabled":"2","speed":"1"})",
          R"({"image_freeze_enabled":"1","speed":"fast"})"})
        EXPECT_EQ(call(ubusSetPresetConfig, wrong), code(ERR_PARAM)) << wrong;
    EXPECT_EQ(call(ubusSetPresetConfig, R"({"image_freeze_enabled":"1","speed":"-0.5"})"), code(0));
    EXPECT_NE(file("ptzd").find("speed '-0.500000'"), std::string::npos);
    EXPECT_EQ(gContext.preset.presetSpeed, 7.0F);
    EXPECT_EQ(call(ubusReloadPresetConfig), code(0));
    EXPECT_EQ(gContext.preset.presetSpeed, -0.5F);
    write("ptzd", "");
    EXPECT_EQ(call(ubusReloadPresetConfig), code(ERR_DEVICE));
    EXPECT_EQ(call(ubusSetPresetConfig, R"({"image_freeze_enabled":"1","speed":"1"})"), code(ERR_DEVICE));
    EXPECT_TRUE(reported("ubusSetPresetConfig", "error to set option preset_config.speed"));
}

class GotoPreset : public Presets {
protected:
    void SetUp() override
    {
        Presets::SetUp();
        stand(2250, 305);
        ASSERT_EQ(call(ubusSetPreset, R"({"id":"6","save_ptz":"1"})"), done("preset6", 6));
        stand(1000, 610);
        fakeMotor.requests.clear();
    }
};

TEST_F(GotoPreset, DrivesBothAxesAtTheirFactors)
{
    EXPECT_EQ(call(ubusGotoPreset, R"({"id":"6","speed_zoom":"junk"})"), code(0));
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_MOVE),
              (std::vector<FakeRequest>{{PAN, MOTOR_IOC_MOVE, 8, 1250}, {TILT, MOTOR_IOC_MOVE, 8, -305}}));
    EXPECT_EQ(fakes.notifications, (std::vector<FakeNotification>{{NOTIFY_MOVING, ORIGIN_USER}}));
    EXPECT_EQ(gContext.motion.user_moved_recently.load(), 1);
    EXPECT_TRUE(fakes.armed(gContext.timers.saveStepsTimer));
    EXPECT_TRUE(fakes.armed(gContext.timers.statusPollTimer));

    gContext.motion.motion_origin.store(ORIGIN_TOUR); // a tour's motion, which becomes the user's
    fakeMotor.status[TILT].running = 1;
    EXPECT_EQ(call(ubusGotoPreset, R"({"id":"6","speed_pan":"0.3"})"), code(0));
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_MOVE)[2].speed, 2) << "8 * 0.3 is 2.4";
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_MOVE)[3].speed, 8);
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_STOP).size(), 2u);
    motorStatusPoll(nullptr);
    EXPECT_EQ(fakes.notifications,
              (std::vector<FakeNotification>{{NOTIFY_MOVING, ORIGIN_USER}, {NOTIFY_IDLE, ORIGIN_USER}}));
    EXPECT_TRUE(fakes.armed(gContext.timers.usrMoveStopTimer));
}

TEST_F(GotoPreset, RefusesInOrderAndKeepsTheFactorsItAccepted)
{
    gContext.motion.calibrating.store(1);
    EXPECT_EQ(call(ubusGotoPreset), code(ERR_PARAM));
    EXPECT_EQ(call(ubusGotoPreset, R"({"id":"9"})"), code(ERR_PARAM));
    EXPECT_EQ(call(ubusGotoPreset, R"({"id":"5","speed_pan":"x"})"), code(ERR_PRESET_ID));
    EXPECT_EQ(call(ubusGotoPreset, R"({"id":"6","speed_pan":"x"})"), code(ERR_PARAM));
    for (const char* factor : {"0", "-0.1", "1.5", "nan", "inf"}) {
        EXPECT_EQ(call(ubusGotoPreset, R"({"id":"6","speed_pan":")" + std::string(factor) + R"("})"),
                  code(ERR_SPEED_FACTOR))
            << factor;
        EXPECT_EQ(gContext.preset.panSpeedFactor.load(), 1.0F);
    }
    EXPECT_EQ(call(ubusGotoPreset, R"({"id":"6","speed_pan":"0.5","speed_tilt":"0"})"), code(ERR_SPEED_FACTOR));
    EXPECT_EQ(gContext.preset.panSpeedFactor.load(), 0.5F);
    EXPECT_EQ(call(ubusGotoPreset, R"({"id":"6"})"), code(ERR_CALIBRATING));
    gContext.motion.calibrating.store(0);
    lensMaskSetEnabled(1);
    EXPECT_EQ(call(ubusGotoPreset, R"({"id":"6"})"), code(ERR_LENS_MASK));
    EXPECT_TRUE(fakeMotor.requests.empty());
    EXPECT_FALSE(fakes.armed(gContext.timers.saveStepsTimer));
}

TEST_F(GotoPreset, AFailedRequestArmsNoSave)
{
    fakeMotor.fail(TILT, MOTOR_IOC_GET_STATUS);
    EXPECT_EQ(call(ubusGotoPreset, R"({"id":"6"})"), code(ERR_DEVICE));
    EXPECT_EQ(gContext.motion.user_moved_recently.load(), 0) << "nothing moved, nothing would clear it again";
    fakeMotor.failing.clear();
    fakeMotor.fail(PAN, MOTOR_IOC_MOVE);
    EXPECT_EQ(call(ubusGotoPreset, R"({"id":"6"})"), code(ERR_DEVICE));
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_MOVE).size(), 2u);
    EXPECT_FALSE(fakes.armed(gContext.timers.saveStepsTimer));
    motorStatusPoll(nullptr);
    EXPECT_EQ(gContext.motion.motion_active.load(), 0);
}

TEST_F(GotoPreset, AStoredPositionOfNonsenseSaturates)
{
    PresetTable table = presetTableNow();
    table.presetTable[0].position_pan = 1e30F;
    table.presetTable[0].position_tilt = -1e30F;
    presetTableSet(table);
    EXPECT_EQ(presetMove(6), RESULT_OK);
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_MOVE)[0].steps, 2147483647);
    EXPECT_EQ(fakeMotor.sent(MOTOR_IOC_MOVE)[1].steps, -2147483647 - 1);
}

} // namespace
