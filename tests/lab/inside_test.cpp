// What a program in the lab sees of its motors, its time and its files. The tests are that program: main() runs itself
// in a lab whose folder has a long path with special characters in it.

#include "lab/clock.h"
#include "lab/core/files.h"
#include "lab/lab.h"
#include "lab/state_file.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <glob.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <future>

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

/// Real time, whatever the lab's clock does: a wait for a descriptor, of which there is none.
void pauseReal(std::chrono::milliseconds time)
{
    poll(nullptr, 0, static_cast<int>(time.count()));
}

class InTheLab : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(lab_.attach()) << lab_.error();
        lab_.motors.powerLoss();
        for (const LabAxisId axis : {LAB_PAN, LAB_TILT}) {
            lab_.motors.clearFaults(axis);
            motors_[axis] = open(axis == LAB_PAN ? "/dev/x-motor" : "/dev/y-motor", O_RDONLY | O_CLOEXEC);
            ASSERT_GE(motors_[axis], 0);
        }
        lab_.clock.realTime();
        lab_.records.clear();
    }
    void TearDown() override
    {
        lab_.clock.realTime();
        for (const int motor : motors_)
            close(motor);
    }
    /// One of the seven requests; 0, or an errno value.
    int request(LabAxisId axis, LabRequest kind, int32_t speed = 0, int32_t steps = 0)
    {
        constexpr unsigned long WORDS[] = {0x8014DE00, 0x4014DE01, 0x8014DE02, 0x4014DE03,
                                           0x4014DE04, 0x4014DE05, 0x0000DE06};
        int32_t record[] = {0, speed, steps, 0, 0};
        const int result = ioctl(motors_[axis], WORDS[kind], kind == LAB_STOP ? nullptr : record);
        const int problem = errno;
        const std::lock_guard hold(lock_);
        std::copy(std::begin(record), std::end(record), answer_.begin());
        return result == 0 ? 0 : problem;
    }
    std::array<int32_t, 5> status(LabAxisId axis)
    {
        EXPECT_EQ(request(axis, LAB_GET_STATUS), 0);
        return answer_;
    }
    /// A rotation on a thread of its own, under way.
    std::future<int> rotateBehind(int32_t steps)
    {
        auto result = std::async(std::launch::async, [=, this] { return request(LAB_PAN, LAB_ROTATE, 0, steps); });
        EXPECT_TRUE(waitUntil([this] { return lab_.motors.now(LAB_PAN).running == 1; }, 5s));
        return result;
    }
    std::vector<LabJournalEntry> journalOf(const std::string& kind)
    {
        std::vector<LabJournalEntry> entries = lab_.records.journal();
        std::erase_if(entries, [&](const LabJournalEntry& entry) { return entry.request != kind; });
        return entries;
    }
    using Words = std::array<int32_t, 5>;
    Lab lab_{getenv("PTZD_LAB")};
    int motors_[LAB_AXIS_COUNT] = {-1, -1};
    std::mutex lock_;
    Words answer_{};
};

using Motors = InTheLab;

TEST_F(Motors, ReportWhatTheyAreOrWhatTheFaultsSay)
{
    EXPECT_EQ(request(LAB_TILT, LAB_GET_CAPA), 0);
    EXPECT_EQ(answer_, (Words{122, 8, 1220, 0, 0}));
    EXPECT_EQ(status(LAB_PAN), (Words{0, 1, 0, 0, 1})) << "without power until now";
    EXPECT_EQ(ioctl(motors_[LAB_PAN], 0x4014DE04, nullptr), -1);
    EXPECT_EQ(errno, EFAULT);
    lab_.motors.reportCapability(LAB_TILT, LabAxisSetting{1, -2, 3});
    EXPECT_EQ(request(LAB_TILT, LAB_GET_CAPA), 0);
    EXPECT_EQ(answer_, (Words{1, -2, 3, 0, 0}));
    lab_.motors.stuckRunning(LAB_PAN, true);
    EXPECT_EQ(status(LAB_PAN)[3], 1);
    lab_.motors.failRequest(LAB_PAN, LAB_SET_POSITION, 2, EBUSY, 1);
    for (const int expected : {0, EBUSY, EBUSY, 0})
        EXPECT_EQ(request(LAB_PAN, LAB_SET_POSITION, 0, expected == 0 ? 700 : 9), expected);
    EXPECT_EQ(journalOf("SET_POSITION").at(1).result, EBUSY);
    lab_.motors.setNode(LAB_PAN, false);
    EXPECT_EQ(open("/dev/x-motor", O_RDONLY), -1);
    EXPECT_EQ(status(LAB_PAN)[2], 700) << "an open descriptor goes on working";
    lab_.motors.clearFaults(LAB_PAN);
    EXPECT_EQ(status(LAB_PAN)[3], 0);
}

