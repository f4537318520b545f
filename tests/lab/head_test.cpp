// The launcher: the programs of a lab, and their ends.

#include "probe.h"

#include "lab/core/process.h"
#include "lab_paths.h"

#include <signal.h>
#include <sys/stat.h>

#include <array>
#include <filesystem>
#include <fstream>

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

LabOptions withoutDaemon()
{
    LabOptions options;
    options.startPtzd = false;
    return options;
}

std::string notify(const Lab& lab, const std::string& method, std::chrono::milliseconds timeout = 10s)
{
    const LabReply reply = lab.invoke("CET", method, R"({"type":"3"})", timeout);
    return reply.status == 0 ? reply.text : "status " + std::to_string(reply.status);
}

TEST(Head, LateAnswersDoNotQueueBehindEachOther)
{
    Lab lab;
    ASSERT_TRUE(lab.up(withoutDaemon())) << lab.error();
    lab.cet.setAnswer(CET_LATE, 700);
    const auto start = std::chrono::steady_clock::now();
    std::array<std::string, 3> answers;
    {
        std::vector<std::thread> callers;
        for (std::string& answer : answers)
            callers.emplace_back([&] { answer = notify(lab, "notify_motor_idle"); });
        for (std::thread& caller : callers)
            caller.join();
    }
    const auto took = std::chrono::steady_clock::now() - start;
    for (const std::string& answer : answers)
        EXPECT_EQ(answer, R"({"err_code":0})");
    EXPECT_GE(took, 699ms);
    EXPECT_LT(took, 2000ms) << "less than three times 700 ms";
}

TEST(Head, TwoLabsLiveSideBySideAndEndWithoutATrace)
{
    std::vector<fs::path> processes;
    {
        Lab one;
        Lab other;
        ASSERT_TRUE(one.up(withoutDaemon())) << one.error();
        ASSERT_TRUE(other.up(withoutDaemon())) << other.error();
        ASSERT_TRUE(other.settings.set("image.switch.flip_type", "center")) << other.error();
        EXPECT_EQ(one.settings.get("image.switch.flip_type"), "off");
        EXPECT_EQ(other.settings.get("image.switch.flip_type"), "center");
        EXPECT_EQ(other.settings.get("image.switch.no_such_option"), std::nullopt);
        notify(one, "notify_motor_idle");
        EXPECT_EQ(one.records.callsToCet("notify_motor_idle"), 1);
        EXPECT_TRUE(other.records.cetLog().empty());
        for (const Lab* lab : {&one, &other}) {
            for (const auto& file : fs::directory_iterator(lab->folder() + "/pid")) {
                pid_t pid = 0;
                std::ifstream(file.path()) >> pid;
                processes.push_back("/proc/" + std::to_string(pid));
            }
        }
        EXPECT_EQ(processes.size(), 4u);
    }
    for (const fs::path& process : processes)
        EXPECT_FALSE(fs::exists(process)) << process;
}

TEST(Head, StartsOverALabWhoseLauncherAndProgramsWereKilled)
{
    Lab lab;
    LabOptions options;
    options.factor = 25000;
    options.startPtzd = LAB_PTZD[0] != '\0';
    const pid_t launcher = fork();
    if (launcher == 0) {
        Lab killed(lab.folder());
        LabOptions leftBehind = options;
        leftBehind.outlive = true;
        killed.up(leftBehind);
        pid_t cet = 0;
        std::ifstream(lab.folder() + "/pid/cet") >> cet;
        sendSignal(cet, SIGKILL);
        raise(SIGKILL);
    }
    ASSERT_EQ(waitpid(launcher, nullptr, 0), launcher);
    ASSERT_TRUE(lab.programs.isRunning("ubusd"));
    ASSERT_TRUE(fs::is_socket(lab.folder() + "/var/run/ubus.sock"));
    const pid_t former = lab.programs.ptzdPid();
    ASSERT_TRUE(lab.up(options)) << lab.error();
    EXPECT_EQ(notify(lab, "notify_motor_idle"), R"({"err_code":0})");
    if (options.startPtzd) {
        EXPECT_NE(lab.programs.ptzdPid(), former);
        EXPECT_EQ(lab.call("checkMotorStatus"), R"({"err_code":0})");
        EXPECT_EQ(lab.programs.killPtzd(SIGKILL), SIGKILL);
        EXPECT_TRUE(lab.programs.startPtzd()) << lab.error();
    }
}

