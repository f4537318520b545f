// Starts that fail in ways of their own, and how the daemon ends.

#include "head.h"
#include "lab/core/files.h"
#include "lab/core/process.h"
#include "lab_paths.h"

#include <sys/wait.h>

#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace {

constexpr std::string_view SANITIZERS = PTZD_SANITIZERS; // of this build

class Start : public HeadInTheLab {};

TEST_F(Start, MovesNothingAndEndsOrderlyWhileItWaitsForADevice)
{
    LabOptions options = fastHead();
    options.config["tour"] = tourPackage("on", 1, -100, 100);
    options.startPtzd = false;
    options.waitCalibrated = false;
    ASSERT_TRUE(lab.up(options)) << lab.error();
    ASSERT_TRUE(lab.motors.setNode(LAB_TILT, false));
    (void)lab.programs.startPtzd();
    EXPECT_TRUE(reported("motorInit", "can't open /dev/y-motor file, sleep 1 second and retry"));
    std::this_thread::sleep_for(500ms); // two cycles of the touring thread
    EXPECT_EQ(lab.programs.killPtzd(SIGTERM), 0);
    EXPECT_EQ(lab.records.ptzdLog().find("initialize failed"), std::string::npos);
    EXPECT_EQ(lab.records.ptzdLog().find("tour"), std::string::npos) << "a tour before the calibration";
}

// Else the first of its own descriptors would become the standard output, and the console's lines go into it.
TEST_F(Start, WorksWithoutStandardDescriptors)
{
    const std::string wrapper = lab.folder() + "/closed";
    std::ofstream(wrapper) << "#!/bin/sh\nexec '" << LAB_PTZD << "' <&- >&- 2>&-\n";
    fs::permissions(wrapper, fs::perms::owner_all);
    LabOptions options = fastHead();
    options.ptzd = wrapper;
    up(options);
    EXPECT_EQ(lab.call("moveTo"), REFUSED_PARAM); // which writes to the console
    EXPECT_EQ(lab.call("moveTo", coords(30, 0)), DONE);
    EXPECT_TRUE(settled());
    EXPECT_NE(lab.records.messageLog().find("Invalied parameter."), std::string::npos);
    for (const char* descriptor : {"0", "1", "2"})
        EXPECT_EQ(fs::read_symlink("/proc/" + std::to_string(lab.programs.ptzdPid()) + "/fd/" + descriptor),
                  "/dev/null");
}

TEST_F(Start, WorksWithTheSystemsOwnTimers)
{
    if (SANITIZERS == "thread")
        GTEST_SKIP() << "ThreadSanitizer does not survive the C library's timers that notify by a thread";
    LabOptions options = fastHead();
    options.environment = {"PTZD_LAB_GLIBC_TIMERS=1"};
    up(options);
    for (int motions = 1; motions <= 3; ++motions) {
        EXPECT_EQ(lab.call("moveTo", coords(10 * motions, 0)), DONE);
        ASSERT_TRUE(settled(motions)) << "the status poll ends each motion";
    }
    EXPECT_TRUE(waitUntil([&] { return lab.settings.get("ptzd.x_motor.steps") == "1800"; }, DEADLINE))
        << "after ten seconds";
}

TEST_F(HeadInTheLab, EndsWithinTwoSecondsInEveryState)
{
    // On a busy machine an end takes longer, and one with a sanitizer's checks longer still.
    const auto limit = std::getenv("PTZD_LONG_TESTS") && SANITIZERS.empty() ? 2000ms : 9000ms;
    auto quickest = std::chrono::steady_clock::duration::max();
    const auto endsWell = [&](const char* state) {
        const auto started = std::chrono::steady_clock::now();
        const auto status = lab.programs.killPtzd(SIGTERM);
        const auto took = std::chrono::steady_clock::now() - started;
        EXPECT_EQ(status, 0) << state << "\n" << lab.records.ptzdLog();
        EXPECT_LT(took, limit) << state;
        quickest = std::min(quickest, took);
    };
    const auto expectStored = [&](const char* state) {
        ASSERT_TRUE(waitUntil([&] { return rests(); }, DEADLINE)) << state;
        EXPECT_EQ(lab.settings.get("ptzd.x_motor.steps"), std::to_string(lab.motors.now(LAB_PAN).shaft)) << state;
        EXPECT_EQ(lab.settings.get("ptzd.y_motor.steps"), std::to_string(lab.motors.now(LAB_TILT).shaft)) << state;
    };
    up(fastHead());
    lab.motors.setFactor(LAB_PAN, 100);
    EXPECT_EQ(lab.call("moveTo", coords(150, 0)), DONE);
    endsWell("moving");

    LabOptions options = fastHead();
    options.config["ptzd"] = "config ptzd 'config'\nconfig motor 'x_motor'\nconfig motor 'y_motor'\n";
    up(options); // whose settings say nothing on positions: they are stored
    lab.motors.setFactor(LAB_PAN, 250);
    EXPECT_EQ(lab.call("moveStep", R"({"direction":"180"})"), DONE);
    std::this_thread::sleep_for(50ms);
    endsWell("stepping");
    EXPECT_TRUE(rests()) << "nobody else would stop it";
    expectStored("stepping");

    options = fastHead();
    options.config["tour"] = tourPackage("on", 1, -150, 150);
    options.clockSpeed = 20;
    up(options);
    lab.motors.setFactor(LAB_PAN, 10);
    ASSERT_TRUE(waitUntil([&] { return lab.motors.now(LAB_PAN).running != 0; }, DEADLINE)) << "the tour's first step";
    endsWell("touring");
    lab.clock.realTime();

    up(fastHead());
    lab.cet.setAnswer(CET_SILENT);
    EXPECT_EQ(lab.call("moveTo", coords(10, 0)), DONE);
    ASSERT_TRUE(waitUntil([&] { return lab.records.callsToCet("notify_motor_idle") == 1; }, DEADLINE));
    endsWell("during a notification");

    up(fastHead());
    lab.motors.setFactor(LAB_PAN, 250); // 0.2 s
    EXPECT_EQ(lab.call("moveTo", coords(20, 0)), DONE);
    const pid_t bus = static_cast<pid_t>(std::stol(readFile(lab.folder() + "/pid/ubusd")));
    ASSERT_TRUE(sendSignal(bus, SIGSTOP));
    ASSERT_TRUE(waitUntil([&] { return rests(); }, DEADLINE));
    std::this_thread::sleep_for(300ms); // the poll has seen it, and its thread waits inside the bus library
    endsWell("in mid-notification on a bus that has stalled");
    expectStored("on a bus that has stalled");
    ASSERT_TRUE(sendSignal(bus, SIGCONT));
    EXPECT_LT(quickest, 1400ms) << "each waited for as long as a thread may hang";
}

TEST_F(HeadInTheLab, EndsAtOnceWithASecondSignal)
{
    LabOptions options = slowHead();
    options.waitCalibrated = false;
    ASSERT_TRUE(lab.up(options)) << lab.error();
    ASSERT_TRUE(waitUntil([&] { return requests("ROTATE") > 0; }, DEADLINE)); // which takes seconds
    ASSERT_TRUE(sendSignal(lab.programs.ptzdPid(), SIGTERM));
    std::this_thread::sleep_for(100ms); // two equal signals at once would count as one
    const auto status = lab.programs.killPtzd(SIGINT);
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 130) << *status << ": waited for the calibration";
}

} // namespace
