// Days and weeks of tours on a fast clock: what the head does at which minute, and that it does nothing else.

#include "head.h"

#include <algorithm>
#include <ctime>
#include <functional>
#include <memory>

namespace {

constexpr int64_t SECOND = 1'000'000'000;
constexpr int64_t MINUTE = 60 * SECOND;
constexpr const char* TWO_EAST = "AAA-2"; // two hours before UTC
/// Twelve hours before UTC, thirteen from the second Friday in May, 3:00, which in 2031 is the 9th.
constexpr const char* TWELVE_EAST = "BBB-12CCC,M5.2.5/3,M10.1.0/3";

/// A moment of UTC, "05-31 23:59" of the year 2031, in seconds since 1970.
time_t utc(const std::string& text)
{
    tm parts{};
    EXPECT_NE(strptime(("2031-" + text).c_str(), "%Y-%m-%d %H:%M", &parts), nullptr) << text;
    return timegm(&parts);
}

bool longTests()
{
    return repetitions(0, 1) != 0;
}

class Week : public HeadInTheLab {
protected:
    /// From when on the wall clock and lab time belong together: the clock may be set ahead in between.
    struct Anchor {
        int64_t labNs;
        time_t utc;
    };
    std::vector<Anchor> anchors;

    void TearDown() override
    {
        if (lab.programs.ptzdPid() != 0)
            lab.clock.setSpeed(1); // the daemon gets as much time to end as always
        HeadInTheLab::TearDown();
    }
    void setUtc(time_t moment)
    {
        char text[32];
        tm parts{};
        localtime_r(&moment, &parts);
        strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &parts);
        lab.clock.setSpeed(1);
        anchors.push_back({lab.clock.nowNs(), moment});
        ASSERT_TRUE(lab.clock.setWall(text)) << lab.error();
    }
    /// The wall clock at a moment of lab time, in ns since 1970 UTC.
    int64_t wallNs(int64_t labNs) const
    {
        Anchor last = anchors.front();
        for (const Anchor& anchor : anchors)
            last = anchor.labNs <= labNs ? anchor : last;
        return last.utc * SECOND + labNs - last.labNs;
    }
    /// Lets the clock run to a moment.
    void runTo(time_t moment, double speed)
    {
        lab.clock.setSpeed(speed);
        const double left = static_cast<double>(moment * SECOND - wallNs(lab.clock.nowNs())) / SECOND / speed;
        const auto patience = std::chrono::milliseconds(static_cast<int64_t>(left * 1000)) + DEADLINE;
        ASSERT_TRUE(waitUntil([&] { return wallNs(lab.clock.nowNs()) >= moment * SECOND; }, patience));
    }
    static std::string dayTime(int64_t ns)
    {
        const auto seconds = static_cast<time_t>(ns / SECOND);
        tm parts{};
        char text[32];
        gmtime_r(&seconds, &parts);
        return std::string(text, strftime(text, sizeof(text), "%m-%d %H:%M:%S", &parts));
    }
};

/// A preset that the head has to be sent to, and when.
struct Visit {
    const char* utc;
    int preset;
};

// With TWO_EAST, from Wednesday 10:30 UTC on with TWELVE_EAST:
const Visit VISITS[] = {
    {"05-03 18:00", 2}, // Saturday 20:00
    {"05-03 20:00", 3}, // 22:00; Sunday 0:00 names the same preset
    {"05-04 08:00", 1}, // Sunday 10:00
    {"05-05 06:00", 4}, // Monday 8:00
    {"05-05 10:00", 2}, // 12:00, where the former range ends
    {"05-06 03:00", 3}, // Tuesday 5:00; then a disable range, and after it the same preset
    {"05-07 09:40", 4}, // Wednesday 11:40; before it a preset that does not exist
    {"05-07 10:30", 1}, // 12:30 becomes Wednesday 22:30, in another range
    {"05-07 13:00", 2}, // Thursday 1:00
    {"05-08 11:00", 3}, // 23:00
    {"05-08 12:00", 4}, // Friday 0:00; a range from 3:10 to 3:50 falls out with the hour that is not there
    {"05-08 23:00", 1}, // 12:00, an hour earlier than it were without daylight saving
    {"05-10 07:00", 2}, // Saturday 20:00
    {"05-10 09:00", 3}, // 22:00
    {"05-10 21:00", 1}, // Sunday 10:00
};

