#include "evidence.h"

#include <algorithm>
#include <cstdlib>

void require(bool condition, const std::string& text)
{
    if (!condition)
        throw Mismatch{text};
}

std::string textOf(const LabJournalEntry& entry)
{
    std::string text = entry.axis == LAB_PAN ? "x " : "y ";
    text += entry.request;
    for (const int32_t word : entry.in)
        text += " " + std::to_string(word);
    return text + (entry.result == 0 ? "" : " (failed)") + " at " + std::to_string(entry.count);
}

void Evidence::load(const Lab& lab)
{
    // What happened up to now: of two things the one that led to the other is then never missing.
    const int64_t now = lab.clock.nowNs();
    log = lab.records.cetLog();
    entries = lab.records.journal();
    std::erase_if(log, [now](const LabCetEntry& entry) { return entry.labNs > now; });
    std::erase_if(entries, [now](const LabJournalEntry& entry) { return entry.labNs > now; });
    notifications.clear();
    for (const LabCetEntry& entry : log)
        if (!entry.isEvent)
            notifications.push_back({entry.labNs, entry.name == "notify_motor_moving",
                                     static_cast<int>(strtol(entry.text.c_str(), nullptr, 10))});
}

size_t Evidence::nextOfLoop() const
{
    size_t i = at;
    while (i < entries.size() && entries[i].thread != entries[i].pid)
        ++i;
    return i;
}

int64_t Evidence::lastOfLoopNs() const
{
    for (size_t i = at; i-- > 0;)
        if (entries[i].thread == entries[i].pid)
            return entries[i].labNs;
    return 0;
}

bool Evidence::loopActed(int64_t fromNs, int64_t toNs) const
{
    return std::any_of(entries.begin(), entries.end(), [&](const LabJournalEntry& entry) {
        return entry.thread == entry.pid && entry.labNs >= fromNs && entry.labNs <= toNs;
    });
}

size_t Evidence::moveUnderWay(LabAxisId axis, int64_t labNs) const
{
    size_t last = entries.size();
    for (size_t i = 0; i < entries.size() && entries[i].labNs <= labNs; ++i)
        if (entries[i].axis == axis)
            last = i;
    if (last == entries.size() || entries[last].rate == 0)
        return entries.size();
    // The last step counts as made: it was begun at an unknown moment.
    const LabJournalEntry& entry = entries[last];
    const int64_t steps = std::abs(int64_t{entry.left}) - 1;
    if (labNs >= entry.labNs + steps * 1'000'000'000 / std::abs(entry.rate))
        return entries.size();
    const auto started = [&](const LabJournalEntry& other) {
        return other.axis == axis && other.result == 0 && (other.request == "MOVE" || other.request == "ROTATE");
    };
    while (last > 0 && !started(entries[last]))
        --last;
    return last;
}

std::string Evidence::wrongEvents(bool all) const
{
    std::vector<size_t> calls;
    size_t answered = 0;
    for (size_t i = 0; i < log.size(); ++i) {
        if (!log[i].isEvent) {
            if (log[i].text != "1")
                calls.push_back(i);
            continue;
        }
        if (answered >= calls.size())
            return "an event \"" + log[i].text + "\" without its notification";
        const bool starts = log[calls[answered++]].name == "notify_motor_moving";
        if (log[i].text != (starts ? "start" : "stop"))
            return "an event \"" + log[i].text + "\" where the other one was due";
    }
    return all && answered < calls.size() ? "a notification without its event" : "";
}
