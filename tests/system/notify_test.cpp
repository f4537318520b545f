// The notifications, and what becomes of a motion when their receiver fails.

#include "head.h"

#include <algorithm>

namespace {

TEST_F(HeadInTheLab, ReportsEveryWayThatCetCanFail)
{
    const struct {
        LabCetMode mode;
        const char* function;
        const char* report;
    } cases[] = {
        {CET_WRONG, "ubusNotifyWithParam", "ubus call CET notify_motor_moving failed"},
        {CET_NO_CODE, "receive_call_result_data", "Reciver ubus call result failed"},
        {CET_SILENT, "ubusNotifyWithParam", "ubus call CET notify_motor_idle failed"},
    };
    up();
    int motions = 0;
    for (const auto& one : cases) {
        lab.cet.setAnswer(one.mode);
        EXPECT_EQ(lab.call("moveTo", coords(motions % 2 == 0 ? 30 : 0, 0)), DONE);
        ASSERT_TRUE(settled(++motions));
        EXPECT_TRUE(reported(one.function, one.report)) << one.report;
    }
    lab.cet.setAnswer(CET_LATE, 300);
    const std::string before = lab.records.ptzdLog();
    EXPECT_EQ(lab.call("moveTo", coords(-30, 0)), DONE);
    ASSERT_TRUE(settled(++motions));
    EXPECT_EQ(lab.records.ptzdLog(), before) << "an answer within the second is in time";
}

/// Median and worst of repeated round trips.
struct Latency {
    std::chrono::microseconds median;
    std::chrono::microseconds worst;
};

// The idle notification is sent by the status poll's thread: whatever CET does then, the event loop answers at once.
TEST_F(HeadInTheLab, AnswersAtOnceWhileANotificationWaitsForCet)
{
    up();
    const auto measure = [&] {
        std::vector<std::chrono::microseconds> times;
        for (int i = 0; i < 200; ++i) {
            const auto start = std::chrono::steady_clock::now();
            EXPECT_NE(lab.call(i % 2 ? "getStatus" : "checkMotorStatus").find("0"), std::string::npos);
            times.push_back(
                std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start));
        }
        std::sort(times.begin(), times.end());
        return Latency{times[times.size() / 2], times.back()};
    };
    const Latency quiet = measure();
    EXPECT_EQ(lab.call("moveTo", coords(30, 0)), DONE);
    lab.cet.setAnswer(CET_SILENT);
    // From here the idle notification hangs for a second, with MotionStateLock held.
    ASSERT_TRUE(waitUntil([&] { return lab.records.callsToCet("notify_motor_idle") == 1; }, DEADLINE));
    const Latency busy = measure();
    std::printf("round trip, median and worst: quiet %ld %ld us, during a notification %ld %ld us\n",
                static_cast<long>(quiet.median.count()), static_cast<long>(quiet.worst.count()),
                static_cast<long>(busy.median.count()), static_cast<long>(busy.worst.count()));
    EXPECT_LT(busy.worst, 900ms) << "a call waited for the notification";
    ASSERT_TRUE(settled());
}

} // namespace
