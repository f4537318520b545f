// Starts that fail in ways of their own, and how the daemon ends.

#include "head.h"
#include "lab/core/process.h"
#include "lab_paths.h"

#include <sys/wait.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace fs = std::filesystem;

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define SKIPS_SYSTEM_TIMERS
#endif
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
#define IS_SANITIZED
#endif
#endif

namespace {

#ifdef IS_SANITIZED
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif

class Start : public HeadInTheLab {
protected:
    /// A lab whose daemon is not started yet.
    void upWithoutDaemon()
    {
        LabOptions options = fastHead();
        options.startPtzd = false;
        options.waitCalibrated = false;
        ASSERT_TRUE(lab.up(options)) << lab.error();
    }
    /// Expects the daemon to give up with status 255 and its closing reports.
    void expectFailedStart(const std::string& report)
    {
        (void)lab.programs.startPtzd(); // it is expected to fail
        const auto status = lab.programs.waitPtzd(DEADLINE);
        ASSERT_TRUE(status.has_value()) << "still runs\n" << lab.records.ptzdLog();
        EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 255) << *status;
        EXPECT_TRUE(reported("PtzdInit", report)) << lab.records.ptzdLog();
        EXPECT_TRUE(reported("main", "initialize failed."));
        EXPECT_EQ(lab.records.ptzdLog().find("Sanitizer"), std::string::npos) << lab.records.ptzdLog();
    }
    std::string console()
    {
        std::ostringstream text;
        text << std::ifstream(lab.folder() + "/dev/console").rdbuf();
        return text.str();
    }
};

TEST_F(Start, FailsOnACapabilityThatMakesNoSense)
{
    upWithoutDaemon();
    for (const LabAxisSetting nonsense :
         {LabAxisSetting{0, 8, 3000}, LabAxisSetting{300, 8, -1}, LabAxisSetting{300, 0, 3000}}) {
        lab.motors.reportCapability(LAB_PAN, nonsense);
        expectFailedStart("can't init x-motor device file");
    }
}

TEST_F(Start, EndsOrderlyWhileItWaitsForADevice)
{
    upWithoutDaemon();
    ASSERT_TRUE(lab.motors.setNode(LAB_TILT, false));
    (void)lab.programs.startPtzd();
    EXPECT_TRUE(reported("motorInit", "can't open /dev/y-motor file, sleep 1 second and retry"));
    EXPECT_EQ(lab.programs.killPtzd(SIGTERM), 0);
    EXPECT_EQ(lab.records.ptzdLog().find("initialize failed"), std::string::npos);
}

TEST_F(Start, GivesUpWithoutABusAndSaysSoOnTheConsole)
{
    upWithoutDaemon();
    std::ofstream(lab.folder() + "/dev/console").flush(); // a console to write to
    ASSERT_TRUE(lab.programs.stopBus());
    const auto started = std::chrono::steady_clock::now();
    expectFailedStart("ubus error.");
    EXPECT_GE(std::chrono::steady_clock::now() - started, 2900ms) << "three attempts, each followed by a second";
    EXPECT_TRUE(reported("ubusInit", "UBUS: connect to ubusd path(/var/run/ubus.sock) failed."));
    EXPECT_EQ(console(), "PTZD: can not connect to ubusd\n");
    fs::remove(lab.folder() + "/dev/console");
    expectFailedStart("ubus error.");
    EXPECT_TRUE(reported("ubusInit", "UBUS: open console file(/dev/console) failed."));
}

// Else the first of its own descriptors would become the standard output, and the console's lines go into it.
TEST_F(Start, WorksWithoutStandardInputAndOutput)
{
    const std::string wrapper = lab.folder() + "/closed";
    std::ofstream(wrapper) << "#!/bin/sh\nexec '" << LAB_PTZD << "' <&- >&-\n";
    fs::permissions(wrapper, fs::perms::owner_all);
    LabOptions options = fastHead();
    options.ptzd = wrapper;
    up(options);
    EXPECT_EQ(lab.call("moveTo"), REFUSED_PARAM); // which writes to the console
    goTo(30, 0);
    EXPECT_NE(lab.records.messageLog().find("Invalied parameter."), std::string::npos);
}

