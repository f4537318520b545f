// The whole daemon with a simulated head, for system tests.
#pragma once

#include "lab/lab.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

using namespace std::chrono_literals;

/// Generous: what takes milliseconds at rest may take seconds on a loaded machine under a sanitizer.
inline constexpr auto DEADLINE = 20s;

inline constexpr const char* DONE = R"({"error_code":0})";
inline constexpr const char* REFUSED_DEVICE = R"({"error_code":-64301})";
inline constexpr const char* REFUSED_PARAM = R"({"error_code":-64302})";

/// Long runs multiply what the ordinary tests do a few times (./dev test --long).
inline int repetitions(int ordinary, int thorough)
{
    return std::getenv("PTZD_LONG_TESTS") ? thorough : ordinary;
}

/// A head whose whole pan travel at the configured speed, 4, takes 30 ms: 3000 steps at 100,000 a second.
inline LabOptions fastHead()
{
    LabOptions options;
    options.factor = 25000;
    return options;
}

/// A head that takes 3 s for its whole pan travel at the configured speed.
inline LabOptions slowHead()
{
    LabOptions options;
    options.factor = 250;
    return options;
}

/// The package tour; times of the scan in minutes.
inline std::string tourPackage(const std::string& enabled, int type, int from, int to, int start = 0, int end = 0)
{
    const auto option = [](const char* name, int value) {
        return std::string("\n\toption ") + name + " '" + std::to_string(value) + "'";
    };
    return "config tour 'tour_info'\n\toption enabled '" + enabled + "'" + option("tour_type", type) +
           "\nconfig scan_tour 'scan_tour'" + option("x_coord_start", from) + option("x_coord_end", to) +
           option("start_time", start) + option("end_time", end) + "\n";
}

class HeadInTheLab : public testing::Test {
protected:
    Lab lab;

    void TearDown() override;

    void up(const LabOptions& options = fastHead());
    void printWhatHappened();
    bool rests();
    /// Waits until as many idle as moving notifications and events went out, at least `motions` of each.
    bool settled(int motions = 1);
    /// Waits until the console shows a report, in the stated form with the reporting function's name.
    bool reported(const std::string& function, const std::string& text);
    /// The move and stop requests of one axis, in order.
    std::vector<LabJournalEntry> driving(LabAxisId axis);
    void expectAt(int32_t pan, int32_t tilt);
    static std::string coords(int32_t x, int32_t y);
    int requests(const std::string& name);
};
