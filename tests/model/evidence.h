#pragma once
// What was seen of the daemon: the journal of its motor requests and the notifications that it sent.

#include "lab/lab.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

inline constexpr LabAxisId AXES[] = {LAB_PAN, LAB_TILT};
inline constexpr int64_t SECOND_NS = 1'000'000'000;
/// Of lab time; what is seen later than this after its cause has another.
inline constexpr int64_t LATENESS_NS = 12 * SECOND_NS;

/// The daemon did something else than the rules say.
struct Mismatch {
    std::string text;
};

/// The machine was too slow for the test to know whether a save came before or after something else.
struct Inconclusive {};

inline void require(bool condition, const std::string& text)
{
    if (!condition)
        throw Mismatch{text};
}

inline std::string textOf(LabAxisId axis, const std::string& request, const std::vector<int32_t>& words = {})
{
    std::string text = (axis == LAB_PAN ? "x " : "y ") + request;
    for (const int32_t word : words)
        text += " " + std::to_string(word);
    return text;
}

inline std::string textOf(const LabJournalEntry& entry)
{
    return "\"" + textOf(entry.axis, entry.request, entry.in) + (entry.result == 0 ? "" : " (failed)") + "\" at " +
           std::to_string(entry.count);
}

/// A notification that CET got.
struct Notification {
    int64_t labNs;
    bool moving;
    int origin;
};

/// Journal and notifications of one daemon, as far as loaded. Entries before `at` are judged.
struct Evidence {
    std::vector<LabJournalEntry> entries;
    size_t at = 0;
    std::vector<Notification> notifications;
    std::set<pid_t> lasting; // the daemon's threads at rest: of those only the touring one sends requests

    void load(const Lab& lab)
    {
        // What happened up to now: of two things the one that led to the other is then never missing.
        const int64_t now = lab.clock.nowNs();
        const auto log = lab.records.cetLog();
        entries = lab.records.journal();
        std::erase_if(entries, [now](const LabJournalEntry& entry) { return entry.labNs > now; });
        notifications.clear();
        for (const LabCetEntry& entry : log)
            if (!entry.isEvent && entry.labNs <= now)
                notifications.push_back({entry.labNs, entry.name == "notify_motor_moving", atoi(entry.text.c_str())});
    }
    /// The next entry of the event loop's thread at or after `at`, or entries.size().
    size_t nextOfLoop() const
    {
        size_t i = at;
        while (i < entries.size() && entries[i].thread != entries[i].pid)
            ++i;
        return i;
    }
    /// The event loop's thread is seen to do no more.
    bool loopIsDone() const
    {
        return nextOfLoop() == entries.size();
    }
    void requireLoopDone(const std::string& why) const
    {
        if (!loopIsDone())
            throw Mismatch{why + ": " + textOf(entries[nextOfLoop()])};
    }
    /// Lab time of the event loop's next entry, or `otherwise`.
    int64_t nextOfLoopNs(int64_t otherwise) const
    {
        return loopIsDone() ? otherwise : entries[nextOfLoop()].labNs;
    }
    /// Lab time of the latest entry of the event loop's thread before `at`; 0 without one.
    int64_t lastOfLoopNs() const
    {
        for (size_t i = at; i-- > 0;)
            if (entries[i].thread == entries[i].pid)
                return entries[i].labNs;
        return 0;
    }
};
