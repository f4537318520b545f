#include "evidence.h"

#include <algorithm>
#include <cstdlib>

void require(bool condition, const std::string& text)
{
    if (!condition)
        throw Mismatch{text};
}

std::string textOf(LabAxisId axis, const std::string& request, const std::vector<int32_t>& words)
{
    std::string text = (axis == LAB_PAN ? "x " : "y ") + request;
    for (const int32_t word : words)
        text += " " + std::to_string(word);
    return text;
}

std::string textOf(const LabJournalEntry& entry)
{
    return "\"" + textOf(entry.axis, entry.request, entry.in) + (entry.result == 0 ? "" : " (failed)") + "\" at " +
           std::to_string(entry.count);
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
            notifications.push_back({entry.labNs, entry.name == "notify_motor_moving", atoi(entry.text.c_str())});
}

size_t Evidence::nextOfLoop() const
{
    size_t i = at;
    while (i < entries.size() && entries[i].thread != entries[i].pid)
        ++i;
    return i;
}

void Evidence::requireLoopDone(const std::string& why) const
{
    if (!loopIsDone())
        throw Mismatch{why + ": " + textOf(entries[nextOfLoop()])};
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
    const size_t none = entries.size();
    size_t last = none;
    for (size_t i = 0; i < entries.size() && entries[i].labNs <= labNs; ++i)
        if (entries[i].axis == axis)
            last = i;
    if (last == none || entries[last].rate == 0)
        return none;
    // The last step counts as made: it was begun at an unknown moment.
    const int64_t steps = std::abs(int64_t{entries[last].left}) - 1;
    if (labNs >= entries[last].labNs + steps * 1'000'000'000 / std::abs(entries[last].rate))
        return none;
    const auto started = [&](const LabJournalEntry& other) {
        return other.axis == axis && other.result == 0 && (other.request == "MOVE" || other.request == "ROTATE");
    };
    while (last > 0 && !started(entries[last]))
        --last;
    return last;
}

std::string Evidence::wrongEvents() const
{
    std::vector<std::string> due; // the actions of the events, by their calls
    size_t answered = 0;
    for (const LabCetEntry& entry : log) {
        if (!entry.isEvent && entry.text != "1")
            due.push_back(entry.name == "notify_motor_moving" ? "start" : "stop");
        else if (entry.isEvent && answered == due.size())
            return "an event \"" + entry.text + "\" without its notification";
        else if (entry.isEvent && entry.text != due[answered++])
            return "an event \"" + entry.text + "\" where the other one was due";
    }
    return answered < due.size() ? "a notification without its event" : "";
}
