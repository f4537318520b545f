// The launcher: the programs of a lab, their ends, and its command line.

#include "lab/core/files.h"
#include "lab/core/process.h"
#include "lab/lab.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>

#include <filesystem>

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

const LabOptions WITHOUT_DAEMON{.startPtzd = false};

TEST(Head, TwoLabsLiveSideBySideAndEndWithTheirOwner)
{
    Lab one;
    Lab other;
    ASSERT_TRUE(one.up(WITHOUT_DAEMON)) << one.error();
    const pid_t launcher = fork();
    if (launcher == 0) {
        Lab killed(other.folder());
        killed.up(WITHOUT_DAEMON);
        raise(SIGKILL);
    }
    ASSERT_EQ(waitpid(launcher, nullptr, 0), launcher);
    const auto runs = [&] { return other.programs.isRunning("ubusd") || other.programs.isRunning("cet"); };
    EXPECT_TRUE(waitUntil([&] { return !runs(); }, 5s));
    EXPECT_TRUE(one.programs.isRunning("cet"));

    ASSERT_TRUE(other.up(WITHOUT_DAEMON)) << other.error();
    ASSERT_TRUE(other.settings.set("image.switch.flip_type", "center")) << other.error();
    EXPECT_EQ(one.settings.get("image.switch.flip_type"), "off");
    EXPECT_EQ(other.settings.get("image.switch.flip_type"), "center");
    EXPECT_EQ(one.invoke("CET", "notify_motor_idle", R"({"type":"3"})").text, R"({"err_code":0})");
    EXPECT_EQ(one.records.callsToCet("notify_motor_idle"), 1);
    EXPECT_TRUE(other.records.cetLog().empty());
    EXPECT_TRUE(other.down());
    EXPECT_FALSE(runs());
}

TEST(Head, StartsOverALabWhoseLauncherAndProgramsWereKilled)
{
    Lab lab;
    const pid_t launcher = fork();
    if (launcher == 0) {
        Lab killed(lab.folder());
        killed.up({.factor = 25000, .outlive = true});
        sendSignal(std::stoi(readFile(lab.folder() + "/pid/cet")), SIGKILL);
        raise(SIGKILL);
    }
    ASSERT_EQ(waitpid(launcher, nullptr, 0), launcher);
    ASSERT_TRUE(lab.programs.isRunning("ubusd"));
    const pid_t former = lab.programs.ptzdPid();
    ASSERT_TRUE(lab.up({.factor = 25000})) << lab.error();
    EXPECT_NE(lab.programs.ptzdPid(), former);
    EXPECT_EQ(lab.call("checkMotorStatus"), R"({"err_code":0})");
    EXPECT_EQ(lab.programs.killPtzd(SIGKILL), SIGKILL);

    EXPECT_FALSE(lab.up({.ptzd = "/bin/false"}));
    EXPECT_EQ(lab.error().substr(0, 20), "the daemon has ended");
}

TEST(CommandLine, DrivesALabFromItsStartToItsEndAndSaysWhatIsWrong)
{
    const std::string root = testing::TempDir() + "lab-cli-" + std::to_string(getpid());
    const Lab lab(root + "/" + std::string(120, 'a')); // longer than a socket's address
    const std::string inLab = "exec 2>&1; cd " + testing::TempDir() + "; exec " LAB_CLI " ";
    const std::string plot = "plot " + lab.folder() + "/head.svg";
    const struct {
        const char* line;
        int status;
        std::string text;
    } uses[] = {
        {"status", 1, "there is no lab in " + lab.folder()},
        {"up --colour red", 2, "there is no option --colour"},
        {"up /proc", 1, "/proc is in use for something else than a lab"},
        {"run --factor 25000", 0, R"("x_coord":"30","y_coord":"0","x_speed":"0","y_speed":"0")"},
        {"up --factor 25000", 0, "a head is up in " + lab.folder() + "\n"},
        {"up", 0, "already"},
        {"run", 1, "already"},
        {"exec ubus -S call ptzd moveTo '{\"x_coord\":\"-15\",\"y_coord\":\"0\"}'", 0, "{\"error_code\":0}\n"},
        {"journal", 0, " x MOVE in=0,4,-450,0,-1 result=0 "}, // from 1800, where it was before its power went
        {"ptzd", 0, "ptzd  calibrated\n"},
        {"ptzd restart", 0, ""},
        {"ptzd kill", 0, ""},
        {"motor x break", 2, "there is no action break"},
        {"motor x fail move 1 ENOPE", 2, "not an error: ENOPE"},
        {"motor y fail set-position ever EBUSY", 0, ""},
        {"motor y delay GET_STATUS 300", 0, ""},
        {"motor y node off", 0, ""},
        {"motor y", 0, "SET_POSITION fails for ever (Device or resource busy), GET_STATUS answers 300 ms late"},
        {"motor x capa 0 8 1220", 0, ""},
        {"motor x stuck on", 0, ""},
        {"clock set '2030-01-02 03:04:05'", 0, ""},
        {"cet loud", 2, "there is no action loud"},
        {"cet late 1500", 0, ""},
        {"bus restart", 0, ""},
        {"status", 1, "time  2030-01-02 03:04:0"},
        {"status", 1, "CET   answers late\nptzd  does not run\n"},
        {"status", 1, "reports running for ever, reports range 0, max_speed 8, total_steps 1220"},
        {"status", 1, "/dev/y-motor is missing"},
        {"motor y clear", 0, ""},
        {"power-loss", 0, ""},
        {"motor y journal", 0, " y POWER_LOSS "},
        {plot.c_str(), 0, "drawn"},
        {"exec -- uci get tour.scan_tour.x_coord_end", 0, "100\n"},
        {"down", 0, "the head in " + lab.folder() + " is down\n"},
        {"down", 0, "no head is up in "},
    };
    for (const auto& use : uses) {
        std::string output;
        const int status = runCommand({"sh", "-c", inLab + use.line}, {"PTZD_LAB_DIR=" + lab.folder()}, output);
        EXPECT_EQ(status, use.status) << use.line << "\n" << output;
        EXPECT_NE(output.find(use.text), std::string::npos) << use.line << "\n" << output;
    }
    EXPECT_NE(readFile(lab.folder() + "/head.svg").find("<polyline class='course' points='"), std::string::npos);
    fs::remove_all(root);
}

} // namespace
