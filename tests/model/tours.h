#pragma once
// The rules of presets, weekly plan and tours: what is stored, and what it asks of the head at a time.

#include <json-c/json.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <ctime>
#include <map>
#include <set>
#include <string>
#include <vector>

inline constexpr int64_t SECOND_NS = 1'000'000'000;
/// Of lab time; what is seen later than this after its cause has another.
inline constexpr int64_t LATENESS_NS = 12 * SECOND_NS;
inline constexpr int64_t DAY_MINUTES = 1440;
inline constexpr int DAYS = 7; // from Sunday

struct PresetSlot {
    int id = 0; // 0: free
    std::string name;
    float position[2]{}; // of pan and tilt, -1 to 1 over the travel
};
using Presets = std::array<PresetSlot, 8>;

inline PresetSlot* presetWithId(Presets& presets, int64_t id)
{
    auto* const at = std::find_if(presets.begin(), presets.end(), [id](const auto& slot) { return slot.id == id; });
    return at == presets.end() || id == 0 ? nullptr : at;
}

/// One range of a weekday, in minutes after midnight.
struct PlanRange {
    int start;
    int end;
    std::string action;
    int id; // of a preset
    bool valid = true;
};
using PlanDay = std::vector<PlanRange>;
using Plan = std::map<int64_t, PlanDay>; // by weekday

/// What the package of the tours holds.
struct TourSettings {
    std::string enabled = "off";
    int type = 0;
    int from = 0; // pan coordinates
    int to = 0;
    int start = 0; // minutes after midnight
    int end = 0;
};

/// The wall clock shows a second from a lab time on.
struct Wall {
    int64_t fromNs;
    int64_t second; // since a Sunday

    /// A local time like "2031-05-05 08:00:00", in the zone UTC.
    static Wall at(const std::string& text, int64_t labNs)
    {
        tm time{};
        (void)strptime(text.c_str(), "%F %T", &time);
        return {labNs, timegm(&time) + 4 * 24 * 60 * 60}; // 1970 began with a Thursday
    }
};

struct PresetsInUse {
    Presets presets{};
    std::array<float, 2> factors{1, 1}; // of the largest speeds
};

/// What the touring thread goes by. Everything may be looked at a little before its effect is seen.
struct TourWorld {
    std::vector<TourSettings> settings{TourSettings{}}; // the last is in the file
    std::vector<Plan> plans{Plan{}};                    // likewise
    std::vector<Wall> walls{{0, 0}};
    PresetsInUse now{};
    PresetsInUse before{}; // the latest change, which ended at changedNs
    int64_t changedNs = 0;
    bool held = false; // by lens mask or panorama

    /// The presets, 0 for none, that the plan of that index may have asked for at a lab time.
    std::set<int> targets(size_t plan, int64_t labNs) const
    {
        std::set<int> result;
        for (const int64_t week : minutes(labNs)) {
            const int64_t minute = week % DAY_MINUTES;
            const auto entry = plans[plan].find(week / DAY_MINUTES);
            const PlanDay day = entry == plans[plan].end() ? PlanDay{} : entry->second;
            const auto at = std::find_if(day.begin(), day.end(), [minute](const PlanRange& range) {
                return range.valid && range.start <= minute && minute < range.end;
            });
            const int id = at == day.end() || at->action != "preset" ? 0 : at->id;
            for (PresetsInUse& read : readAt(labNs))
                result.insert(presetWithId(read.presets, id) ? id : 0);
        }
        return result;
    }
    /// Whether the time lies in the daily span of the settings of that index: true, false or both.
    std::set<bool> inSpan(size_t setting, int64_t labNs) const
    {
        const TourSettings& tour = settings[setting];
        std::set<bool> result;
        for (const int64_t week : minutes(labNs)) {
            const bool begun = week % DAY_MINUTES >= tour.start;
            const bool ended = week % DAY_MINUTES >= tour.end;
            result.insert(tour.start < tour.end ? begun && !ended : begun || !ended);
        }
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

private:
    std::set<int64_t> minutes(int64_t labNs) const // of the week
    {
        std::set<int64_t> result;
        for (const int64_t ns : {labNs - LATENESS_NS, labNs}) {
            const auto after = [ns](const Wall& wall) { return wall.fromNs > ns; };
            const auto at = std::find_if(walls.begin() + 1, walls.end(), after) - 1;
            result.insert((at->second + (ns - at->fromNs) / SECOND_NS) / 60 % (DAYS * DAY_MINUTES));
        }
        return result;
    }
};
