#include "tours.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr int64_t DAY_MINUTES = 1440;

} // namespace

PresetSlot* presetWithId(Presets& presets, int64_t id)
{
    auto* const at = std::find_if(presets.begin(), presets.end(), [id](const auto& slot) { return slot.id == id; });
    return at == presets.end() || id == 0 ? nullptr : at;
}

std::vector<PlanRange> planRanges(json_object* day)
{
    std::vector<PlanRange> result;
    for (size_t i = 0; i < json_object_array_length(day); ++i) {
        json_object_object_foreach(json_object_array_get_idx(day, i), name, range)
        {
            (void)name;
            const auto member = [range](const char* key) { return json_object_object_get(range, key); };
            result.push_back({json_object_get_int(member("start_time")), json_object_get_int(member("end_time")),
                              json_object_get_string(member("action_type")), json_object_get_int(member("action_id"))});
        }
    }
    return result;
}

bool fits(const std::vector<PlanRange>& day)
{
    int earliest = 0;
    for (const PlanRange& range : day) {
        if (range.start < earliest || range.end < range.start || range.end > DAY_MINUTES)
            return false;
        earliest = range.end;
    }
    return true;
}

void TourWorld::setWall(const std::string& text, int64_t labNs)
{
    int day = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;
    (void)sscanf(text.c_str(), "2031-05-%d %d:%d:%d", &day, &hour, &minute, &second);
    // The 4th of May 2031 is a Sunday.
    walls_.push_back({labNs, ((int64_t{day - 4} * 24 + hour) * 60 + minute) * 60 + second});
}

std::set<int64_t> TourWorld::minutes(int64_t labNs) const
{
    std::set<int64_t> result;
    for (const int64_t ns : {labNs - LATENESS_NS, labNs}) {
        const auto after = [ns](const Wall& wall) { return wall.fromNs > ns; };
        const auto at = std::find_if(walls_.begin() + 1, walls_.end(), after) - 1;
        result.insert((at->second + (ns - at->fromNs) / SECOND_NS) / 60 % (DAYS * DAY_MINUTES));
    }
    return result;
}

std::set<int> TourWorld::targets(size_t plan, int64_t labNs) const
{
    std::set<int> result;
    std::vector<Presets> tables{presets};
    if (justChanged(labNs))
        tables.push_back(presetsBefore);
    for (const int64_t minute : minutes(labNs)) {
        const auto day = plans[plan].find(static_cast<int>(minute / DAY_MINUTES));
        int id = 0;
        if (day != plans[plan].end()) {
            const auto at = std::find_if(day->second.begin(), day->second.end(), [&](const PlanRange& range) {
                return range.valid && range.start <= minute % DAY_MINUTES && minute % DAY_MINUTES < range.end;
            });
            id = at == day->second.end() || at->action != "preset" ? 0 : at->id;
        }
        for (Presets& table : tables)
            result.insert(presetWithId(table, id) ? id : 0);
    }
    return result;
}

std::set<bool> TourWorld::inSpan(size_t setting, int64_t labNs) const
{
    const TourSettings& tour = settings[setting];
    std::set<bool> result;
    for (const int64_t week : minutes(labNs)) {
        const int64_t minute = week % DAY_MINUTES;
        const bool begun = minute >= tour.start;
        const bool ended = minute >= tour.end;
        result.insert(tour.start < tour.end ? begun && !ended : begun || !ended);
    }
    return result;
}

void TourWorld::remember()
{
    presetsBefore = presets;
    factorsBefore = factors;
    changedNs = INT64_MAX;
}

bool TourWorld::justChanged(int64_t labNs) const
{
    return changedNs == INT64_MAX || (changedNs != 0 && labNs <= changedNs + LATENESS_NS);
}
