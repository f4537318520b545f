#pragma once
// What was seen of the daemon: the journal of its motor requests and the notifications that it sent.

#include "lab/lab.h"

#include <cstdint>
#include <set>
#include <string>
#include <vector>

/// The daemon did something else than the rules say.
struct Mismatch {
    std::string text;
};

/// The machine was too slow for the test to know whether a save came before or after something else.
struct Inconclusive {};

void require(bool condition, const std::string& text);
std::string textOf(LabAxisId axis, const std::string& request, const std::vector<int32_t>& words = {});
std::string textOf(const LabJournalEntry& entry);

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
    std::vector<LabCetEntry> log;
    std::vector<Notification> notifications;
    std::set<pid_t> lasting; // the daemon's threads at rest: of those only the touring one sends requests

    void load(const Lab& lab);
    /// The next entry of the event loop's thread at or after `at`, or entries.size().
    size_t nextOfLoop() const;
    /// The event loop's thread is seen to do no more.
    bool loopIsDone() const
    {
        return nextOfLoop() == entries.size();
    }
    void requireLoopDone(const std::string& why) const;
    /// Lab time of the latest entry of the event loop's thread before `at`; 0 without one.
    int64_t lastOfLoopNs() const;
    /// True when the event loop's thread made a request between two moments.
    bool loopActed(int64_t fromNs, int64_t toNs) const;
    /// The request whose motion of an axis was under way then, as an index into entries, or entries.size().
    size_t moveUnderWay(LabAxisId axis, int64_t labNs) const;
    /// Every notification but those of tracking has its event, in order and each after its call; says what is wrong.
    std::string wrongEvents() const;
};
