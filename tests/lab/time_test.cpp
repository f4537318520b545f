// Timers, sleeps and the wall clock of a program in the lab.

#include "probe.h"

#include "lab/clock.h"

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define UNDER_THREAD_SANITIZER
#endif
#endif

namespace {

using namespace std::chrono_literals;

class TimeInTheLab : public MotorLab {
protected:
    void SetUp() override
    {
        MotorLab::SetUp();
        probe_.emplace(lab_);
    }
    void TearDown() override
    {
        EXPECT_EQ(probe_->finish(), 0) << "a sanitizer has something to say";
    }
    std::string ask(const std::string& command)
    {
        return probe_->ask(command);
    }
    long fired(const std::string& timer)
    {
        return probe_->number("fired " + timer);
    }
    /// Arms timer #0 with a period and compares its expiries with the lab time that passes meanwhile.
    void expectPeriod(long periodMs, std::chrono::milliseconds realTime)
    {
        const int64_t start = lab_.clock.nowNs();
        ask("arm #0 " + std::to_string(periodMs) + " " + std::to_string(periodMs));
        std::this_thread::sleep_for(realTime);
        const int64_t before = lab_.clock.nowNs();
        const long count = fired("#0");
        const int64_t after = lab_.clock.nowNs();
        // On a busy machine a late dispatcher makes one of several expiries, and threads take a while to start.
        EXPECT_GE(count, (before - start) / NS_PER_MS / periodMs * 6 / 10 - 1);
        EXPECT_LE(count, (after - start) / NS_PER_MS / periodMs);
    }
    std::optional<Probe> probe_;
};

TEST_F(TimeInTheLab, TimersKeepTheirPeriod)
{
    ask("timer #0 0");
    EXPECT_EQ(ask("left #0"), "0");
    expectPeriod(100, 1050ms);
    EXPECT_EQ(ask("arm #0 0 0"), "0");
    std::this_thread::sleep_for(150ms);
    const long count = fired("#0");
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(fired("#0"), count) << "a disarmed timer is silent";
}

TEST_F(TimeInTheLab, ExpiriesOverlapAndTimersAreIndependent)
{
    ask("timer #0 400");
    ask("timer #1 0");
    ask("arm #0 50 50");
    ask("arm #1 60000 0");
    EXPECT_TRUE(waitUntil(
        [this] {
            int count = 0;
            int most = 0;
            sscanf(ask("fired #0").c_str(), "%d %d", &count, &most);
            return most >= 3;
        },
        10s));
    ask("arm #0 0 0");
    EXPECT_EQ(fired("#1"), 0);
    EXPECT_GT(probe_->number("left #1"), 40'000);
}

TEST_F(TimeInTheLab, ArmingAgainStartsOver)
{
    ask("timer #0 0");
    ask("arm #0 150 0");
    for (int i = 0; i < 5; ++i) {
        std::this_thread::sleep_for(50ms);
        ask("arm #0 20000 0");
    }
    EXPECT_EQ(fired("#0"), 0);
    ask("arm #0 20 0");
    ASSERT_TRUE(waitUntil([this] { return fired("#0") == 1; }, 5s));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(ask("fired #0"), "1 1 7") << "once; and the callback saw what was written before each of seven armings";
    EXPECT_EQ(ask("left #0"), "0");
}

TEST_F(TimeInTheLab, ADeletedTimerIsGone)
{
    ask("timer #0 0");
    ask("arm #0 100 100");
    EXPECT_EQ(ask("delete #0"), "0");
    EXPECT_EQ(ask("arm #0 100 100"), "errno 22");
    EXPECT_EQ(ask("delete #0"), "errno 22");
    std::this_thread::sleep_for(250ms);
    EXPECT_EQ(fired("#0"), 0);
    EXPECT_EQ(ask("timer #0 0"), "0");
    EXPECT_EQ(ask("arm #0 20 0"), "0");
    EXPECT_TRUE(waitUntil([this] { return fired("#0") == 1; }, 5s));
}

TEST_F(TimeInTheLab, AChangeOfTheClockWakesTimersAndSleepers)
{
    ask("timer #0 0");
    ask("arm #0 60000 0");
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(fired("#0"), 0);
    probe_->send("sleep 60000");
    std::this_thread::sleep_for(50ms);
    lab_.clock.setSpeed(600); // 60 s become 100 ms
    EXPECT_LT(strtol(probe_->receive().c_str(), nullptr, 10), 5'000'000);
    EXPECT_TRUE(waitUntil([this] { return fired("#0") == 1; }, 5s));
}

TEST_F(TimeInTheLab, EverySleepFollowsTheClock)
{
    EXPECT_GE(probe_->number("sleep 100"), 100'000);
    lab_.clock.setSpeed(50);
    const struct {
        const char* command;
        long atLeast; // us
    } sleeps[] = {{"sleep 2000", 40'000}, {"usleep 900", 18'000}, {"sleep-s 3", 60'000}, {"sleep-until 4", 60'000}};
    for (const auto& sleep : sleeps) {
        const long took = probe_->number(sleep.command);
        EXPECT_GE(took, sleep.atLeast) << sleep.command;
        EXPECT_LT(took, sleep.atLeast + 800'000) << sleep.command;
    }
}

TEST_F(TimeInTheLab, TheWallClockIsTheMachinesUntilSomebodyTouchesIt)
{
    const time_t before = time(nullptr);
    const std::string answer = ask("wall");
    tm parts{};
    strptime(answer.c_str(), "%Y-%m-%d %H:%M:%S", &parts);
    parts.tm_isdst = -1;
    EXPECT_NEAR(static_cast<double>(mktime(&parts)), static_cast<double>(before), 5);

    ASSERT_TRUE(lab_.clock.setWall("2031-05-04 23:59:50"));
    EXPECT_EQ(ask("wall").substr(0, 18), "2031-05-04 23:59:5");
    lab_.clock.setSpeed(100);
    ask("sleep 20000");
    lab_.clock.setSpeed(1); // at least 20 s, at 100 a second 10 ms of delay add a second
    const std::string later = ask("wall");
    EXPECT_EQ(later.substr(0, 14), "2031-05-05 00:") << "the change of speed makes no jump";
    EXPECT_LE(later.substr(14, 2), "05") << later;
    EXPECT_FALSE(lab_.clock.setWall("2031-05-04"));
    EXPECT_FALSE(lab_.clock.setWall("2031-05-04 12:00:00 "));
    lab_.clock.realTime();
    EXPECT_NE(ask("wall").substr(0, 7), "2031-05");
}

TEST_F(TimeInTheLab, EveryWayToAskTellsTheSameSecond)
{
    ASSERT_TRUE(lab_.clock.setWall("2028-02-29 12:00:00"));
    // The three calls follow one another; only a change of the second in between makes them differ.
    EXPECT_TRUE(waitUntil([this] { return ask("wall").ends_with(" 0 0"); }, 2s));
}

#ifndef UNDER_THREAD_SANITIZER // which cannot follow the threads that the C library starts for its timers
TEST_F(TimeInTheLab, TheCLibrarysOwnTimersStayRealWhenAskedFor)
{
    std::vector<std::string> environment = lab_.environment();
    environment.push_back("PTZD_LAB_GLIBC_TIMERS=1");
    lab_.clock.setSpeed(1000);
    Probe plain(environment);
    plain.ask("timer #0 0");
    plain.ask("arm #0 2000 0");
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(plain.number("fired #0"), 0);
    plain.ask("arm #0 20 0");
    EXPECT_TRUE(waitUntil([&] { return plain.number("fired #0") == 1; }, 5s));
}
#endif

} // namespace