TEST_F(Motors, MoveReturnsAtOnceAndThePositionFollowsTheClock)
{
    request(LAB_PAN, LAB_SET_POSITION, 0, 1500);
    request(LAB_PAN, LAB_MOVE, 1, 1000); // for 1 s
    status(LAB_PAN);
    request(LAB_PAN, LAB_SET_SPEED, 4); // counts for the motion too
    const auto begun = journalOf("MOVE").at(0);
    const auto asked = journalOf("GET_STATUS").at(0);
    EXPECT_EQ(begun.rate, 1000);
    EXPECT_EQ(begun.left, 1000);
    EXPECT_EQ(begun.in, (std::vector<int32_t>{0, 1, 1000, 0, 0}));
    EXPECT_EQ(asked.out.at(2), 1500 + (asked.labNs - begun.labNs) / NS_PER_MS) << "a step in 1 ms";
    EXPECT_EQ(journalOf("SET_SPEED").at(0).rate, 4000);
    EXPECT_TRUE(waitUntil([this] { return status(LAB_PAN) == Words{0, 4, 2500, 0, 1}; }, 5s));
}

TEST_F(Motors, ABlockedRotationAnswersOthersAndFailsWhenStoppedReplacedOrWithoutPower)
{
    request(LAB_PAN, LAB_SET_POSITION, 0, 3000);
    auto rotation = rotateBehind(-2000);
    EXPECT_EQ(status(LAB_PAN)[3], 1);
    request(LAB_PAN, LAB_STOP);
    EXPECT_EQ(rotation.get(), EIO);
    rotation = rotateBehind(-2000);
    request(LAB_PAN, LAB_MOVE, 8, 40);
    EXPECT_EQ(rotation.get(), EIO);
    EXPECT_TRUE(waitUntil([this] { return lab_.motors.now(LAB_PAN).running == 0; }, 5s));
    rotation = rotateBehind(-2000);
    const int32_t shaft = lab_.motors.now(LAB_PAN).shaft;
    lab_.motors.powerLoss();
    EXPECT_EQ(rotation.get(), EIO);
    EXPECT_EQ(status(LAB_PAN), (Words{0, 1, 0, 0, 1}));
    EXPECT_NEAR(lab_.motors.now(LAB_PAN).shaft, shaft, 500) << "the head itself does not move";
    EXPECT_EQ(request(LAB_PAN, LAB_ROTATE, 0, 20), 0);
    std::vector<int> results;
    for (const LabJournalEntry& end : journalOf(JOURNAL_ROTATE_END))
        results.push_back(end.result);
    EXPECT_EQ(results, (std::vector<int>{EIO, EIO, EIO, 0}));
    EXPECT_EQ(journalOf(JOURNAL_POWER_LOSS).size(), 2u);
}

TEST_F(Motors, ADelayedAnswerIsStaleHoldsNobodyUpAndEndsWithItsFault)
{
    request(LAB_PAN, LAB_SET_POSITION, 0, 100);
    lab_.motors.delayRequest(LAB_PAN, LAB_GET_STATUS, 3'600'000);
    auto asked = std::async(std::launch::async, [this] { return status(LAB_PAN)[2]; });
    ASSERT_TRUE(waitUntil([this] { return journalOf("GET_STATUS").size() == 1; }, 5s));
    EXPECT_EQ(request(LAB_PAN, LAB_SET_POSITION, 0, 900), 0);
    EXPECT_EQ(asked.wait_for(50ms), std::future_status::timeout);
    lab_.motors.clearFaults(LAB_PAN);
    EXPECT_EQ(asked.get(), 100) << "what was true when it was asked";
}

TEST_F(Motors, GoOnWhenAProgramIsKilledInTheMidstEvenWithTheLock)
{
    const pid_t child = fork();
    if (child == 0) {
        fs::remove(lab_.folder() + "/journal"); // the next line is the first of a new one
        request(LAB_PAN, LAB_SET_POSITION, 0, 0);
        request(LAB_PAN, LAB_MOVE, 1, 400); // 400 ms
        const LabLock hold(*mapLabState(lab_.folder().c_str()));
        raise(SIGKILL);
    }
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_TRUE(waitUntil([this] { return status(LAB_PAN) == Words{0, 1, 400, 0, 1}; }, 5s));
    EXPECT_EQ(journalOf("SET_POSITION").size(), 1u);
    EXPECT_EQ(journalOf("MOVE").at(0).pid, child);
}

