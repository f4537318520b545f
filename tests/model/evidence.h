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
    /// True when the event loop's thread made a request between two moments.
    bool loopActed(int64_t fromNs, int64_t toNs) const
    {
        return std::any_of(entries.begin(), entries.end(), [&](const LabJournalEntry& entry) {
            return entry.thread == entry.pid && entry.labNs >= fromNs && entry.labNs <= toNs;
        });
    }
    /// The request whose motion of an axis was under way then, as an index into entries, or entries.size().
    size_t moveUnderWay(LabAxisId axis, int64_t labNs) const
    {
        const LabJournalEntry* last = nullptr;
        size_t move = entries.size();
        for (size_t i = 0; i < entries.size() && entries[i].labNs <= labNs; ++i) {
            if (entries[i].axis != axis)
                continue;
            last = &entries[i];
            move = last->result == 0 && (last->request == "MOVE" || last->request == "ROTATE") ? i : move;
        }
        // The last step counts as made: it was begun at an unknown moment.
        return last && last->rate != 0 &&
                       labNs < last->labNs + (std::abs(int64_t{last->left}) - 1) * SECOND_NS / std::abs(last->rate)
                   ? move
                   : entries.size();
    }
};
