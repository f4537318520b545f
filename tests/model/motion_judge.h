#pragma once
// A judge of the notifications that follows every order of events which the rules allow.

#include "evidence.h"
#include "tours.h"

#include <compare>
#include <cstdint>
#include <functional>
#include <set>
#include <string>

enum Origin : int { ORIGIN_USER, ORIGIN_TRACK, ORIGIN_RETURN, ORIGIN_TOUR };
enum class Begin { USER, TRACK, RETURN, MASK, PRESET };
enum class Drive { NONE, DUE, OVERTAKEN }; // what is left of a tour's step that has begun its motion

inline constexpr int64_t WHENEVER = INT64_MAX;

/// One state that the daemon's motion bookkeeping may be in. Times in lab time.
struct MotionState {
    bool active = false;
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
};

/// All states that fit what was seen so far. Polls and threads act at moments that nobody sees, so there may be several
/// while something moves; at rest there is one, but for what the touring thread loads.
class MotionJudge {
public:
    using Fits = std::function<bool(const MotionState&)>;

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
    /// A thread that begins a motion has been started; or may have been.
    void addBegin(bool certainly);
    /// A thread whose step is cancelled may leave out its begin.
    void forgetBegin();
    void addCalibration();
    void endTracking(int64_t ns);
    /// The presets were read again: a preset tour sends the head once more.
    void clearPreset();
    /// The touring thread is to load something, in its time, or has done so.
    void requestReload(bool tour);
    void mayReload();
    void keepReloaded();
    /// The touring thread drives pan, in a step that it has begun; `fitting` are the requests of its kind of tour.
    void tourDrives(int64_t ns, bool succeeds, const Fits& fitting);
    /// It has failed to look at the axes, or to stop them.
    void tourFails(int64_t ns);
    /// Keeps the states that fit; there must be some.
    void keep(const Fits& fitting, const std::string& why);
    /// Whether the event loop may have found an origin that fits between its last request and its next one.
    void keepOrigin(const std::function<bool(int)>& fitting, const std::string& why);
    /// True when nothing is under way in one of the states and nothing is left to explain.
    bool rests() const;
    /// How often a motion has come to its end.
    int64_t ends() const;
    void keepResting();
    bool mayBe(int origin) const;
    /// Whether the tour is to move the head sooner or later if nobody else does: true, false or both.
    std::set<bool> tourMoves(int64_t ns) const;
    std::string describe() const;
    /// Requests of step moves: the motion begins only after them.
    std::set<size_t> stepMoves;

private:
    using States = std::set<MotionState>;
    using Own = std::function<bool(MotionState&, const Notification*)>;

    void closeOver(States& states) const;
    States afterHidden(States states, const Notification& seen) const;
    void addTourBegins(States& states, MotionState state, int64_t ns) const;
    void window(const Own& own, bool restAllowed, const std::string& name, int64_t fromNs, int64_t toNs);
    void checkPremature(const Notification& seen) const;
    void demand(const States& states, const std::string& why) const;
    void change(const std::function<void(MotionState&)>& edit);

    const Evidence& evidence_;
    const TourWorld& world_;
    States states_{MotionState{}};
    size_t at_ = 0; // notifications before it are explained
};
