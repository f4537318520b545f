// Days and weeks of tours on a fast clock: what the head does at which minute, and that it does nothing else.

#include "head.h"

#include <algorithm>
#include <ctime>

namespace {

constexpr int64_t SECOND = 1'000'000'000;
constexpr int64_t MINUTE = 60 * SECOND;
constexpr int64_t DAY = 24 * 60 * MINUTE;
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
    void upOnTour(const std::string& tour)
    {
        LabOptions options = fastHead();
        options.config["tour"] = tour;
        options.clockSpeed = 20;
        up(options);
        ASSERT_TRUE(lab.clock.setZone(TWO_EAST)) << lab.error();
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
        const auto limit = std::chrono::milliseconds(static_cast<int64_t>(left * 1000)) + DEADLINE;
        ASSERT_TRUE(waitUntil([&] { return wallNs(lab.clock.nowNs()) >= moment * SECOND; }, limit));
    }
    void waitMinutes(int minutes)
    {
        const int64_t since = lab.clock.nowNs();
        ASSERT_TRUE(waitUntil([&] { return lab.clock.nowNs() - since > minutes * MINUTE; }, DEADLINE));
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

/// What the clock runs through, and which preset the head has to be sent to there, if any.
struct Stretch {
    const char* from; // empty: goes on from the one before
    const char* to;
    const char* zone;
    int preset = 0;
    const char* at = "";
};
const Stretch STRETCHES[] = {
    {"05-03 17:57", "05-03 18:03", TWO_EAST, 2, "05-03 18:00"},    // Saturday 20:00
    {"05-03 19:57", "05-03 20:03", TWO_EAST, 3, "05-03 20:00"},    // 22:00, a range that touches the one before
    {"05-03 21:57", "05-03 22:03", TWO_EAST},                      // midnight, the same preset goes on
    {"05-06 06:17", "05-06 06:23", TWO_EAST},                      // Tuesday 8:20, back from disable to where it was
    {"05-07 09:37", "05-07 09:43", TWO_EAST, 4, "05-07 09:40"},    // Wednesday 11:40, before it a range for nobody
    {"05-07 10:27", "05-07 10:30", TWO_EAST},                      // 12:27, in the same range
    {"", "05-07 10:36", TWELVE_EAST, 1, "05-07 10:30"},            // and, within a cycle, at 22:30 in another
    {"05-08 10:57", "05-08 11:03", TWELVE_EAST, 3, "05-08 11:00"}, // Thursday 23:00
    {"05-08 11:57", "05-08 12:03", TWELVE_EAST, 4, "05-08 12:00"}, // midnight
    {"05-08 14:57", "05-08 15:13", TWELVE_EAST},                   // Friday 3:10 to 3:50 falls out with its hour
    {"05-08 22:57", "05-08 23:03", TWELVE_EAST, 1, "05-08 23:00"}, // 12:00 with daylight saving
};

std::string weeklyPlan()
{
    const struct {
        const char* day;
        std::vector<std::string> entries;
    } days[] = {
        {"sunday", {planEntry("sunday_1", 0, 60, "3")}},
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

TEST_F(Week, OfAPlanSendsTheHeadToEachPresetOnceAtItsMinute)
{
    const auto steps = [](int preset) { return 600 * preset; };
    upOnTour(tourPackage("on", 2, 0, 0));
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
    waitMinutes(3); // the last motion keeps the tour away for a minute, or two
    lab.records.clear();

    std::vector<Stretch> expected;
    for (const Stretch& stretch : STRETCHES) {
        lab.clock.setSpeed(1);
        ASSERT_TRUE(lab.clock.setZone(stretch.zone)) << lab.error();
        if (*stretch.from != '\0')
            setUtc(utc(stretch.from));
        runTo(utc(stretch.to), 600);
        if (stretch.preset != 0)
            expected.push_back(stretch);
    }

    const std::vector<LabJournalEntry> seen = driving(LAB_PAN);
    std::string what;
    for (const LabJournalEntry& entry : seen)
        what += dayTime(wallNs(entry.labNs)) + " to " + std::to_string(entry.count + entry.stepsWord()) + "\n";
    ASSERT_EQ(seen.size(), expected.size()) << what;
    std::vector<int64_t> late;
    for (size_t i = 0; i < seen.size(); ++i) {
        EXPECT_EQ(seen[i].request, "MOVE");
        EXPECT_EQ(seen[i].count + seen[i].stepsWord(), steps(expected[i].preset)) << i << "\n" << what;
        late.push_back(wallNs(seen[i].labNs) - utc(expected[i].at) * SECOND);
        EXPECT_GE(late.back(), 0) << "before " << expected[i].at << "\n" << what;
        EXPECT_LT(late.back(), 10 * MINUTE) << "long after " << expected[i].at << "\n" << what;
    }
    std::sort(late.begin(), late.end());
    EXPECT_LT(late[late.size() / 2], MINUTE) << "not at the planned minute";
    EXPECT_TRUE(settled(static_cast<int>(expected.size())));
    EXPECT_EQ(lab.records.callsToCet("notify_motor_moving"), static_cast<int>(expected.size()));
    for (const LabCetEntry& entry : lab.records.cetLog())
        EXPECT_TRUE(entry.isEvent || entry.text == "3") << "the origin is a tour's";
}

/// A scan from 22:00 to 6:00 between -50 and 50.
class ScannedNight : public Week {
protected:
    pid_t tour = 0; // the touring thread

    std::vector<LabJournalEntry> tourSteps()
    {
        std::vector<LabJournalEntry> steps = driving(LAB_PAN);
        std::erase_if(steps, [&](const LabJournalEntry& entry) {
            return entry.request != "MOVE" || (tour != 0 && entry.thread != tour);
        });
        return steps;
    }
    size_t waitForAStep()
    {
        const size_t made = tourSteps().size();
        EXPECT_TRUE(waitUntil([&] { return tourSteps().size() > made; }, DEADLINE * 3)) << lab.records.ptzdLog();
        return made;
    }
    /// Moments at which the head came to rest: the idle notifications.
    std::vector<int64_t> restMoments()
    {
        std::vector<int64_t> moments;
        for (const LabCetEntry& entry : lab.records.cetLog())
            if (!entry.isEvent && entry.name == "notify_motor_idle")
                moments.push_back(entry.labNs);
        return moments;
    }
    /// The latest rest before a step; 0: none.
    static int64_t restBefore(const LabJournalEntry& step, const std::vector<int64_t>& moments)
    {
        const auto after = std::lower_bound(moments.begin(), moments.end(), step.labNs);
        return after == moments.begin() ? 0 : after[-1];
    }
    /// Calls what holds the tour, and what ends that after three minutes; a minute of rest follows.
    void interrupt(const char* hold, const std::string& arguments, const char* release)
    {
        // A command that meets a step of the tour only redirects it, so come right after one.
        lab.clock.setSpeed(20);
        (void)waitForAStep();
        const auto over = [&] {
            return lab.records.callsToCet("notify_motor_idle") == lab.records.callsToCet("notify_motor_moving");
        };
        ASSERT_TRUE(waitUntil(over, DEADLINE));
        const auto done = [&](const char* mask, const char* method, const std::string& json) {
            EXPECT_TRUE(lab.settings.set("lens_mask.lens_mask_info.enabled", mask)) << lab.error();
            EXPECT_NE(lab.call(method, json).find("code\":0"), std::string::npos) << method;
        };
        done("on", hold, arguments); // counts for lensMask only
        lab.clock.setSpeed(100);     // a minute is 0.6 s
        const size_t before = tourSteps().size();
        if (release) {
            waitMinutes(3);
            EXPECT_EQ(tourSteps().size(), before) << hold << " holds the tour";
            done("off", release, "");
        }
        ASSERT_TRUE(waitUntil([&] { return tourSteps().size() > before; }, DEADLINE));
        const LabJournalEntry step = tourSteps()[before];
        const int64_t quiet = step.labNs - restBefore(step, restMoments());
        EXPECT_GE(quiet, 60 * SECOND) << hold;
        EXPECT_LT(quiet, 240 * SECOND) << hold;
    }
    /// Every step within the nights, a rest before each, and the places in their order.
    void expectScan(double speed)
    {
        const auto slack = static_cast<int64_t>(0.5 * speed) * SECOND; // half a second of ours
        const std::vector<LabJournalEntry> steps = tourSteps();
        const std::vector<int64_t> moments = restMoments();
        int target = 1000; // -50
        int direction = 1;
        size_t hasty = 0;
        for (const LabJournalEntry& step : steps) {
            const int64_t local = wallNs(step.labNs) + 120 * MINUTE;
            EXPECT_LT((local - 22 * 60 * MINUTE) % DAY, 8 * 60 * MINUTE + slack) << dayTime(local);
            hasty += step.labNs - restBefore(step, moments) < 15 * SECOND ? 1 : 0;
            ASSERT_EQ(step.count + step.stepsWord(), target) << dayTime(local);
            if (target == 2000 || target == 1000)
                direction = target == 2000 ? -1 : 1;
            target += 100 * direction;
        }
        // On this clock 15 s are some milliseconds: the thread of an expiry that starts so late that the next period
        // has begun ends that one.
        EXPECT_LE(hasty, steps.size() / 100 + 1) << "of " << steps.size() << " steps came less than 15 s after a rest";
    }
};

TEST_F(ScannedNight, WrapsPastMidnightAndIsHeldAsLongAsNeeded)
{
    constexpr double FAST = 600;
    const struct {
        const char* from; // in the first night, and the day after it
        const char* to;
        bool scans;
    } stretches[] = {
        {"05-03 21:58", "05-03 22:03", true}, // Saturday's midnight
        {"05-04 03:57", "05-04 04:12", true}, // 6:00
        {"05-04 10:00", "05-04 10:10", false},
        {"05-04 19:50", "05-04 19:59", false},
    };
    upOnTour(tourPackage("on", 1, -50, 50, 1320, 360));
    for (int night = 0; night < repetitions(1, 7); ++night) {
        const time_t later = night * DAY / SECOND;
        if (night == 0)
            setUtc(utc("05-03 19:40")); // 21:40
        lab.clock.setSpeed(FAST);
        (void)waitForAStep();
        tour = tourSteps().front().thread; // nobody else has moved the head yet
        EXPECT_LT(wallNs(tourSteps().back().labNs), (utc("05-03 20:00") + later + 600) * SECOND) << "22:00 of the zone";
        interrupt("moveTo", coords(-140, 20), nullptr);
        interrupt("targetTrack", R"({"x_coord":"7","y_coord":"3","x_speed":"8","y_speed":"8"})", "targetTrackBack");
        interrupt("startPanorama", "", "stopPanorama");
        interrupt("lensMask", "", "lensMask");
        for (const auto& [from, to, scans] : stretches) {
            const size_t before = tourSteps().size();
            setUtc(utc(from) + later);
            runTo(utc(to) + later, FAST);
            EXPECT_EQ(tourSteps().size() > before, scans) << from;
        }
    }
    expectScan(FAST);
}

} // namespace
