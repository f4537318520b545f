// The picture of a journal.

#include "lab/lab.h"

#include <gtest/gtest.h>

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

TEST(Plot, AMotionThatWasStoppedDoesNotStretchTheTime)
{
    // 1000 s of motion, stopped after one: 910 pixels for 1.02 s.
    const std::string picture =
        plotLab({entry(SECOND, "MOVE", 0, 1, 1000), entry(2 * SECOND, "STOP", 1, 0, 0)}, {}, AXES, 9 * SECOND);
    EXPECT_EQ(course(picture).substr(0, 8), "78.9216,");
}

TEST(Plot, AMotionUnderWayEndsNow)
{
    // From 1 s to 3 s with 0.02 s of margin: 910 pixels for 2.04 s.
    const std::string picture = plotLab({entry(SECOND, "MOVE", 0, 1, 1000)}, {}, AXES, 3 * SECOND);
    EXPECT_EQ(course(picture).substr(0, 5), "78.92");
}

} // namespace