/// A timer that counts its expiries, which take `slow` each.
struct Timer {
    explicit Timer(std::chrono::milliseconds slow = 0ms) : slow_(slow)
    {
        sigevent event{};
        event.sigev_notify = SIGEV_THREAD;
        event.sigev_value.sival_ptr = this;
        event.sigev_notify_function = [](sigval value) {
            auto* timer = static_cast<Timer*>(value.sival_ptr);
            timer->seen_ = timer->written_;
            timer->most_ = std::max(timer->most_.load(), ++timer->running_);
            ++timer->fired_;
            pauseReal(timer->slow_);
            --timer->running_;
        };
        EXPECT_EQ(timer_create(CLOCK_REALTIME, &event, &id_), 0);
    }
    int arm(int64_t firstMs, int64_t periodMs)
    {
        if (fired_ == 0)
            ++written_; // no callback has run that could look at it
        const itimerspec value{asTimespec(periodMs * NS_PER_MS), asTimespec(firstMs * NS_PER_MS)};
        return timer_settime(id_, 0, &value, nullptr);
    }
    timer_t id_{};
    std::chrono::milliseconds slow_;
    std::atomic<int> fired_{0};
    std::atomic<int> running_{0};
    std::atomic<int> most_{0};
    std::atomic<int> seen_{0};
    int written_ = 0; // without a lock: the hand-over to the callback must order it
};

using TimeInTheLab = InTheLab;

