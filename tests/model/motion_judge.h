#pragma once
// A judge of the notifications that follows every order of events which the rules allow.

#include "evidence.h"
#include "tours.h"

#include <compare>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <set>
#include <string>

enum Origin : int { ORIGIN_USER, ORIGIN_TRACK, ORIGIN_RETURN, ORIGIN_TOUR };
enum class Begin { USER, TRACK, RETURN, MASK, PRESET };
enum class Drive { NONE, DUE, OVERTAKEN }; // what is left of a tour's step that has begun its motion

inline constexpr int64_t WHENEVER = INT64_MAX;

/// One state that the daemon's motion bookkeeping may be in. Times in lab time.
struct MotionState {
    bool active = false; // a motion is announced, and its end is not
    int origin = 0;
    int begins = 0;      // threads of step moves that have not begun their motion yet
    int calibration = 0; // 0: none, 1: not announced yet, 2: announced

    bool moved = true; // a user moved the head, and it has not rested for a minute since quietFrom
    int64_t quietFrom = WHENEVER;
    bool tracking = false;
    bool scanned = false; // a scan step, and the head has not rested for 15 s since scanFrom
    int64_t scanFrom = WHENEVER / 2;
    bool lingers = false; // an expiry of the timer for the rest before may still be on its way, and end this one
    int preset = 0;       // where the tour has sent the head last
    int scanCoord = 0;
    int scanWay = 1;

    Drive drive = Drive::NONE;
    int64_t tourBegan = 0;
    size_t setting = 0; // the settings that the touring thread has loaded, of the tour
    size_t scan = 0;    // and of the scan
    size_t plan = 0;
    bool reloadsTour = false; // will, soon
    bool reloadsScan = false;

    auto operator<=>(const MotionState&) const = default;

    bool rests() const
    {
        return !active && begins == 0 && calibration == 0;
    }
    // The steps that every motion goes through, whoever takes them: each begin() has one end().
    void begin(Origin by);
    void end(int64_t ns);
    void countAsUsers();
    void startQuiet(int64_t ns);
    void endTracking(int64_t ns);
    void reload(const TourWorld& world, bool tour);
};

/// All states that fit what was seen so far. Polls and threads act at moments that nobody sees, so there may be several
/// while something moves; at rest there is one, but for what the touring thread loads.
class MotionJudge {
public:
    using Fits = std::function<bool(const MotionState&)>;
    using Edit = std::function<void(MotionState&)>;

    MotionJudge(const Evidence& evidence, const TourWorld& world) : evidence_(evidence), world_(world)
    {
    }
    void restart();
    /// A handler begins a motion between two moments, before its first move request.
    void begin(Begin kind, int64_t fromNs, int64_t toNs);
    /// A handler, called at calledNs, ends the motion itself, as a user's, if there is one.
    void stop(int64_t calledNs, int64_t fromNs);
    /// What polls and threads did before that moment.
    void follow(int64_t untilNs);
    /// Something that nobody sees happens; or may have happened.
    void change(const Edit& edit);
    void mayChange(const Edit& edit);
    /// What the touring thread is to load it may have loaded; or has by now.
    void mayReload();
    void keepReloaded();
    /// The touring thread drives pan, in a step that it has begun; `fitting` are the requests of its kind of tour.
    void tourDrives(int64_t ns, bool succeeds, const Fits& fitting);
    /// It has failed to look at the axes, or to stop them.
    void tourFails(int64_t ns);
    /// Keeps the states that fit; there must be some.
    void keep(const Fits& fitting, const std::string& why);
    /// The event loop has found one of these origins, or none of them, between its last request and its next one.
    void keepOrigin(bool oneOf, std::initializer_list<int> origins, const std::string& why);
    bool mayBe(int origin) const;
    /// True when nothing is under way in one of the states and nothing is left to explain.
    bool rests() const;
    void keepResting();
    /// How often a motion has come to its end.
    int64_t ends() const;
    /// Whether the tour is to move the head sooner or later if nobody else does: true, false or both.
    std::set<bool> tourMoves(int64_t ns) const;
    std::string describe() const;
    /// Requests of step moves: the motion begins only after them.
    std::set<size_t> stepMoves;

private:
    using States = std::set<MotionState>;
    using Own = std::function<bool(MotionState&, const Notification*)>;

    void closeOver(States& states) const;
    bool hasReloaded(const MotionState& state) const;
    States afterHidden(States states, const Notification& seen) const;
    void addTourBegins(States& states, MotionState state, int64_t ns) const;
    void window(const Own& own, bool restAllowed, const std::string& name, int64_t fromNs, int64_t toNs);
    void checkPremature(const Notification& seen) const;
    void demand(const States& states, const std::string& why) const;

    const Evidence& evidence_;
    const TourWorld& world_;
    States states_{MotionState{}};
    size_t at_ = 0; // notifications before it are explained
};
