// Notifications from two threads beside a serving event loop: the callers of the object feel nothing of them, whatever
// their receiver does.

#include "head.h"

#include <algorithm>
#include <cstdio>

namespace {

class BusLock : public testing::Test {
protected:
    Lab lab;

    using Times = std::vector<std::chrono::microseconds>;

    /// Round trips of two callers at once for a while, sorted.
    Times roundTrips(std::chrono::milliseconds length)
    {
        const auto end = std::chrono::steady_clock::now() + length;
        const auto caller = [&](Times& times) {
            while (std::chrono::steady_clock::now() < end) {
                const auto start = std::chrono::steady_clock::now();
                EXPECT_EQ(lab.call("getStatus"), DONE);
                times.push_back(
                    std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start));
            }
        };
        Times mine;
        Times others;
        std::thread other(caller, std::ref(others));
        caller(mine);
        other.join();
        mine.insert(mine.end(), others.begin(), others.end());
        std::sort(mine.begin(), mine.end());
        return mine;
    }
};

TEST_F(BusLock, CallersFeelNothingOfNotifications)
{
    LabOptions options;
    options.ptzd = BUS_LOCK_SERVER;
    options.waitCalibrated = false;
    ASSERT_TRUE(lab.up(options)) << lab.error();
    ASSERT_TRUE(waitUntil([&] { return lab.call("getStatus") == DONE; }, DEADLINE)) << lab.records.ptzdLog();
    const auto length = std::chrono::milliseconds(repetitions(2000, 20000));
    const struct {
        const char* name;
        LabCetMode mode;
        std::chrono::milliseconds patience; // CET's, during which nobody else may wait
    } cases[] = {{"answers", CET_OK, 1000ms}, {"answers late", CET_LATE, 600ms}, {"never answers", CET_SILENT, 1000ms}};
    for (const auto& one : cases) {
        lab.cet.setAnswer(one.mode, 600);
        const Times quiet = roundTrips(length);
        const std::string before = lab.call("switchNotifying");
        const Times busy = roundTrips(length);
        const std::string after = lab.call("switchNotifying");
        const auto at = [](const Times& times, size_t percent) {
            return static_cast<long>(times[(times.size() - 1) * percent / 100].count());
        };
        std::printf(
            "CET %s: round trip median %ld us, 99 %% %ld us, worst %ld us; without notifications %ld, %ld, %ld\n",
            one.name, at(busy, 50), at(busy, 99), at(busy, 100), at(quiet, 50), at(quiet, 99), at(quiet, 100));
        std::printf("  notifications before %s after %s\n", before.c_str(), after.c_str());
        EXPECT_NE(before, after) << "nothing was sent";
        EXPECT_LT(busy.back(), one.patience) << "a caller waited for CET";
    }
    EXPECT_EQ(lab.records.ptzdLog().find("Sanitizer"), std::string::npos) << lab.records.ptzdLog();
    EXPECT_NE(lab.programs.ptzdPid(), 0);
}

} // namespace