TEST_F(TimeInTheLab, TimersKeepTheirPeriodOverlapAndEndWhenDisarmed)
{
    static Timer quick;
    static Timer slow(400ms);
    static Timer never;
    never.arm(60'000, 0);
    const int64_t start = lab_.clock.nowNs();
    quick.arm(100, 100);
    slow.arm(50, 50);
    pauseReal(1050ms);
    const int64_t before = lab_.clock.nowNs();
    const int fired = quick.fired_;
    // On a busy machine a late dispatcher makes one of several expiries, and threads take a while to start.
    EXPECT_GE(fired, (before - start) / NS_PER_MS / 100 * 6 / 10 - 1);
    EXPECT_LE(fired, (lab_.clock.nowNs() - start) / NS_PER_MS / 100);
    EXPECT_GE(slow.most_, 3);
    EXPECT_EQ(never.fired_, 0);
    quick.arm(0, 0);
    slow.arm(0, 0);
    pauseReal(150ms);
    const int last = quick.fired_;
    pauseReal(250ms);
    EXPECT_EQ(quick.fired_, last) << "a disarmed timer is silent";
}

TEST_F(TimeInTheLab, ArmingAgainStartsOverAndADeletedTimerIsGone)
{
    static Timer timer;
    timer.arm(150, 0);
    for (int i = 0; i < 5; ++i) {
        pauseReal(50ms);
        timer.arm(20'000, 0);
    }
    EXPECT_EQ(timer.fired_, 0);
    timer.arm(20, 0);
    ASSERT_TRUE(waitUntil([] { return timer.fired_ == 1; }, 5s));
    EXPECT_EQ(timer.seen_, 7) << "the callback saw what was written before each of seven armings";
    timer.arm(100, 100);
    EXPECT_EQ(timer_delete(timer.id_), 0);
    EXPECT_EQ(timer.arm(100, 100), -1);
    pauseReal(250ms);
    EXPECT_EQ(timer.fired_, 1);
}

TEST_F(TimeInTheLab, AChangeOfTheClockWakesTimersAndEverySleeper)
{
    static Timer timer;
    timer.arm(60'000, 0);
    std::vector<std::future<void>> sleepers;
    for (void (*aMinute)() :
         {+[] { sleep(60); }, +[] { usleep(60'000'000); }, +[] { std::this_thread::sleep_for(60s); }})
        sleepers.push_back(std::async(std::launch::async, aMinute));
    pauseReal(100ms);
    EXPECT_EQ(timer.fired_, 0);
    for (const auto& sleeper : sleepers)
        EXPECT_EQ(sleeper.wait_for(0s), std::future_status::timeout);
    const time_t before = time(nullptr);
    lab_.clock.setSpeed(600); // 60 s become 100 ms
    EXPECT_GE(time(nullptr), before) << "the wall clock goes on from the machine's";
    for (const auto& sleeper : sleepers)
        EXPECT_EQ(sleeper.wait_for(5s), std::future_status::ready);
    EXPECT_TRUE(waitUntil([] { return timer.fired_ == 1; }, 5s));
}

TEST_F(TimeInTheLab, TheWallClockIsTheMachinesUntilSomebodyTouchesIt)
{
    timespec now{};
    timeval day{};
    machineClock(CLOCK_REALTIME, &now);
    EXPECT_NEAR(static_cast<double>(time(nullptr)), static_cast<double>(now.tv_sec), 5);
    ASSERT_TRUE(lab_.clock.setWall("2031-05-04 23:59:50"));
    EXPECT_EQ(lab_.clock.wall().substr(0, 18), "2031-05-04 23:59:5");
    const time_t set = time(nullptr);
    EXPECT_GT(set, now.tv_sec + 86'400);
    clock_gettime(CLOCK_REALTIME, &now);
    gettimeofday(&day, nullptr);
    EXPECT_LE(now.tv_sec - set, 1);
    EXPECT_LE(day.tv_sec - set, 1);
    lab_.clock.setSpeed(100);
    sleep(20);
    lab_.clock.setSpeed(1); // at least 20 s; at 100 a second 10 ms of delay add a second
    EXPECT_GE(time(nullptr) - set, 20) << "the change of speed makes no jump";
    EXPECT_LT(time(nullptr) - set, 320);
    lab_.clock.realTime();
    EXPECT_LT(time(nullptr), set);
}

using Paths = InTheLab;

TEST_F(Paths, FilesLieInTheLabAndNotOnTheMachine)
{
    const auto inLab = [this](const char* path) { return lab_.folder() + path; };
    std::ofstream("/etc/config/probe") << "hello";
    EXPECT_EQ(readFile(inLab("/etc/config/probe")), "hello");
    EXPECT_EQ(readFile("/etc/config///probe"), "hello");
    char resolved[PATH_MAX];
    EXPECT_EQ(realpath("/etc/config/probe", resolved), inLab("/etc/config/probe"));
    EXPECT_NE(access("/etc/configuration", F_OK), 0) << "only whole names count";
    EXPECT_EQ(rename("/etc/config/probe", "/tmp/.uci/probe"), 0);
    EXPECT_EQ(readFile(inLab("/tmp/.uci/probe")), "hello");
    EXPECT_EQ(unlink("/tmp/.uci/probe"), 0);
    EXPECT_EQ(readFile("/proc/self/comm"), "lab_inside_test\n") << "other places are the machine's";
    std::ofstream("/dev/console") << "one";
    fclose(fopen("/dev/console", "w"));
    std::ofstream("/dev/console") << "two";
    EXPECT_EQ(readFile(inLab("/dev/console")), "onetwo") << "a console only grows";
    glob_t found{};
    ASSERT_EQ(glob("/etc/config/t*r", 0, nullptr, &found), 0);
    EXPECT_STREQ(found.gl_pathv[0], "/etc/config/tour");
    globfree(&found);
    char name[] = "/etc/config/.tour.uci-XXXXXX";
    close(mkstemp(name));
    EXPECT_EQ(std::string(name).substr(0, 22), "/etc/config/.tour.uci-");
    EXPECT_TRUE(fs::exists(inLab(name)));
    unlink(name);
}

} // namespace

int main(int argc, char** argv)
{
    if (getenv("PTZD_LAB")) {
        testing::InitGoogleTest(&argc, argv);
        return RUN_ALL_TESTS();
    }
    char root[] = "/tmp/ptzd-inside-XXXXXX";
    const fs::path folder = fs::path(mkdtemp(root)) / "a*[b]" / std::string(120, 'a') / std::string(120, 'a');
    int status = 1;
    {
        Lab lab(folder);
        std::string output;
        std::vector<std::string> command(argv, argv + argc);
        command[0] = fs::read_symlink("/proc/self/exe");
        if (lab.up({.factor = 1000, .startBus = false, .startCet = false, .startPtzd = false}))
            status = lab.run(command, output);
        printf("%s%s", output.c_str(), lab.error().c_str());
    }
    fs::remove_all(root);
    return status;
}
