// docs/failures.md, row by row.

#include "fault_head.h"

#include <sys/wait.h>

#include <algorithm>
#include <set>

namespace {

/// Rows that the heap of a sanitizer hides from the injecting library.
bool skipped(const FaultPoint& point)
{
#ifdef FAULTS_WITHOUT_HEAP
    return point.call == FAULT_MALLOC || point.call == FAULT_CALLOC;
#else
    (void)point;
    return false;
#endif
}

constexpr const char* HEADINGS[] = {"Requests to the motors", "Settings", "Bus", "Threads, timers and memory"};

/// What the page lets fail in one call in one state of the head, whatever the table.
std::vector<FaultPoint> listed(const std::string& call, const std::string& head)
{
    std::vector<FaultPoint> points;
    for (const char* heading : HEADINGS)
        for (const PageRow& row : pageRows(heading))
            if (row["Call"] == call && row["Head"] == head)
                for (const std::string& text : partsOf(row["Fails"], ','))
                    if (const std::optional<FaultPoint> point = faultPoint(text))
                        points.push_back(*point);
    return points;
}

class Failures : public FaultyHead {
protected:
    void runAll(const char* heading)
    {
        upWithFaults();
        const std::vector<PageRow> rows = pageRows(heading);
        ASSERT_FALSE(rows.empty());
        for (const PageRow& row : rows) {
            runRow(row);
            if (HasFatalFailure())
                return;
        }
    }

private:
    /// After a healthy row: every request that it made to a motor, and every call that can fail, has a row of its own.
    void expectAllListed(const std::string& call, const std::string& head)
    {
        const std::vector<FaultPoint> points = listed(call, head);
        int made[LAB_AXIS_COUNT][LAB_REQUEST_COUNT] = {};
        const pid_t daemon = lab.programs.ptzdPid();
        for (const LabJournalEntry& entry : lab.records.journal())
            for (uint32_t request = 0; request < LAB_REQUEST_COUNT; ++request)
                if (entry.request == LAB_REQUEST_NAMES[request] &&
                    (request != LAB_GET_STATUS || entry.thread == daemon) && entry.labNs >= callNs_) // else the poll's
                    ++made[entry.axis][request];
        for (const LabAxisId axis : {LAB_PAN, LAB_TILT})
            for (uint32_t request = 0; request < LAB_REQUEST_COUNT; ++request)
                for (int nth = 1; nth <= made[axis][request]; ++nth)
                    EXPECT_TRUE(std::any_of(points.begin(), points.end(),
                                            [&](const FaultPoint& point) {
                                                return point.axis == axis && point.request == request &&
                                                       point.nth == nth;
                                            }))
                        << call << ", " << head << ": nobody lets " << nth << (axis == LAB_PAN ? " x " : " y ")
                        << LAB_REQUEST_NAMES[request] << " fail";
        for (const FaultCall function : {FAULT_PTHREAD_CREATE, FAULT_MALLOC, FAULT_CALLOC, FAULT_FORMAT_JSON,
                                         FAULT_UCI_LOAD, FAULT_UCI_SAVE, FAULT_UCI_COMMIT}) {
            std::set<std::pair<int, std::string>> different;
            for (const FaultPoint& point : points)
                if (point.call == function)
                    different.insert({point.nth, point.subject});
            EXPECT_GE(different.size(), seen_[function]) << call << ", " << head << ": " << FAULT_CALL_NAMES[function];
        }
    }
    void runRow(const PageRow& row)
    {
        if (row["Fails"].empty()) {
            run(row, nullptr, false);
            if (row["Head"] != "scan due" && row["Head"] != "preset due")
                expectAllListed(row["Call"], row["Head"]);
        }
        for (const std::string& text : partsOf(row["Fails"], ',')) {
            const std::optional<FaultPoint> point = faultPoint(text);
            ASSERT_TRUE(point) << "line " << row.line << ": " << text;
            if (skipped(*point))
                continue;
            if (!point->onlyEvery)
                run(row, &*point, false);
            if (point->onlyEvery || (!point->onlyOnce && std::getenv("PTZD_LONG_TESTS")))
                run(row, &*point, true);
        }
    }
};

TEST_F(Failures, OfTheMotors)
{
    runAll("Requests to the motors");
}

TEST_F(Failures, OfTheSettings)
{
    runAll("Settings");
}

TEST_F(Failures, OfTheBus)
{
    runAll("Bus");
}

TEST_F(Failures, OfThreadsTimersAndMemory)
{
    runAll("Threads, timers and memory");
}

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
        ASSERT_TRUE(lab.programs.stopBus() && lab.programs.startBus()) << lab.error();
        EXPECT_TRUE(waitUntil([&] { return lab.call("stop") == DONE; }, DEADLINE));
        EXPECT_EQ(met(*point), static_cast<uint32_t>(point->times));
        disarm();
        EXPECT_EQ(reports(console, log), reportsBy(row["Report"]));
        if (!std::getenv("PTZD_LONG_TESTS"))
            break;
    }
}

class FailingStart : public FaultyHead {
protected:
    /// `beside`: what fails for ever beside the row's own point.
    void runRow(const PageRow& row, const FaultPoint& point, const std::optional<FaultPoint>& beside, bool ever)
    {
        SCOPED_TRACE("line " + std::to_string(row.line) + " of the page: " + point.text + (ever ? " for ever" : ""));
        const size_t console = lab.records.ptzdLog().size();
        const size_t log = lab.records.messageLog().size();
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
            EXPECT_NE(met(point), 0U);
            EXPECT_TRUE(!beside || met(*beside) != 0);
            disarm();
        }
        EXPECT_EQ(reports(console, log), reportsBy(row["Report"]));
    }
};

TEST_F(FailingStart, EndsOrServesAsThePageSays)
{
    LabOptions options = withFaults();
    options.startPtzd = false;
    options.waitCalibrated = false;
    ASSERT_TRUE(lab.up(options)) << lab.error();
    for (const PageRow& row : pageRows("Start")) {
        for (const std::string& text : partsOf(row["Fails"], ',')) {
            const std::vector<std::string> texts = partsOf(text, '+');
            const std::optional<FaultPoint> point = faultPoint(texts.at(0));
            const auto beside = texts.size() > 1 ? faultPoint(texts[1]) : std::nullopt;
            ASSERT_TRUE(point && (beside || texts.size() == 1)) << "line " << row.line << ": " << text;
            if (skipped(*point))
                continue;
            lab.clock.setSpeed(10);
            if (!point->onlyEvery)
                runRow(row, *point, beside, false);
            if (point->onlyEvery || (!point->onlyOnce && std::getenv("PTZD_LONG_TESTS")))
                runRow(row, *point, beside, true);
            if (HasFatalFailure())
                return;
        }
    }
}

} // namespace
