#pragma once
// What the model is made of: settings files, axes, what tours go by, and the codes that methods answer.

#include "evidence.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <map>
#include <optional>
#include <set>
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

using Presets = std::map<int64_t, std::array<float, LAB_AXIS_COUNT>>; // by id, -1 to 1 over the travel

/// What the package of the tours holds.
struct TourSettings {
    std::string enabled = "off";
    int type = 0;
    int from = 0; // pan coordinates
    int to = 0;
};

/// What is in the settings files, which outlives a daemon.
struct Files {
    std::map<std::string, std::string> switches; // by the verbs of the steps that change them; "-": missing
    std::optional<int32_t> steps[LAB_AXIS_COUNT];
    std::optional<int32_t> speeds[LAB_AXIS_COUNT];
    Presets presets;
    int64_t planned = 0; // the preset that the plan asks for all day, 0: none
    TourSettings tour;

    bool isOn(const std::string& verb) const
    {
        return strcasecmp(switches.at(verb).c_str(), "on") == 0;
    }
};

struct PresetsInUse {
    Presets presets;
    std::array<float, LAB_AXIS_COUNT> factors{1, 1}; // of the largest speeds
};

/// What the touring thread goes by. Everything may be looked at a little before its effect is seen.
struct TourWorld {
    std::vector<TourSettings> settings; // the last is in the file
    std::vector<int64_t> plans;         // likewise
    PresetsInUse now{};
    PresetsInUse before{}; // the latest change, which ended at changedNs
    int64_t changedNs = 0;
    bool held = false; // by lens mask or panorama

    /// The presets, 0 for none, that the plan of that index may have asked for at a lab time.
    std::set<int64_t> targets(size_t plan, int64_t labNs) const
    {
        std::set<int64_t> result;
        for (const PresetsInUse& read : readAt(labNs))
            result.insert(read.presets.contains(plans[plan]) ? plans[plan] : 0);
        return result;
    }
    /// A copy of what is about to change.
    void remember()
    {
        before = now;
        changedNs = INT64_MAX;
    }
    /// What may have been read of the presets at a lab time.
    std::vector<PresetsInUse> readAt(int64_t labNs) const
    {
        const bool justChanged = changedNs == INT64_MAX || (changedNs != 0 && labNs <= changedNs + LATENESS_NS);
        return justChanged ? std::vector{now, before} : std::vector{now};
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
