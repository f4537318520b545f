#include "tours.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

const char* const DAY_NAMES[DAYS] = {"sunday", "monday", "tuesday", "wednesday", "thursday", "friday", "saturday"};

namespace {

constexpr int64_t DAY_MINUTES = 1440;

} // namespace

PresetSlot* presetWithId(Presets& presets, int64_t id)
{
    const auto at =
        std::find_if(presets.begin(), presets.end(), [id](const PresetSlot& slot) { return slot.id == id; });
    return at == presets.end() || id == 0 ? nullptr : &*at;
}

std::vector<PlanRange> planRanges(const std::string& text)
{
    std::vector<PlanRange> result;
    std::istringstream ranges(text);
    for (std::string range; std::getline(ranges, range, ',');) {
        char* end = nullptr;
        PlanRange entry;
        entry.start = static_cast<int>(strtol(range.c_str(), &end, 10));
        entry.end = static_cast<int>(strtol(end + 1, &end, 10));
        const std::string action = end + 1;
        entry.action = action == "-" || action == "?" ? action[0] : 'p';
        entry.id = static_cast<int>(strtol(action.c_str(), nullptr, 10));
        result.push_back(entry);
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
    const auto number = [&](size_t at) { return strtol(text.c_str() + at, nullptr, 10); };
    const int64_t day = (number(8) - 4) % DAYS; // the 4th of May 2031 is a Sunday
    walls_.push_back({labNs, ((day * 24 + number(11)) * 60 + number(14)) * 60 + number(17)});
}

std::set<int64_t> TourWorld::minutes(int64_t labNs) const
{
    std::set<int64_t> result;
    for (const int64_t ns : {labNs - LATENESS_NS, labNs}) {
        const auto after = [ns](const Wall& wall) { return wall.fromNs > ns; };
        auto at = std::find_if(walls_.begin() + 1, walls_.end(), after) - 1;
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
            id = at == day->second.end() || at->action != 'p' ? 0 : at->id;
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
