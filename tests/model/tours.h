#pragma once
// The rules of presets, weekly plan and tours: what is stored, and what it asks of the head at a time.

#include <json-c/json.h>

#include <array>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

inline constexpr int64_t SECOND_NS = 1'000'000'000;
/// Of lab time; what is seen later than this after its cause has another.
inline constexpr int64_t LATENESS_NS = 12 * SECOND_NS;
inline constexpr int DAYS = 7; // from Sunday

struct PresetSlot {
    int id = 0; // 0: free
    std::string name;
    float position[2]{}; // of pan and tilt, -1 to 1 over the travel
};
using Presets = std::array<PresetSlot, 8>;

PresetSlot* presetWithId(Presets& presets, int64_t id);

/// One range of a weekday, in minutes after midnight.
struct PlanRange {
    int start;
    int end;
    std::string action;
    int id; // of a preset
    bool valid = true;
};
using Plan = std::map<int, std::vector<PlanRange>>; // by weekday

/// The ranges in a weekday's array.
std::vector<PlanRange> planRanges(json_object* day);
bool fits(const std::vector<PlanRange>& day);

/// What the package of the tours holds.
struct TourSettings {
    std::string enabled = "off";
    int type = 0;
    int from = 0; // pan coordinates
    int to = 0;
    int start = 0; // minutes after midnight
    int end = 0;
};

/// What the touring thread goes by. Everything may be looked at a little before its effect is seen.
struct TourWorld {
    std::vector<TourSettings> settings{TourSettings{}}; // the last is in the file
    std::vector<Plan> plans{Plan{}};                    // likewise
    Presets presets;
    std::array<float, 2> factors{1, 1}; // of the largest speeds
    Presets presetsBefore;              // the latest change of presets or factors, which ended at changedNs
    std::array<float, 2> factorsBefore{1, 1};
    int64_t changedNs = 0;
    bool held = false; // by lens mask or panorama

    /// The wall clock shows `text`, "2031-05-05 08:00:00" for a Monday, at that lab time.
    void setWall(const std::string& text, int64_t labNs);
    /// The presets, 0 for none, that the plan of that index may have asked for at a lab time.
    std::set<int> targets(size_t plan, int64_t labNs) const;
    /// Whether the time lies in the daily span of the settings of that index: true, false or both.
    std::set<bool> inSpan(size_t setting, int64_t labNs) const;
    /// A copy of what is about to change.
    void remember();
    bool justChanged(int64_t labNs) const;

private:
    struct Wall {
        int64_t fromNs;
        int64_t second; // of the week
    };
    std::vector<Wall> walls_{{0, 0}};

    std::set<int64_t> minutes(int64_t labNs) const; // of the week
};