std::string weeklyPlan()
{
    const struct {
        const char* day;
        std::vector<std::string> entries;
    } days[] = {
        {"sunday", {planEntry("sunday_1", 0, 60, "3"), planEntry("sunday_2", 600, 660, "1")}},
        {"monday", {planEntry("monday_1", 480, 720, "4"), planEntry("monday_2", 720, 900, "2")}},
        {"tuesday",
         {planEntry("tuesday_1", 300, 400, "3"), planEntry("tuesday_2", 400, 500, ""),
          planEntry("tuesday_3", 500, 600, "3")}},
        {"wednesday",
         {planEntry("wednesday_1", 600, 700, "7"), planEntry("wednesday_2", 700, 800, "4"),
          planEntry("wednesday_3", 1320, 1380, "1")}},
        {"thursday", {planEntry("thursday_1", 60, 120, "2"), planEntry("thursday_2", 1380, 1440, "3")}},
        {"friday",
         {planEntry("friday_1", 0, 30, "4"), planEntry("friday_2", 190, 230, "2"),
          planEntry("friday_3", 720, 780, "1")}},
        {"saturday", {planEntry("saturday_1", 1200, 1320, "2"), planEntry("saturday_2", 1320, 1440, "3")}},
    };
    std::string plan;
    for (const auto& [day, entries] : days) {
        std::string all;
        for (const std::string& entry : entries)
            all += (all.empty() ? "" : ",") + entry;
        plan += (plan.empty() ? "{\"" : ",\"") + std::string(day) + "\":[" + all + "]";
    }
    return plan + "}";
}

class PlannedWeek : public Week {
protected:
    static int steps(int preset)
    {
        return 600 * preset;
    }
    /// A head with presets 1 to 4, at 600 steps each, and the plan.
    void upWithPlan()
    {
        LabOptions options = fastHead();
        options.config["tour"] = tourPackage("on", 2, 0, 0);
        options.clockSpeed = 20;
        up(options);
        ASSERT_TRUE(lab.clock.setZone(TWO_EAST)) << lab.error();
        for (int preset = 1; preset <= 4; ++preset) {
            EXPECT_EQ(lab.call("moveTo", coords(steps(preset) / 10 - 150, -6)), DONE);
            ASSERT_TRUE(settled(preset));
            const std::string id = std::to_string(preset);
            EXPECT_EQ(lab.call("setPreset", R"({"save_ptz":"1","id":")" + id + "\"}"),
                      R"({"name":"preset)" + id + R"(","id":")" + id + R"(","error_code":0})");
        }
        EXPECT_EQ(lab.call("set_plan_config", weeklyPlan()), DONE);
        setUtc(utc("05-02 08:00")); // a Friday without an entry near
        lab.clock.setSpeed(200);
        const int64_t since = lab.clock.nowNs(); // the last motion keeps the tour away for a minute, or two
        ASSERT_TRUE(waitUntil([&] { return lab.clock.nowNs() - since > 3 * MINUTE; }, DEADLINE));
        lab.records.clear();
    }
    /// The visits of the stretches that have passed, as the motors have seen them.
    void expectVisits(const std::vector<Visit>& expected, int64_t mostLate)
    {
        std::vector<LabJournalEntry> seen;
        for (const LabJournalEntry& entry : driving(LAB_PAN))
            seen.push_back(entry);
        std::string what;
        std::vector<int64_t> late;
        for (const LabJournalEntry& entry : seen)
            what += dayTime(wallNs(entry.labNs)) + " to " + std::to_string(entry.count + entry.stepsWord()) + "\n";
        ASSERT_EQ(seen.size(), expected.size()) << what;
        for (size_t i = 0; i < seen.size(); ++i) {
            EXPECT_EQ(seen[i].request, "MOVE");
            EXPECT_EQ(seen[i].count + seen[i].stepsWord(), steps(expected[i].preset)) << i << "\n" << what;
            late.push_back(wallNs(seen[i].labNs) - utc(expected[i].utc) * SECOND);
            EXPECT_GE(late.back(), 0) << "before " << expected[i].utc << "\n" << what;
            EXPECT_LT(late.back(), mostLate) << "long after " << expected[i].utc << "\n" << what;
        }
        std::nth_element(late.begin(), late.begin() + static_cast<long>(late.size() / 2), late.end());
        const int64_t median = late[late.size() / 2];
        EXPECT_LT(median, MINUTE) << "not at the planned minute";
        std::printf("%zu visits, half of them within %.1f s of their minute, all within %.1f s\n", late.size(),
                    static_cast<double>(median) / SECOND,
                    static_cast<double>(*std::max_element(late.begin(), late.end())) / SECOND);
        EXPECT_TRUE(settled(static_cast<int>(expected.size())));
        EXPECT_EQ(lab.records.callsToCet("notify_motor_moving"), static_cast<int>(expected.size()));
        for (const LabCetEntry& entry : lab.records.cetLog())
            EXPECT_TRUE(entry.isEvent || entry.text == "3") << "the origin is a tour's";
    }
};

