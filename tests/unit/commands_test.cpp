// What each method answers and which requests then reach the axes: at rest and in motion, at the limits, under each
// flip, while something forbids it, and with a driver that fails. Pan and tilt differ in range, limits and speeds.

#include "head.h"
#include "ubus/notify.h"

namespace {

enum State : unsigned {
    CALIBRATES = 1,
    MASKED = 2,
    SWEEPS = 4,
    PAN_RUNS = 8,
    TILT_RUNS = 16,
    TRACKED = 32, // tracking has moved the head last
    FLIP_PAN = 64,
    FLIP_TILT = 128,
};

class Commands : public Head {
protected:
    void SetUp() override
    {
        setUpIn(0);
    }
    /// A head that preset 3 and the stored position send elsewhere, to 2250 / 305 and to 1800 / 700.
    static void setUpIn(unsigned state)
    {
        restart();
        rig::store("ptzd", "config motor 'x_motor"); // a file that could not be read for a moment, and is there again
        EXPECT_NE(cfg_uci_pkg_reload(UCI_PTZD), 0);
        rig::store("ptzd", position(1800, 700));
        PresetTable table{};
        table.presetTable[1] = {3, 0.5F, -0.5F, 0, 0, 1, "third"};
        table.presetSlotOfId[2] = 2;
        presetTableSet(table);
        gContext.motion.calibrating.store((state & CALIBRATES) != 0 ? 1 : 0);
        lensMaskSetEnabled((state & MASKED) != 0 ? 1 : 0);
        gContext.panorama.panoramaRunning.store((state & SWEEPS) != 0 ? 1 : 0);
        fakeMotor.status[PAN].running = (state & PAN_RUNS) != 0 ? 1 : 0;
        fakeMotor.status[TILT].running = (state & TILT_RUNS) != 0 ? 1 : 0;
        gContext.motion.motion_origin.store((state & TRACKED) != 0 ? ORIGIN_TRACK : ORIGIN_USER);
        gContext.image.imageFlipType.store(static_cast<int32_t>(state / FLIP_PAN));
    }
};

// Worked out by hand: ten steps are a unit of either axis.
TEST_F(Commands, SendTheAxesWhereTheySay)
{
    const std::string stops = "pan stop, tilt stop, ";
    const std::string preset = R"({"id":"3"})", slowly = R"({"id":"3","speed_pan":"0.25","speed_tilt":"0.5"})";
    const auto track = [](const char* pan, const char* tilt) {
        return std::string(R"({"x_coord":"3","y_coord":"-2","x_speed":")") + pan + R"(","y_speed":")" + tilt + R"("})";
    };
    const struct {
        const char* method;
        std::string arguments;
        std::string driven;
        bool saved;
        unsigned state = 0;
    } cases[] = {
        {"move", xy(10, -5), "pan move 100 at 0, tilt move -50 at 0", true},
        {"move", xy(10, -5), "pan move -100 at 0, tilt move -50 at 0", true, FLIP_PAN},
        {"move", xy(10, -5), "pan move 100 at 0, tilt move 50 at 0", true, FLIP_TILT},
        {"move", xy(151, -40), "pan move 1500 at 0, tilt move -390 at 0", true},
        {"move", xy(-151, 62), "pan move -1500 at 0, tilt move 610 at 0", true},
        {"move", R"({"x_coord":"99999999999","y_coord":"0"})", "pan move 1500 at 0, tilt move 0 at 0", true},
        {"move", xy(1, 1), stops + "pan move 10 at 0, tilt move 10 at 0", true, PAN_RUNS},
        {"moveTo", xy(10, -5), "pan move 100 at 4, tilt move -50 at 3", true},
        {"moveTo", xy(10, -5), "pan move -100 at 4, tilt move -50 at 3", true, FLIP_PAN},
        {"moveTo", xy(10, -5), "pan move 100 at 4, tilt move 50 at 3", true, FLIP_TILT},
        {"moveTo", xy(-150, -39), "pan move -1500 at 4, tilt move -390 at 3", true},
        {"moveTo", xy(0, 0), stops + "pan move 0 at 4, tilt move 0 at 3", true, TILT_RUNS},
        {"stop", "{}", "pan stop, tilt stop", true},
        {"moveStep", R"({"direction":"0"})", stops + "pan move 1500 at 0, tilt move 0 at 0", true, PAN_RUNS},
        {"targetTrack", track("5", "4"), "pan move 30 at 5, tilt move -20 at 4", false},
        {"targetTrack", track("9", "9"), "pan move 30 at 8, tilt move -20 at 6", false, TRACKED},
        {"targetTrack", track("0", "-1"), "pan move -30 at 1, tilt move 20 at 1", false, FLIP_PAN | FLIP_TILT},
        {"targetTrackBack", "{}", stops + "pan move 300 at 4, tilt move 90 at 3", false, TRACKED | TILT_RUNS},
        {"targetTrackBack", "{}", "", false}, // a user has moved it last
        {"gotoPreset", slowly, "pan move 750 at 2, tilt move -305 at 3", true},
        {"gotoPreset", preset, stops + "pan move 750 at 8, tilt move -305 at 6", true, PAN_RUNS},
        {"startPanorama", "{}", "pan move -1500 at 8, tilt move -100 at 6", false},
        {"startPanorama", "{}", stops + "pan move -1500 at 8, tilt move 100 at 6", false, FLIP_TILT | PAN_RUNS},
        {"movePanorama", xy(5, -3), "pan move 50 at 8, tilt move -30 at 6", false},
        {"movePanorama", xy(-150, 61), stops + "pan move -1500 at 8, tilt move 610 at 6", false, SWEEPS | TILT_RUNS},
        {"stopPanorama", "{}", "pan move 300 at 8, tilt move 90 at 6", false, SWEEPS},
        {"lensMask", "{}", "pan move 300 at 8, tilt move 90 at 6", false, MASKED}, // off, as it is stored
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.method + one.arguments + " in state " + std::to_string(one.state));
        setUpIn(one.state);
        EXPECT_EQ(rig::call(one.method, one.arguments), RESULT_OK);
        EXPECT_EQ(driven(), one.driven);
        while (!fakes.workers.empty())
            fakes.runWorker(); // a step's, which begins the motion
        EXPECT_EQ(fakes.timers[&timers.saveStepsTimer], one.saved ? TEN_SECONDS : FakeTimer{});
        const bool moves = one.driven.find("move") != std::string::npos;
        EXPECT_EQ(fakes.armed(timers.statusPollTimer), moves);
        // A pan that cannot be read or stopped leaves tilt alone; one that cannot be moved does not, nor the reverse.
        const std::tuple<AxisIndex, unsigned long, std::string> failures[] = {{PAN, MOTOR_IOC_GET_STATUS, ""},
                                                                              {PAN, MOTOR_IOC_STOP, "pan stop"},
                                                                              {PAN, MOTOR_IOC_MOVE, one.driven},
                                                                              {TILT, MOTOR_IOC_MOVE, one.driven}};
        for (const auto& [axis, request, reached] : failures) {
            if (!moves || (request == MOTOR_IOC_STOP && !one.driven.starts_with(stops)))
                continue;
            setUpIn(one.state);
            fakeMotor.fail(axis, request);
            EXPECT_EQ(rig::call(one.method, one.arguments), ERR_DEVICE);
            EXPECT_TRUE(request != MOTOR_IOC_GET_STATUS || fakeMotor.requests.size() == 1);
            EXPECT_EQ(driven(), reached);
            EXPECT_TRUE(gContext.panorama.panoramaRunning.load() == 0 || std::string(one.method) == "movePanorama");
            EXPECT_EQ(lensMaskEnabled(), (one.state & MASKED) != 0 ? 1 : 0);
        }
    }
}

TEST_F(Commands, RefuseWhatTheyMustAndLeaveTheHeadAlone)
{
    const std::string preset = R"({"id":"3"})", right = R"({"direction":"0"})",
                      track = R"({"x_coord":"1","y_coord":"1","x_speed":"1","y_speed":"1"})";
    struct Case {
        std::string method, arguments;
        int code;
        unsigned state = 0;
        int32_t pan = 1500, tilt = 610;
    };
    std::vector<Case> cases = {
        {"move", R"({"x_coord":"1"})", ERR_PARAM},
        {"move", xy(1, 0), ERR_NO_TRAVEL, PAN_RUNS, 3000},
        {"move", xy(1, -1), ERR_NO_TRAVEL, TILT_RUNS, 3000},
        {"move", xy(1, -1), ERR_NO_TRAVEL, PAN_RUNS, 1500, 220}, // -39 is at step 220
        {"moveTo", xy(151, 0), ERR_PARAM, CALIBRATES},
        {"moveTo", xy(0, -40), ERR_PARAM},
        {"moveTo", xy(0, 40), ERR_PARAM, FLIP_TILT},
        {"moveStep", R"({"direction":"360"})", ERR_PARAM, CALIBRATES},
        {"moveStep", right, ERR_NO_TRAVEL, TILT_RUNS, 3000},
        {"movePanorama", xy(0, 62), ERR_PARAM},
        {"movePanorama", xy(-1, 0), ERR_NO_TRAVEL, PAN_RUNS, 0},
        {"targetTrack", track, ERR_CALIBRATING, PAN_RUNS | TRACKED},
        {"targetTrack", track, ERR_CALIBRATING, TILT_RUNS | TRACKED},
        {"targetTrackBack", "{}", ERR_CALIBRATING, TILT_RUNS},
        {"gotoPreset", R"({"id":"4294967299"})", ERR_PARAM}, // no 32-bit number, which would be 3
        {"gotoPreset", R"({"id":"4"})", ERR_PRESET_ID},
        {"gotoPreset", R"({"id":"3","speed_pan":"0"})", ERR_SPEED_FACTOR},
        {"gotoPreset", R"({"id":"3","speed_tilt":"1.1"})", ERR_SPEED_FACTOR},
        {"setPreset", R"({"save_ptz":"1"})", ERR_MOVING, PAN_RUNS},
        {"setPreset", R"({"save_ptz":"1"})", ERR_MOVING, TILT_RUNS},
        {"setPreset", R"({"name":")" + std::string(33, 'n') + R"("})", ERR_NAME_LENGTH},
        {"setConfig", R"({"x_speed":"1"})", ERR_CALIBRATING, CALIBRATES},
        {"lensMask", "{}", ERR_CALIBRATING, CALIBRATES | SWEEPS},
        {"startPanorama", "{}", ERR_CALIBRATING, CALIBRATES | MASKED},
        {"checkMotorStatus", "{}", ERR_CALIBRATING, CALIBRATES},
    };
    const std::pair<const char*, std::string> motions[] = {
        {"move", xy(1, 1)},     {"moveTo", xy(1, 1)},    {"moveStep", right},    {"stop", "{}"},
        {"targetTrack", track}, {"targetTrackBack", ""}, {"gotoPreset", preset}, {"manualCalibrate", "{}"},
    };
    for (const auto& [method, arguments] : motions) {
        const std::string some = arguments.empty() ? "{}" : arguments;
        cases.push_back({method, some, ERR_CALIBRATING, CALIBRATES | MASKED | SWEEPS | PAN_RUNS});
        cases.push_back({method, some, ERR_LENS_MASK, MASKED | SWEEPS | PAN_RUNS | TRACKED});
        cases.push_back({method, some, ERR_PANORAMA, SWEEPS | TILT_RUNS | TRACKED});
    }
    for (const Case& one : cases) {
        SCOPED_TRACE(one.method + one.arguments + " in state " + std::to_string(one.state));
        setUpIn(one.state);
        standAt(one.pan, one.tilt);
        EXPECT_EQ(rig::call(one.method, one.arguments), one.code);
        EXPECT_EQ(driven(), "");
        EXPECT_FALSE(fakes.armed(timers.saveStepsTimer) || fakes.armed(timers.statusPollTimer));
        EXPECT_TRUE(fakes.notifications.empty() && fakes.workers.empty());
    }
}

TEST_F(Commands, ShowTheHeadAsTheImageIsFlipped)
{
    const std::pair<const char*, const char*> flips[] = {
        {"off", R"("x_coord":"10","y_coord":"-5","x_speed":"-4","y_speed":"3")"},
        {"left_and_right", R"("x_coord":"-10","y_coord":"-5","x_speed":"4","y_speed":"3")"},
        {"up_and_down", R"("x_coord":"10","y_coord":"5","x_speed":"-4","y_speed":"-3")"},
        {"center", R"("x_coord":"-10","y_coord":"5","x_speed":"4","y_speed":"-3")"},
        {"c", R"("x_coord":"-10","y_coord":"5","x_speed":"4","y_speed":"-3")"}, // the beginning of a name is enough
        {"", R"("x_coord":"10","y_coord":"-5","x_speed":"-4","y_speed":"3")"},
    };
    standAt(1600, 560);
    fakeMotor.status[PAN].direction = -1;
    fakeMotor.status[PAN].running = fakeMotor.status[TILT].running = 1;
    for (const auto& [flip, status] : flips) {
        rig::store("image", section("image", "switch", {{"flip_type", flip}}));
        EXPECT_EQ(call("updateImageConfig"), code(RESULT_OK));
        EXPECT_EQ(call("getStatus"), std::string(R"({"error_code":0,"status":{)") + status + "}}") << flip;
    }
    rig::store("image", section("image", "switch", {{"flip_type", "upside"}}));
    EXPECT_EQ(call("updateImageConfig"), code(ERR_DEVICE));
    fakeMotor.status[TILT].running = 0;
    EXPECT_NE(call("getStatus").find(R"("x_speed":"-4","y_speed":"0")"), std::string::npos) << "as it was, and at rest";
}

TEST_F(Commands, TruncateTowardZero)
{
    gContext.axes[TILT].total_steps = 1000;
    standAt(1500, 451); // 55022 / 1000 is 55, less 61
    EXPECT_NE(call("getStatus").find(R"("x_coord":"0","y_coord":"-6")"), std::string::npos) << fakes.reply;
    standAt(1500, 500);
    EXPECT_EQ(call("moveTo", xy(0, -6)), code(RESULT_OK)); // -6000 / 122 is -49, not -50
    EXPECT_EQ(driven(), "pan move 0 at 4, tilt move -49 at 3");
}

TEST_F(Commands, SetSpeedsUpToTheAxisOwnMaximum)
{
    const auto stored = [](const char* section) {
        cfg_uci_pkg_reload(UCI_PTZD);
        int32_t speed = 0;
        (void)cfg_uci_get_int_value(UCI_PTZD, section, "speed", &speed);
        return speed;
    };
    EXPECT_EQ(call("setConfig", R"({"x_speed":"8","y_speed":"6","sustain":"7"})"), code(RESULT_OK));
    EXPECT_EQ(driven(), "pan set at 8, tilt set at 6");
    EXPECT_EQ(std::pair(stored("x_motor"), stored("y_motor")), std::pair(8, 6));
    EXPECT_EQ(motion.stepSustainTicks.load(), 7);
    EXPECT_EQ(call("setConfig", R"({"x_speed":"1","y_speed":"7"})"), code(ERR_PARAM));
    EXPECT_EQ(driven(), "pan set at 1");
    EXPECT_EQ(std::pair(stored("x_motor"), stored("y_motor")), std::pair(1, 6));
    EXPECT_EQ(call("setConfig", R"({"x_speed":"0"})"), code(ERR_PARAM));
    EXPECT_EQ(call("setConfig"), code(ERR_PARAM));
    // Another thread's save fails to commit and discards what is set so far.
    atNext(TILT, MOTOR_IOC_SET_SPEED, [] { cfg_uci_pkg_reload(UCI_PTZD); });
    EXPECT_EQ(call("setConfig", R"({"x_speed":"2","y_speed":"3"})"), code(RESULT_OK));
    EXPECT_EQ(std::pair(stored("x_motor"), stored("y_motor")), std::pair(2, 3));

    rig::store("ptzd", "config ptzd 'config'\n");
    cfg_uci_pkg_reload(UCI_PTZD);
    EXPECT_EQ(call("setPowerOffRecover", R"({"recover":"0"})"), code(RESULT_OK));
    EXPECT_EQ(rig::stored("ptzd"), "\nconfig ptzd 'config'\n\toption power_off_recover '0'\n\n");
    EXPECT_EQ(call("move", xy(1, 1)), code(RESULT_OK));
    EXPECT_FALSE(fakes.armed(timers.saveStepsTimer)) << "nothing is recovered, so nothing is saved";
}

TEST_F(Commands, CalibrateAndStoreHome)
{
    CalibrationTarget targets[AXIS_COUNT]{};
    gContext.calibrationArg = targets;
    rig::store("ptzd", section("motor", "x_motor", {{"speed", "0"}}) + section("motor", "y_motor", {{"speed", "5"}}));
    cfg_uci_pkg_reload(UCI_PTZD);
    fakeMotor.status[PAN].running = 1;
    EXPECT_EQ(call("manualCalibrate"), code(RESULT_OK));
    EXPECT_EQ(fakes.timers[&timers.saveStepsTimer], TEN_SECONDS);
    EXPECT_EQ(driven(), "pan stop, tilt stop");
    EXPECT_EQ(call("manualCalibrate"), code(ERR_CALIBRATING)) << "before its thread has run";
    std::vector<int32_t> free;
    fakes.onNotification = [&] { free.push_back(motion.calibrating.load()); };
    fakes.runWorker();
    EXPECT_EQ(free, (std::vector<int32_t>{1, 1})) << "no motion begins before the end is announced";
    // Home is 0 / -6; a stored speed that is none becomes the default.
    EXPECT_EQ(driven(), "pan place 1500, pan set at 8, pan rotate -3000, pan rotate 3000, pan rotate -1500, pan set at "
                        "4, tilt place 550, tilt set at 6, tilt rotate -1220, tilt rotate 1220, tilt rotate -670, tilt "
                        "set at 5");
    EXPECT_EQ(fakes.notifications,
              (std::vector<FakeNotification>{{NOTIFY_MOVING, ORIGIN_USER}, {NOTIFY_IDLE, ORIGIN_USER}}));
    EXPECT_TRUE(fakes.armed(timers.usrMoveStopTimer));
    gContext.calibrationArg = nullptr;
    EXPECT_EQ(call("test", R"({"times":"1"})"), code(RESULT_OK));
    fakes.runWorker();
    EXPECT_EQ(driven(), "pan rotate -3000, pan rotate 3000, tilt rotate -1220, tilt rotate 1220");
}

} // namespace
