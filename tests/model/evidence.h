#pragma once
// What was seen of the daemon: the journal of its motor requests and the notifications that it sent, and a judge of the
// notifications that follows every order of events which the rules allow.

#include "lab/lab.h"

#include <compare>
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
std::string textOf(const LabJournalEntry& entry);

/// A notification that CET got.
struct Notification {
    int64_t realNs;
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

    void load(const Lab& lab);
    /// The next entry of the event loop's thread at or after `at`, or entries.size().
    size_t nextOfLoop() const;
    /// Time of the latest entry of the event loop's thread before `at`; 0 without one.
    int64_t lastOfLoopRealNs() const;
    int64_t lastOfLoopLabNs() const;
    /// The moves of an axis that was under way then, as an index into entries, or entries.size().
    size_t moveUnderWay(LabAxisId axis, int64_t labNs) const;
    /// Every notification but those of tracking has its event, in order and each after its call; says what is wrong.
    /// With `all` false the last events may still be on their way.
    std::string wrongEvents(bool all) const;
};

/// One state that the daemon's motion bookkeeping may be in.
struct MotionState {
    bool active = false;
    int origin = 0;
    int begins = 0;      // threads of step moves that have not begun their motion yet
    int calibration = 0; // 0: none, 1: not announced yet, 2: announced

    auto operator<=>(const MotionState&) const = default;
};

inline constexpr int64_t WHENEVER = INT64_MAX;

/// All states that fit what was seen so far. Polls and threads act at moments that nobody sees, so there may be several
/// while something moves; at rest there is one.
class MotionJudge {
public:
    explicit MotionJudge(const Evidence& evidence) : evidence_(evidence)
    {
    }
    void restart();
    /// A handler begins a motion between two moments, before its first move request.
    void begin(int origin, int64_t fromRealNs, int64_t toRealNs);
    /// A handler ends the motion itself, as a user's, if there is one.
    void stop(int64_t fromRealNs);
    /// What polls and threads did before that moment.
    void follow(int64_t untilRealNs);
    /// A thread that begins a motion has been started; or may have been.
    void addBegin(bool certainly);
    /// A thread whose step is cancelled may leave out its begin.
    void forgetBegin();
    void addCalibration();
    /// Keeps the states with that origin, or those with another one; there must be some.
    void keepOrigin(int origin, bool equal, const std::string& why);
    void keepCalibrated(const std::string& why);
    /// True when nothing is under way in one of the states and nothing is left to explain.
    bool rests() const;
    void keepResting();
    bool mayBe(int origin) const;
    std::string describe() const;
    /// Requests of step moves: the motion begins only after them.
    std::set<size_t> stepMoves;

private:
    enum class Act { BEGIN, STOP };
    using States = std::set<MotionState>;

    void closeOver(States& states) const;
    States afterHidden(States states, const Notification& seen) const;
    States afterOwn(const States& states, Act act, int origin, const Notification* seen) const;
    void window(Act act, int origin, int64_t fromRealNs, int64_t toRealNs);
    void checkPremature(const Notification& seen) const;
    void demand(const States& states, const std::string& why) const;

    const Evidence& evidence_;
    States states_{MotionState{}};
    size_t at_ = 0; // notifications before it are explained
};