TEST_F(Start, SkipsTheRotationsInFactoryMode)
{
    LabOptions options = fastHead();
    options.config["diagd"] = "config diagd 'factory_mode'\n\toption enabled '1'\n";
    options.waitCalibrated = false;
    ASSERT_TRUE(lab.up(options)) << lab.error();
    ASSERT_TRUE(waitUntil([&] { return lab.call("checkMotorStatus") == R"({"err_code":0})"; }, DEADLINE));
    EXPECT_EQ(requests("ROTATE"), 0);
    EXPECT_EQ(requests("SET_POSITION"), 2);
    EXPECT_EQ(requests("SET_SPEED"), 4);
    ASSERT_TRUE(settled());
}

// ThreadSanitizer does not survive the C library's timers that notify by a thread; elsewhere they must do as well.
#ifndef SKIPS_SYSTEM_TIMERS
TEST_F(Start, WorksWithTheSystemsOwnTimers)
{
    LabOptions options = fastHead();
    options.environment = {"PTZD_LAB_GLIBC_TIMERS=1"};
    up(options);
    for (int motions = 1; motions <= 5; ++motions) {
        EXPECT_EQ(lab.call("moveTo", coords(10 * motions, 0)), DONE);
        ASSERT_TRUE(settled(motions)) << "the status poll ends each motion";
    }
    EXPECT_TRUE(waitUntil([&] { return lab.settings.get("ptzd.x_motor.steps") == "2000"; }, DEADLINE))
        << "after ten seconds";
}
#endif

TEST_F(HeadInTheLab, EndsWithinTwoSecondsInEveryState)
{
    // On a busy machine an end takes longer, and one with a sanitizer's checks longer still.
    const auto limit = std::getenv("PTZD_LONG_TESTS") && !SANITIZED ? 2000ms : 9000ms;
    const auto endsWell = [&](const char* state) {
        const auto started = std::chrono::steady_clock::now();
        const auto status = lab.programs.killPtzd(SIGTERM);
        const auto took = std::chrono::steady_clock::now() - started;
        EXPECT_EQ(status, 0) << state << "\n" << lab.records.ptzdLog();
        EXPECT_LT(took, limit) << state;
        std::printf("%s: ended after %ld ms\n", state, static_cast<long>(took / 1ms));
    };
    const auto expectStored = [&](const char* state) {
        ASSERT_TRUE(waitUntil([&] { return rests(); }, DEADLINE)) << state;
        EXPECT_EQ(lab.settings.get("ptzd.x_motor.steps"), std::to_string(lab.motors.now(LAB_PAN).shaft)) << state;
        EXPECT_EQ(lab.settings.get("ptzd.y_motor.steps"), std::to_string(lab.motors.now(LAB_TILT).shaft)) << state;
    };
    LabOptions options = slowHead();
    options.waitCalibrated = false;
    ASSERT_TRUE(lab.up(options)) << lab.error();
    ASSERT_TRUE(waitUntil([&] { return requests("ROTATE") > 0; }, DEADLINE));
    endsWell("calibrating");

    up(fastHead());
    lab.motors.setFactor(LAB_PAN, 100);
    EXPECT_EQ(lab.call("moveTo", coords(150, 0)), DONE);
    endsWell("moving");

    up(fastHead());
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
    std::atomic<bool> ending{false};
    std::thread storing([&] {
        while (!ending.load())
            (void)lab.invoke("ptzd", "setPreset", R"({"id":"1","save_ptz":"1"})", 500ms);
    });
    goTo(40, 10);
    endsWell("in the middle of commits");
    ending.store(true);
    storing.join();
    expectStored("in the middle of commits");

    up(fastHead());
    lab.cet.setAnswer(CET_SILENT);
    EXPECT_EQ(lab.call("moveTo", coords(10, 0)), DONE);
    ASSERT_TRUE(waitUntil([&] { return lab.records.callsToCet("notify_motor_idle") == 1; }, DEADLINE));
    endsWell("during a notification");
}

TEST_F(HeadInTheLab, EndsAtOnceWithASecondSignal)
{
    LabOptions options = slowHead();
    options.waitCalibrated = false;
    ASSERT_TRUE(lab.up(options)) << lab.error();
    ASSERT_TRUE(waitUntil([&] { return requests("ROTATE") > 0; }, DEADLINE));
    ASSERT_TRUE(sendSignal(lab.programs.ptzdPid(), SIGTERM));
    std::this_thread::sleep_for(100ms); // two equal signals at once would count as one
    const auto status = lab.programs.killPtzd(SIGINT);
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(WIFEXITED(*status) && (WEXITSTATUS(*status) == 130 || WEXITSTATUS(*status) == 0)) << *status;
}

} // namespace
