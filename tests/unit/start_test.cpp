// What the daemon has become at the end of its start-up, whatever is stored, and what its end still does.

#include "head.h"
#include "tour/touring.h"

namespace {

class Start : public Head {
protected:
    /// Starts with settings, runs the calibration and then `inside`.
    static int start(
        const Settings& settings, const std::function<void()>& inside = [] {})
    {
        return rig::run(settings, [&] {
            fakes.workers.pop_front(); // the tours, which have no end
            fakes.runWorker();
            inside();
        });
    }
};

TEST_F(Start, TakesTheHeadToWhereItWasOrHome)
{
    const std::string off = section("ptzd", "config", {{"power_off_recover", "0"}});
    const std::string masked = enabled("lens_mask_info", "ON");
    const std::string factory = enabled("factory_mode", "1"); // nothing rotates
    const struct {
        Settings settings;
        std::string pan, tilt;
    } cases[] = {
        {{{"ptzd", ""}}, "pan rotate -1500, pan set at 4", "tilt rotate -670"},
        {{{"ptzd", position(1000, 200)}}, "pan rotate -2000", "tilt rotate -1020"},
        {{{"ptzd", position(0, 0)}}, "pan rotate -3000, pan set", "tilt rotate -1220, tilt set"},
        {{{"ptzd", off + position(1000, 200)}}, "pan rotate -1500", "tilt rotate -670"},
        {{{"ptzd", position(1000, 200)}, {"lens_mask", masked}}, "pan rotate -2000", "tilt rotate -1220, tilt set"},
        {{{"diagd", factory}}, "pan place 1500, pan set at 8, pan set at 4", "tilt place 550, tilt set at 6, tilt set"},
    };
    for (const auto& one : cases) {
        restart();
        EXPECT_EQ(start(one.settings), 0);
        const std::string all = driven();
        EXPECT_NE(all.find(one.pan), all.npos) << all;
        EXPECT_NE(all.find(one.tilt), all.npos) << all;
    }
}

TEST_F(Start, LoadsItsSwitchesBeforeAnythingMoves)
{
    const Settings settings = {
        {"ptzd", position(1000, 200)},
        {"image", section("image", "switch", {{"flip_type", "center"}})},
        {"target_track", enabled("target_track_info", "on")},
        {"lens_mask", enabled("lens_mask_info", "on")},
    };
    atNext(PAN, MOTOR_IOC_GET_CAPA, [] { EXPECT_EQ(refusedBy(CALIBRATING), ERR_CALIBRATING) << "a tour could begin"; });
    EXPECT_EQ(start(settings,
                    [&] {
                        EXPECT_EQ(gContext.image.imageFlipType.load(), 3);
                        EXPECT_EQ(gContext.track.targetTrackEnabled.load(), 1);
                        standAt(1000, 0);
                        (void)call("stop");
                        EXPECT_EQ(fakes.code, ERR_LENS_MASK);
                        EXPECT_EQ(call("movePanorama", xy(1, 0)), code(RESULT_OK));
                        gContext.position.savePending.store(true);
                    }),
              0);
    EXPECT_NE(rig::stored("ptzd").find("steps '200'"), std::string::npos) << "the mask's position is not stored";
}

TEST_F(Start, EndsWithASaveOfWhatIsPendingAndNothingElse)
{
    for (const bool moved : {false, true}) {
        restart();
        EXPECT_EQ(start({{"ptzd", position(1000, 200)}},
                        [&] {
                            standAt(1010, 220);
                            EXPECT_TRUE(!moved || call("move", xy(1, 2)) == code(RESULT_OK));
                        }),
                  0);
        EXPECT_EQ(rig::stored("ptzd").find("steps '1010'") != std::string::npos, moved);
        EXPECT_FALSE(fakes.armed(timers.saveStepsTimer));
    }
}

TEST_F(Start, NeedsMotors)
{
    for (const MotorCapability& nonsense : {MotorCapability{0, 8, 3000, {}}, {300, 0, 3000, {}}, {300, 8, 0, {}}})
        for (const AxisIndex axis : {PAN, TILT}) {
            restart();
            fakeMotor.capability[axis] = nonsense;
            EXPECT_EQ(start({}), -1);
            EXPECT_EQ(driven(), "");
        }
}

} // namespace
