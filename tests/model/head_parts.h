#pragma once
// What the model is made of: settings files, axes, and the codes that methods answer.

#include "evidence.h"
#include "tours.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <strings.h>

enum Code : int32_t {
    CODE_OK = 0,
    CODE_DEVICE = -64301,
    CODE_PARAM = -64302,
    CODE_CALIBRATING = -64303,
    CODE_NO_TRAVEL = -64304,
    CODE_MOVING = -64305,
    CODE_FULL = -64306,
    CODE_FACTOR = -64317,
    CODE_PRESET = -64321,
    CODE_LENS_MASK = -64324,
    CODE_PANORAMA = -64329,
};

/// A method goes no further and answers the code.
inline void refuse(bool condition, Code code)
{
    if (condition)
        throw code;
}

inline constexpr int64_t SAVE_PERIOD_NS = 10 * SECOND_NS;
inline constexpr int32_t MASK_COORDINATE = -61;

using Pair = std::array<int64_t, LAB_AXIS_COUNT>; // of pan and tilt
using Words = std::vector<int32_t>;               // of a device's record
enum { SPEED_WORD = 1, STEPS_WORD = 2, RUNNING_WORD = 3, WORDS = 5 };

inline constexpr Pair NO_SPEEDS{}; // the configured ones count

/// A value for each axis.
template <typename Value>
Pair forEach(Value value)
{
    return {value(LAB_PAN), value(LAB_TILT)};
}

/// The latest status of both axes.
struct Reading {
    Words words[LAB_AXIS_COUNT]{Words(WORDS), Words(WORDS)};

    bool running() const
    {
        return words[LAB_PAN][RUNNING_WORD] != 0 || words[LAB_TILT][RUNNING_WORD] != 0;
    }
    Pair of(size_t word) const
    {
        return forEach([&](LabAxisId axis) { return words[axis][word]; });
    }
};

/// Decimal text as a number; what is out of range saturates, what is no number is 0.
inline int64_t number(const std::string& text)
{
    return std::clamp<int64_t>(strtoll(text.c_str(), nullptr, 10), INT32_MIN, INT32_MAX);
}

/// What is in the settings files, which outlives a daemon.
struct Files {
    std::map<std::string, std::string> switches; // by the verbs of the steps that change them; "-": missing
    std::optional<int32_t> steps[LAB_AXIS_COUNT];
    std::optional<int32_t> speeds[LAB_AXIS_COUNT];
    Presets presets;
    Plan plan;
    TourSettings tour;
    std::vector<Wall> walls{{0, 0}};

    bool isOn(const std::string& verb) const
    {
        return strcasecmp(switches.at(verb).c_str(), "on") == 0;
    }
};

inline constexpr const char* SECTIONS[] = {"x_motor", "y_motor"};

inline std::string optionText(const std::optional<int32_t>& value)
{
    return value ? std::to_string(*value) : "-";
}

struct ModelAxis {
    LabAxisSetting made;
    int32_t lower; // limits and home in coordinates
    int32_t upper;
    int32_t home;
    // Where the axis is, or will be once its motion is over. Count and shaft differ after a failed calibration.
    int32_t count;
    int32_t shaft;
    bool moving;
    std::optional<int32_t> speedOption; // as the daemon holds it

    int64_t toSteps(int64_t coordinate) const
    {
        return coordinate * made.total_steps / made.range + made.total_steps / 2;
    }
    /// Follows the axis through a request.
    void fold(const LabJournalEntry& entry)
    {
        const auto clamped = [&](int64_t steps) {
            return static_cast<int32_t>(std::clamp<int64_t>(steps, 0, made.total_steps));
        };
        if (entry.result == 0 && entry.request == "SET_POSITION")
            count = clamped(entry.stepsWord());
        require(moving || (entry.count == count && entry.shaft == shaft),
                "the axis is not where it was: " + textOf(entry) + ", expected at " + std::to_string(count));
        moving = entry.rate != 0;
        count = clamped(int64_t{entry.count} + entry.left);
        shaft = clamped(int64_t{entry.shaft} + entry.left);
    }
};