TEST(Head, OwnedProgramsEndWithTheirLauncher)
{
    Lab lab;
    const pid_t launcher = fork();
    if (launcher == 0) {
        Lab killed(lab.folder());
        killed.up(withoutDaemon());
        raise(SIGKILL);
    }
    ASSERT_EQ(waitpid(launcher, nullptr, 0), launcher);
    EXPECT_TRUE(waitUntil([&] { return !lab.programs.isRunning("ubusd") && !lab.programs.isRunning("cet"); }, 5s));
}

TEST(Head, SaysWhyItDoesNotStart)
{
    Lab lab;
    LabOptions options = withoutDaemon();
    options.startCet = false;
    options.startPtzd = true;
    options.ptzd = "/no/such/program";
    EXPECT_FALSE(lab.up(options));
    EXPECT_EQ(lab.error(), "cannot start /no/such/program: No such file or directory");
    options.ptzd = "/bin/false";
    EXPECT_FALSE(lab.up(options));
    EXPECT_EQ(lab.error().substr(0, 20), "the daemon has ended");
}

TEST(Head, TakesNoDaemonForReadyThatSeemedToHaveEndedForAnInstant)
{
    Lab lab;
    ASSERT_TRUE(lab.up(withoutDaemon())) << lab.error();
    LabOptions options = withoutDaemon();
    options.ptzd = lab.folder() + "/blinking";
    std::ofstream(options.ptzd)
        << "#!/bin/sh\ncd \"$PTZD_LAB/pid\"\nwhile :; do echo $$ >ptzd; : <.; : <.; : <.; : >ptzd; done\n";
    fs::permissions(options.ptzd, fs::perms::owner_all);
    ASSERT_TRUE(lab.up(options)) << lab.error();
    for (int start = 0; start < 60; ++start) {
        ASSERT_FALSE(lab.programs.startPtzd()) << "start " << start;
        EXPECT_TRUE(lab.error().starts_with("the daemon has ended")) << lab.error();
        lab.programs.killPtzd(SIGKILL);
    }
}