TEST_F(PlannedWeek, SendsTheHeadToEachPresetOnceAtItsMinute)
{
    if (!longTests())
        GTEST_SKIP() << "takes a minute: ./dev test --long; its stretches that matter are the next test";
    upWithPlan();
    setUtc(utc("05-03 17:00"));
    runTo(utc("05-07 10:30"), 10000);
    ASSERT_TRUE(lab.clock.setZone(TWELVE_EAST)) << lab.error();
    runTo(utc("05-10 22:00"), 10000);
    expectVisits({std::begin(VISITS), std::end(VISITS)}, 30 * MINUTE);
}

TEST_F(PlannedWeek, SendsTheHeadToEachPresetOnceWhereTheDayTurns)
{
    // With the zone that counts, and which visits of the list they have.
    const struct {
        const char* from; // empty: goes on from the one before
        const char* to;
        const char* zone;
        size_t firstVisit;
        size_t visits;
    } stretches[] = {
        {"05-03 17:57", "05-03 18:03", TWO_EAST, 0, 1},
        {"05-03 19:57", "05-03 20:03", TWO_EAST, 1, 1},     // a range that touches the one before
        {"05-03 21:57", "05-03 22:03", TWO_EAST, 2, 0},     // Saturday's midnight, the same preset goes on
        {"05-06 06:17", "05-06 06:23", TWO_EAST, 2, 0},     // Tuesday 8:20, from disable to the preset that it was at
        {"05-07 09:37", "05-07 09:43", TWO_EAST, 6, 1},     // Wednesday, out of the range that names nobody
        {"05-07 10:27", "05-07 10:30", TWO_EAST, 7, 0},     // in the range of 11:40
        {"", "05-07 10:36", TWELVE_EAST, 7, 1},             // and, within a cycle, in another
        {"05-08 10:57", "05-08 11:03", TWELVE_EAST, 9, 1},  // Thursday 23:00
        {"05-08 11:57", "05-08 12:03", TWELVE_EAST, 10, 1}, // midnight
        {"05-08 14:57", "05-08 15:13", TWELVE_EAST, 11, 0}, // the hour that is not there
        {"05-08 22:57", "05-08 23:03", TWELVE_EAST, 11, 1}, // a day with daylight saving
    };
    upWithPlan();
    std::vector<Visit> expected;
    for (const auto& stretch : stretches) {
        lab.clock.setSpeed(1);
        ASSERT_TRUE(lab.clock.setZone(stretch.zone)) << lab.error();
        if (*stretch.from != '\0')
            setUtc(utc(stretch.from));
        runTo(utc(stretch.to), 600);
        expected.insert(expected.end(), VISITS + stretch.firstVisit, VISITS + stretch.firstVisit + stretch.visits);
    }
    expectVisits(expected, 10 * MINUTE);
}

