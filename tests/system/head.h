// The whole daemon with a simulated head, for system tests.
#pragma once

#include "lab/lab.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

using namespace std::chrono_literals;

/// Generous: what takes milliseconds at rest may take seconds on a loaded machine under a sanitizer.
inline constexpr auto DEADLINE = 20s;

inline constexpr const char* DONE = R"({"error_code":0})";
inline constexpr const char* REFUSED_DEVICE = R"({"error_code":-64301})";
inline constexpr const char* REFUSED_PARAM = R"({"error_code":-64302})";
inline constexpr const char* REFUSED_CALIBRATING = R"({"error_code":-64303})";
inline constexpr const char* REFUSED_NO_TRAVEL = R"({"error_code":-64304})";
inline constexpr const char* REFUSED_LENS_MASK = R"({"error_code":-64324})";
inline constexpr const char* REFUSED_PANORAMA = R"({"error_code":-64329})";

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

/// An element of a weekday's array, named like "monday_1"; minutes, and a preset's id, or "" for a disable entry.
inline std::string planEntry(const std::string& name, int start, int end, const std::string& preset)
{
    const std::string action = preset.empty() ? R"("disable")" : R"("preset","action_id":")" + preset + "\"";
    return R"({")" + name + R"(":{"start_time":)" + std::to_string(start) + R"(,"end_time":)" + std::to_string(end) +
           R"(,"action_type":)" + action + "}}";
}

class HeadInTheLab : public testing::Test {
protected:
    Lab lab;

    void TearDown() override
    {
        // Whatever a test did, the daemon must end well and no sanitizer may have found anything.
        if (lab.ptzdPid() != 0) {
            const auto status = lab.killPtzd(SIGTERM);
            ASSERT_TRUE(status.has_value()) << "does not end\n" << lab.ptzdLog();
            EXPECT_EQ(*status, 0) << lab.ptzdLog();
        }
        EXPECT_EQ(lab.ptzdLog().find("Sanitizer"), std::string::npos) << lab.ptzdLog();
        if (HasFailure())
            printWhatHappened();
    }

    void up(const LabOptions& options = fastHead())
    {
        ASSERT_TRUE(lab.up(options)) << lab.error();
        // The calibration announces itself too, and its last event may still be on its way when the daemon is ready.
        const auto announced = [&] { return !lab.actions().empty() && lab.actions().back() == "stop"; };
        ASSERT_TRUE(!options.startCet || !options.startPtzd || waitUntil(announced, DEADLINE));
        lab.forget();
    }
    void printWhatHappened()
    {
        std::fprintf(stderr, "--- the daemon's console:\n%s---\n", lab.ptzdLog().c_str());
        for (const LabCetEntry& entry : lab.cetLog())
            std::fprintf(stderr, "%8.3f s  %s %s\n", static_cast<double>(entry.realNs) / 1e9, entry.name.c_str(),
                         entry.text.c_str());
        for (const LabAxisId axis : {LAB_PAN, LAB_TILT})
            for (const LabJournalEntry& entry : driving(axis))
                std::fprintf(stderr, "%8.3f s  %c %s %d\n", static_cast<double>(entry.realNs) / 1e9,
                             axis == LAB_PAN ? 'x' : 'y', entry.request.c_str(), entry.stepsWord());
    }
    bool rests()
    {
        return lab.axisNow(LAB_PAN).running == 0 && lab.axisNow(LAB_TILT).running == 0;
    }
    /// Waits until as many idle as moving notifications and events went out, at least `motions` of each.
    bool settled(int motions = 1)
    {
        return waitUntil(
            [&] {
                const int moving = lab.callsToCet("notify_motor_moving");
                const int idle = lab.callsToCet("notify_motor_idle");
                return moving >= motions && moving == idle && lab.actions().size() == 2 * static_cast<size_t>(moving);
            },
            DEADLINE);
    }
    /// Waits until the console shows a report, in the stated form with the reporting function's name.
    bool reported(const std::string& function, const std::string& text)
    {
        const std::regex line("\\[" + function + ":[0-9]+\\]: ([^\n]*)\n");
        return waitUntil(
            [&] {
                const std::string log = lab.ptzdLog();
                for (auto at = std::sregex_iterator(log.begin(), log.end(), line); at != std::sregex_iterator(); ++at)
                    if ((*at)[1] == text)
                        return lab.messageLog().find(" 5 PTZD: " + text + "\n") != std::string::npos;
                return false;
            },
            DEADLINE);
    }
    /// The steps words of the move requests of one axis, in order.
    std::vector<int32_t> moves(LabAxisId axis)
    {
        std::vector<int32_t> steps;
        for (const LabJournalEntry& entry : lab.journal())
            if (entry.axis == axis && entry.request == "MOVE")
                steps.push_back(entry.stepsWord());
        return steps;
    }
    /// The move and stop requests of one axis, in order.
    std::vector<LabJournalEntry> driving(LabAxisId axis)
    {
        std::vector<LabJournalEntry> found;
        for (const LabJournalEntry& entry : lab.journal())
            if (entry.axis == axis && (entry.request == "MOVE" || entry.request == "STOP"))
                found.push_back(entry);
        return found;
    }
    void expectAt(int32_t pan, int32_t tilt)
    {
        EXPECT_EQ(lab.axisNow(LAB_PAN).shaft, pan);
        EXPECT_EQ(lab.axisNow(LAB_TILT).shaft, tilt);
    }
    /// Starts a motion to a coordinate and waits for its end, the first since the lab forgot.
    void goTo(int32_t x, int32_t y)
    {
        EXPECT_EQ(lab.call("moveTo", coords(x, y)), DONE);
        EXPECT_TRUE(settled());
        lab.forget();
    }
    static std::string coords(int32_t x, int32_t y)
    {
        return R"({"x_coord":")" + std::to_string(x) + R"(","y_coord":")" + std::to_string(y) + "\"}";
    }
    int requests(const std::string& name)
    {
        int count = 0;
        for (const LabJournalEntry& entry : lab.journal())
            count += entry.request == name ? 1 : 0;
        return count;
    }
};