/// Runs ptzd-lab in an empty folder; its exit status and all that it printed.
std::pair<int, std::string> command(const std::string& line)
{
    std::string output;
    FILE* pipe = popen(("cd " + testing::TempDir() + " && " LAB_CLI " " + line + " 2>&1 </dev/null").c_str(), "r");
    char part[4096];
    while (fgets(part, sizeof(part), pipe))
        output += part;
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

TEST(CommandLine, SaysWhatIsWrong)
{
    const struct {
        const char* line;
        int status;
        const char* text;
    } uses[] = {
        {"", 2, "which command?"},
        {"fly", 2, "there is no command fly"},
        {"help", 0, "power-loss"},
        {"up --colour red", 2, "there is no option --colour"},
        {"up --factor", 2, "--factor needs a value"},
        {"up --pan 300,8", 2, "--pan does not take \"300,8\""},
        {"up one two", 2, "more than one folder: one and two"},
        {"up /proc", 1, "/proc is in use for something else than a lab"},
        {"motor", 2, "which axis, x or y?"},
        {"motor z", 2, "the axis is x or y, not z"},
        {"motor x break", 2, "there is no action break"},
        {"motor x fail JUMP", 2, "there is no request JUMP"},
        {"motor x fail move often", 2, "not a number of times: often"},
        {"motor x fail move 1 ENOPE", 2, "not an error: ENOPE"},
        {"motor x delay move soon", 2, "not a time in ms: soon"},
        {"motor x capa 1 2", 2, "capa takes three whole numbers, or off"},
        {"motor x node maybe", 2, "node is on or off"},
        {"clock speed fast", 2, "speed takes a number"},
        {"cet late", 2, "late needs a time in ms"},
        {"cet loud", 2, "there is no answer or action loud"},
        {"bus explode", 2, "there is no action explode"},
        {"ptzd explode", 2, "there is no action explode"},
        {"journal --all", 2, "takes -f or nothing"},
        {"plot", 2, "takes the name of the picture"},
        {"exec --", 2, "which command?"},
        {"status /tmp/no/such/lab", 1, "there is no lab in /tmp/no/such/lab"},
        {"down /tmp/no/such/lab", 1, "there is no lab in /tmp/no/such/lab"},
    };
    for (const auto& use : uses) {
        const auto [status, output] = command(use.line);
        EXPECT_EQ(status, use.status) << use.line << "\n" << output;
        EXPECT_NE(output.find(use.text), std::string::npos) << use.line << "\n" << output;
        EXPECT_TRUE(use.status != 2 || output.find("ptzd-lab ") != std::string::npos) << "usage of " << use.line;
    }
}

TEST(CommandLine, InterferesWithTheLabThatTheEnvironmentNames)
{
    Lab lab;
    ASSERT_TRUE(lab.up(withoutDaemon())) << lab.error();
    setenv("PTZD_LAB_DIR", lab.folder().c_str(), 1);
    EXPECT_EQ(command("motor y fail set-position ever EBUSY").first, 0);
    EXPECT_EQ(command("motor y node off").first, 0);
    EXPECT_EQ(command("clock set '2030-01-02 03:04:05'").first, 0);
    const auto [status, text] = command("status");
    EXPECT_EQ(status, 1) << "the daemon does not run";
    EXPECT_NE(text.find("SET_POSITION fails for ever (Device or resource busy)"), std::string::npos) << text;
    EXPECT_NE(text.find("/dev/y-motor is missing"), std::string::npos) << text;
    EXPECT_NE(text.find("time  2030-01-02 03:04:0"), std::string::npos) << text;
    EXPECT_EQ(command("exec -- uci get tour.scan_tour.x_coord_end").second, "100\n");
    EXPECT_EQ(command("exec ubus list").second, "CET\n");
    EXPECT_EQ(command("down").first, 0);
    EXPECT_FALSE(lab.programs.isRunning("ubusd"));
    unsetenv("PTZD_LAB_DIR");
}

TEST(CommandLine, ShowsAHeadAndRunsOneInTheBackground)
{
    if (LAB_PTZD[0] == '\0')
        GTEST_SKIP() << "there is no daemon yet";
    Lab lab;
    setenv("PTZD_LAB_DIR", lab.folder().c_str(), 1);
    const auto [shown, text] = command("run --factor 25000");
    EXPECT_EQ(shown, 0) << text;
    EXPECT_NE(text.find("tilt  turns by 1220 steps from step 0\n"), std::string::npos) << text;
    EXPECT_NE(text.find("calibrated\n"), std::string::npos) << text;
    EXPECT_NE(text.find(R"("x_coord":"30","y_coord":"0","x_speed":"0","y_speed":"0")"), std::string::npos) << text;
    EXPECT_EQ(lab.programs.ptzdPid(), 0) << "without a terminal it ends";

    EXPECT_EQ(command("up --factor 25000").first, 0);
    EXPECT_NE(command("up").second.find("already"), std::string::npos);
    EXPECT_EQ(command("run").first, 1) << "one head a folder";
    EXPECT_EQ(command("exec ubus -S call ptzd moveTo '{\"x_coord\":\"-15\",\"y_coord\":\"0\"}'").second,
              "{\"error_code\":0}\n");
    ASSERT_TRUE(lab.attach());
    EXPECT_TRUE(waitUntil([&] { return lab.motors.now(LAB_PAN).shaft == 1350; }, 10s));
    EXPECT_EQ(command("ptzd kill").first, 0);
    EXPECT_EQ(command("ptzd").second, "ptzd  does not run\n");
    EXPECT_EQ(command("ptzd kill").first, 1);
    EXPECT_EQ(command("ptzd restart").first, 0);
    EXPECT_EQ(command("ptzd").second, "ptzd  calibrated\n");
    EXPECT_EQ(command("plot " + lab.folder() + "/head.svg").first, 0);
    EXPECT_TRUE(fs::exists(lab.folder() + "/head.svg"));
    EXPECT_NE(command("journal").second.find(" x MOVE in=0,4,-450,0,-1 result=0 "), std::string::npos)
        << "from 1800, where the head stood before its power went";
    EXPECT_EQ(command("down").second, "the head in " + lab.folder() + " is down\n");
    EXPECT_EQ(command("down").second, "no head is up in " + lab.folder() + "\n");
    unsetenv("PTZD_LAB_DIR");
}

TEST(Programs, LiveWhileTheyReplaceThemselves)
{
    // The kernel shows no environment for an instant of every exec, the one that starts a program among them.
    char name[] = "/tmp/lab-programs-XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    const std::string folder(name);
    const std::string again = folder + "/again";
    std::ofstream(again) << "#!/bin/sh\nexec " << again << "\n";
    fs::permissions(again, fs::perms::owner_all);
    std::string error;
    const pid_t pid = startProcess({{again}, {"PTZD_LAB=" + folder}, folder + "/log", folder + "/pid", true}, error);
    ASSERT_NE(pid, 0) << error;
    int unseen = 0;
    for (int look = 0; look < 5000; ++look)
        unseen += livesIn(pid, folder) ? 0 : 1;
    EXPECT_EQ(unseen, 0);
    sendSignal(pid, SIGKILL);
    EXPECT_TRUE(awaitEnd(pid, folder, 10s).has_value());
    EXPECT_FALSE(livesIn(pid, folder));
    fs::remove_all(folder);
}

} // namespace