/// A scan from 22:00 to 6:00 between -50 and 50.
class ScannedNight : public Week {
protected:
    pid_t tour = 0; // the touring thread

    void upWithScan()
    {
        LabOptions options = fastHead();
        options.config["tour"] = tourPackage("on", 1, -50, 50, 1320, 360);
        options.clockSpeed = 20;
        up(options);
        ASSERT_TRUE(lab.clock.setZone(TWO_EAST)) << lab.error();
        setUtc(utc("05-03 19:40")); // 21:40
    }
    std::vector<LabJournalEntry> tourSteps()
    {
        std::vector<LabJournalEntry> steps;
        for (const LabJournalEntry& entry : driving(LAB_PAN))
            if (entry.request == "MOVE" && (tour == 0 || entry.thread == tour))
                steps.push_back(entry);
        return steps;
    }
    size_t tourStepsMade()
    {
        return tourSteps().size();
    }
    /// Lets the tour make its first step, at 22:00, by which its thread is known.
    void begin(double speed)
    {
        lab.clock.setSpeed(speed);
        ASSERT_TRUE(waitUntil([&] { return tourStepsMade() > 0; }, DEADLINE * 3)) << lab.records.ptzdLog();
        tour = tourSteps().front().thread;
    }
    /// Runs something that holds the tour for some minutes, and what ends it.
    void interrupt(const std::function<void()>& hold, const std::function<void()>& release)
    {
        // A command that meets a step of the tour only redirects it, so come right after one.
        lab.clock.setSpeed(20);
        const size_t made = tourStepsMade();
        ASSERT_TRUE(waitUntil([&] { return tourStepsMade() > made; }, DEADLINE));
        ASSERT_TRUE(waitUntil(
            [&] {
                return lab.records.callsToCet("notify_motor_idle") == lab.records.callsToCet("notify_motor_moving");
            },
            DEADLINE));
        hold();
        lab.clock.setSpeed(100); // a minute is 0.6 s
        const size_t before = tourStepsMade();
        const int64_t since = lab.clock.nowNs();
        if (release) {
            ASSERT_TRUE(waitUntil([&] { return lab.clock.nowNs() - since > 3 * MINUTE; }, DEADLINE));
            EXPECT_EQ(tourStepsMade(), before) << "the tour is held";
            release();
        }
        ASSERT_TRUE(waitUntil([&] { return tourStepsMade() > before; }, DEADLINE));
        const LabJournalEntry step = tourSteps()[before];
        const int64_t quiet = step.labNs - restBefore(step);
        EXPECT_GE(quiet, 60 * SECOND);
        EXPECT_LT(quiet, 240 * SECOND);
    }
    /// When the head came to rest for the last time before a step: its idle notification.
    int64_t restBefore(const LabJournalEntry& step)
    {
        int64_t rest = 0;
        for (const LabCetEntry& entry : lab.records.cetLog())
            if (!entry.isEvent && entry.name == "notify_motor_idle" && entry.labNs < step.labNs)
                rest = entry.labNs;
        return rest;
    }
    void setMask(const char* value)
    {
        EXPECT_TRUE(lab.settings.set("lens_mask.lens_mask_info.enabled", value)) << lab.error();
        EXPECT_EQ(lab.call("lensMask"), R"({"err_code":0})");
    }
    void disturb()
    {
        const std::string there = coords(-140, 20);
        interrupt([&] { EXPECT_EQ(lab.call("moveTo", there), DONE); }, nullptr);
        interrupt(
            [&] {
                ASSERT_TRUE(waitUntil([&] { return rests(); }, DEADLINE));
                EXPECT_EQ(lab.call("targetTrack", R"({"x_coord":"7","y_coord":"3","x_speed":"8","y_speed":"8"})"),
                          DONE);
            },
            [&] { EXPECT_EQ(lab.call("targetTrackBack"), DONE); });
        interrupt([&] { EXPECT_EQ(lab.call("startPanorama"), DONE); },
                  [&] { EXPECT_EQ(lab.call("stopPanorama"), DONE); });
        interrupt([&] { setMask("on"); }, [&] { setMask("off"); });
    }
    /// Every step within the nights, a rest before each, and the places in their order.
    void expectScan(double speed)
    {
        const auto slack = static_cast<int64_t>(0.5 * speed) * SECOND; // half a second of ours
        int target = 1000;                                             // -50
        int direction = 1;
        int hasty = 0;
        std::vector<int64_t> idles;
        for (const LabCetEntry& entry : lab.records.cetLog())
            if (!entry.isEvent && entry.name == "notify_motor_idle")
                idles.push_back(entry.labNs);
        for (const LabJournalEntry& step : tourSteps()) {
            const int64_t local = wallNs(step.labNs) + 120 * MINUTE;
            const int64_t sinceTen = (local - 22 * 60 * MINUTE) % (24 * 60 * MINUTE);
            EXPECT_LT(sinceTen, 8 * 60 * MINUTE + slack) << dayTime(local) << " is no time to scan";
            const auto rest = std::lower_bound(idles.begin(), idles.end(), step.labNs);
            hasty += rest != idles.begin() && step.labNs - *(rest - 1) < 15 * SECOND ? 1 : 0;
            ASSERT_EQ(step.count + step.stepsWord(), target) << dayTime(local);
            if (target == 2000 || target == 1000)
                direction = target == 2000 ? -1 : 1;
            target += 100 * direction;
        }
        // On this clock 15 s are some milliseconds: the thread of an expiry that starts so late that the next period
        // has begun ends that one.
        EXPECT_LE(hasty, static_cast<int>(tourStepsMade() / 100) + 1)
            << "steps of " << tourStepsMade() << " came less than 15 s after a rest";
    }
};

