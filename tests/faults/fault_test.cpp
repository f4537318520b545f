// docs/failures.md, row by row.

#include "fault_head.h"

#include <sys/wait.h>

namespace {

/// Runs a row's cases: each point once, then for good. Points that the heap of a sanitizer hides are left out.
template <typename Run>
void forEachPoint(const PageRow& row, Run run)
{
    for (const std::string& text : partsOf(row["Fails"], ',')) {
        const std::vector<std::string> texts = partsOf(text, '+');
        const std::optional<FaultPoint> point = faultPoint(texts.at(0));
        const std::optional<FaultPoint> beside = texts.size() > 1 ? faultPoint(texts[1]) : std::nullopt;
        ASSERT_TRUE(point && (beside || texts.size() == 1)) << "line " << row.line << ": " << text;
#ifdef FAULTS_WITHOUT_HEAP
        if (point->call == FAULT_MALLOC || point->call == FAULT_CALLOC)
            continue;
#endif
        if (!point->onlyEvery)
            run(*point, beside, false);
        if (point->onlyEvery || (!point->onlyOnce && std::getenv("PTZD_LONG_TESTS")))
            run(*point, beside, true);
        if (testing::Test::HasFatalFailure())
            return;
    }
}

class Failures : public FaultyHead {};
class FailuresOf : public FaultyHead, public testing::WithParamInterface<const char*> {};

TEST_P(FailuresOf, EachRowOfThePage)
{
    upWithFaults();
    const std::vector<PageRow> rows = pageRows(GetParam());
    ASSERT_FALSE(rows.empty());
    for (const PageRow& row : rows) {
        if (row["Fails"].empty())
            run(row, nullptr, false);
        forEachPoint(row, [&](const FaultPoint& point, const auto&, bool ever) { run(row, &point, ever); });
        if (HasFatalFailure())
            return;
    }
}

INSTANTIATE_TEST_SUITE_P(Heading, FailuresOf,
                         testing::Values("Requests to the motors", "Settings", "Bus", "Threads, timers and memory"));

// The library's timers run in real time: two seconds a row and failure.
TEST_F(Failures, OfTheWayBackToALostBus)
{
    upWithFaults();
    for (const PageRow& row : pageRows("A lost bus")) {
        SCOPED_TRACE("line " + std::to_string(row.line) + " of the page");
        const size_t console = lab.records.ptzdLog().size();
        const size_t log = lab.records.messageLog().size();
        const std::optional<FaultPoint> point = faultPoint(row["Fails"]);
        ASSERT_TRUE(point);
        arm(*point, false);
        const FaultPoint withoutObject{.text = "object", .call = FAULT_UBUS_RECONNECT_OBJECT};
        arm(withoutObject, false); // and the connection that is made at last comes without the object
        ASSERT_TRUE(lab.programs.stopBus() && lab.programs.startBus()) << lab.error();
        EXPECT_TRUE(waitUntil([&] { return lab.call("stop") == DONE; }, DEADLINE));
        EXPECT_EQ(met(*point), static_cast<uint32_t>(point->times));
        EXPECT_EQ(met(withoutObject), 1U);
        disarm();
        EXPECT_EQ(logged(console, log), loggedBy(row["Log"]));

        // The poll's thread looks up the receiver of its notification, with the bus to itself.
        ASSERT_TRUE(waitUntil([&] { return lab.invoke("CET", "notify_motor_idle").status == 0; }, DEADLINE));
        const FaultPoint slow{.text = "slow", .call = FAULT_UBUS_LOOKUP_ID, .nth = 2, .delayMs = 500};
        arm(slow, false);
        EXPECT_EQ(lab.call("moveTo", coords(row.line % 2, 0)), DONE);
        EXPECT_TRUE(waitUntil([&] { return control_->calls[slow.call].seen.load() == 2; }, DEADLINE));
        EXPECT_EQ(lab.invoke("ptzd", "none").status, 3); // no such method, which the bus library answers
        EXPECT_EQ(met(slow), 1U) << "was served while another thread had the bus";
        disarm();
        if (!std::getenv("PTZD_LONG_TESTS"))
            break;
    }
}

class FailingStart : public FaultyHead {};

TEST_F(FailingStart, EndsOrServesAsThePageSays)
{
    LabOptions options = withFaults();
    options.startPtzd = false;
    options.waitCalibrated = false;
    ASSERT_TRUE(lab.up(options)) << lab.error();
    const auto start = [&](const PageRow& row, const FaultPoint& point, const auto& beside, bool ever) {
        SCOPED_TRACE("line " + std::to_string(row.line) + " of the page: " + point.text + (ever ? " for ever" : ""));
        const size_t console = lab.records.ptzdLog().size();
        const size_t log = lab.records.messageLog().size();
        lab.clock.setSpeed(10);
        lab.records.clear();
        arm(point, ever);
        if (beside)
            arm(*beside, true);
        (void)lab.programs.startPtzd(); // does not wait
        if (row["Then"] == "serves") {
            EXPECT_TRUE(waitUntil([&] { return met(point) != 0; }, DEADLINE));
            EXPECT_TRUE(lab.programs.waitReady(DEADLINE)) << lab.error();
            EXPECT_TRUE(waitUntil([&] { return lab.call("stop") == DONE; }, DEADLINE));
            disarm();
            EXPECT_EQ(lab.programs.killPtzd(SIGTERM), 0);
        } else {
            const auto status = lab.programs.waitPtzd(DEADLINE);
            ASSERT_TRUE(status.has_value());
            EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 255) << *status;
            EXPECT_EQ(met(point), point.call == FAULT_UBUS_CONNECT ? 3U : 1U) << "only the bus is tried again";
            EXPECT_TRUE(!beside || met(*beside) != 0);
            disarm();
        }
        EXPECT_EQ(logged(console, log), loggedBy(row["Log"]));
    };
    for (const PageRow& row : pageRows("Start"))
        forEachPoint(row,
                     [&](const FaultPoint& point, const auto& beside, bool ever) { start(row, point, beside, ever); });
    EXPECT_EQ(fileText("/dev/console"), "PTZD: can not connect to ubusd\n") << "once, where nothing fails beside";
}

} // namespace
