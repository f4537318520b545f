// The notifications, and what becomes of a motion when their receiver fails.

#include "head.h"

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

// The idle notification is sent by the status poll's thread, which keeps MotionStateLock meanwhile: the event loop
// answers at once what does not need that lock, and what does once the notification is over.
TEST_F(HeadInTheLab, AnswersAtOnceWhileANotificationWaitsForCet)
{
    up();
    EXPECT_EQ(lab.call("moveTo", coords(30, 0)), DONE);
    lab.cet.setAnswer(CET_SILENT);
    ASSERT_TRUE(waitUntil([&] { return lab.records.callsToCet("notify_motor_idle") == 1; }, DEADLINE));
    const auto hangs = std::chrono::steady_clock::now();
    for (int i = 0; i < 50; ++i)
        EXPECT_NE(lab.call(i % 2 ? "getStatus" : "checkMotorStatus").find("code\":0"), std::string::npos);
    EXPECT_LT(std::chrono::steady_clock::now() - hangs, 900ms) << "a call waited for the notification";
    lab.cet.setAnswer(CET_OK);
    EXPECT_EQ(lab.call("moveTo", coords(0, 0)), DONE);
    ASSERT_TRUE(settled(2));
}

} // namespace
