// The picture of a journal.

#include "lab/lab.h"

#include <gtest/gtest.h>

#include <regex>

namespace {

constexpr int64_t SECOND = 1'000'000'000;
constexpr LabAxisSetting AXES[LAB_AXIS_COUNT] = {{300, 8, 3000}, {122, 8, 1220}};

LabJournalEntry entry(int64_t labNs, const char* request, int32_t count, int64_t rate, int32_t left)
{
    LabJournalEntry result{};
    result.labNs = labNs;
    result.axis = LAB_PAN;
    result.request = request;
    result.count = count;
    result.rate = rate;
    result.left = left;
    return result;
}

/// The points of the pan's course.
std::string course(const std::string& picture)
{
    const size_t from = picture.find("points='") + 8;
    return picture.substr(from, picture.find('\'', from) - from);
}

TEST(Plot, DrawsAMotionFromItsRequestToItsEnd)
{
    // From 1 s to 1.3 s with 0.01 s of margin, 910 pixels for 0.32 s; the middle of the panel is at 188, and 30 units
    // of 162 above it are 20.37 of 110 pixels.
    const std::string picture = plotLab({entry(SECOND, "MOVE", 1500, 1000, 300)}, {}, AXES, 3 * SECOND);
    EXPECT_EQ(course(picture), "98.4375,188 951.562,167.63 980,167.63 ");
    EXPECT_EQ(picture.find("<script"), std::string::npos);
}

TEST(Plot, NamesTheHoursOfAWallClockAndShowsEachOriginInARow)
{
    // Lab time 0 is 1970-01-04 22:00 UTC, a Sunday. Three hours have a tick every quarter of an hour.
    setenv("TZ", "UTC0", 1);
    tzset();
    const std::vector<LabCetEntry> cetLog = {{0, SECOND, false, "notify_motor_moving", "0"},
                                             {0, 2 * SECOND, false, "notify_motor_idle", "0"},
                                             {0, 3 * SECOND, false, "notify_motor_moving", "3"},
                                             {0, 4 * SECOND, false, "notify_motor_idle", "3"}};
    const std::string picture = plotLab({entry(0, "MOVE", 0, 1, 1), entry(3 * 3600 * SECOND, "STOP", 1, 0, 0)}, cetLog,
                                        AXES, 4 * 3600 * SECOND, (3 * 24 + 22) * 3600 * SECOND);
    EXPECT_NE(picture.find(">23:45<"), std::string::npos);
    EXPECT_NE(picture.find(">Mon 00:00<"), std::string::npos);
    EXPECT_EQ(picture.find(">23:50<"), std::string::npos);
    // 108 s of margin: 109 of 11016 s, on 910 pixels from 70 on.
    // Both are wider than the two seconds between them, and neither hides the other.
    const std::regex span("<rect class='origin([0-9])' x='79[.0-9]+' y='([0-9]+)'");
    std::smatch user;
    std::smatch tour;
    ASSERT_TRUE(std::regex_search(picture, user, span));
    const std::string rest = user.suffix();
    ASSERT_TRUE(std::regex_search(rest, tour, span));
    EXPECT_EQ(user[1].str() + tour[1].str(), "03");
    EXPECT_NE(user[2].str(), tour[2].str());
    EXPECT_NE(picture.find(">stop<"), std::string::npos);
    EXPECT_EQ(picture.find(">rotate<"), std::string::npos) << "a mark that the picture has not";
}

} // namespace