TEST_F(ScannedNight, WrapsPastMidnightAndIsHeldAsLongAsStated)
{
    upWithScan();
    begin(600);
    EXPECT_LT(wallNs(tourSteps().front().labNs), (utc("05-03 20:00") + 600) * SECOND) << "22:00 of the zone";
    disturb();
    const struct {
        const char* from;
        const char* to;
        bool scans;
    } stretches[] = {
        {"05-03 21:58", "05-03 22:03", true}, // Saturday's midnight
        {"05-04 03:57", "05-04 04:12", true}, // 6:00
        {"05-04 10:00", "05-04 10:10", false},
        {"05-04 19:50", "05-04 19:59", false},
    };
    for (const auto& stretch : stretches) {
        const size_t before = tourStepsMade();
        setUtc(utc(stretch.from));
        runTo(utc(stretch.to), 600);
        EXPECT_EQ(tourStepsMade() > before, stretch.scans) << stretch.from;
    }
    expectScan(600);
}

TEST_F(ScannedNight, GoesOnForAWeek)
{
    if (!longTests())
        GTEST_SKIP() << "takes six minutes: ./dev test --long";
    constexpr double SPEED = 2000;
    upWithScan();
    begin(600);
    for (int night = 0; night < 7; ++night) {
        disturb();
        const size_t before = tourStepsMade();
        runTo(utc("05-04 20:30") + night * 86400, SPEED); // 22:30
        EXPECT_GT(tourStepsMade(), before + 100);
    }
    const size_t night = tourStepsMade();
    std::printf("%zu steps in seven nights\n", night);
    expectScan(SPEED);
}

} // namespace
