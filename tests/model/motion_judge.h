#pragma once
// A judge of the notifications that follows every order of events which the rules allow.

#include "evidence.h"

#include <algorithm>
#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

enum Origin : int { ORIGIN_USER, ORIGIN_TRACK, ORIGIN_RETURN, ORIGIN_TOUR };
enum class Begin { USER, TRACK, RETURN, MASK, PRESET };
enum class Drive { NONE, DUE, OVERTAKEN }; // what is left of a tour's step that has begun its motion

inline constexpr int64_t WHENEVER = INT64_MAX;
inline constexpr int64_t QUIET_NS = 60 * SECOND_NS;
inline constexpr int64_t SCAN_REST_NS = 15 * SECOND_NS;

using Presets = std::map<int64_t, std::array<float, LAB_AXIS_COUNT>>; // by id, -1 to 1 over the travel

/// What the package of the tours holds.
struct TourSettings {
    std::string enabled = "off";
    int type = 0;
    int from = 0; // pan coordinates
    int to = 0;
};

struct PresetsInUse {
    Presets presets;
    std::array<float, LAB_AXIS_COUNT> factors{1, 1}; // of the largest speeds
};

/// What the touring thread goes by. Everything may be looked at a little before its effect is seen.
struct TourWorld {
    std::vector<TourSettings> settings; // the last is in the file
    std::vector<int64_t> plans;         // likewise
    PresetsInUse now{};
    PresetsInUse before{}; // the latest change, which ended at changedNs
    int64_t changedNs = 0;
    bool held = false; // by lens mask or panorama

    /// The presets, 0 for none, that the plan of that index may have asked for at a lab time.
    std::set<int64_t> targets(size_t plan, int64_t labNs) const
    {
        std::set<int64_t> result;
        for (const PresetsInUse& read : readAt(labNs))
            result.insert(read.presets.contains(plans[plan]) ? plans[plan] : 0);
        return result;
    }
    /// A copy of what is about to change.
    void remember()
    {
        before = now;
        changedNs = INT64_MAX;
    }
    /// What may have been read of the presets at a lab time.
    std::vector<PresetsInUse> readAt(int64_t labNs) const
    {
        const bool justChanged = changedNs == INT64_MAX || (changedNs != 0 && labNs <= changedNs + LATENESS_NS);
        return justChanged ? std::vector{now, before} : std::vector{now};
    }
};

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
    int64_t preset = 0;   // where the tour has sent the head last
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
    // Every motion goes through begin() and end(), whoever takes these steps.
    void begin(Origin by)
    {
        active = true;
        origin = by;
        moved = by == ORIGIN_USER || (by != ORIGIN_TOUR && moved);
        preset = by == ORIGIN_USER || by == ORIGIN_TRACK ? 0 : preset;
    }
    void end(int64_t ns)
    {
        active = false;
        if (origin != ORIGIN_TOUR || std::exchange(drive, Drive::NONE) != Drive::NONE)
            countAsUsers();
        startQuiet(ns);
    }
    void countAsUsers()
    {
        moved = true;
        preset = 0;
    }
    void startQuiet(int64_t ns)
    {
        quietFrom = moved ? ns : quietFrom;
        scanFrom = scanned ? ns : scanFrom;
    }
    void endTracking(int64_t ns)
    {
        if (!std::exchange(tracking, false))
            return;
        countAsUsers();
        startQuiet(ns);
    }
    /// What the touring thread does with a reload: the tour starts anew, unless the head moves.
    void reload(const TourWorld& world, bool tour)
    {
        const size_t latest = world.settings.size() - 1;
        (tour ? reloadsTour : reloadsScan) = false;
        (tour ? setting : scan) = latest;
        if (!tour || (world.settings[latest].enabled == "on" && world.settings[latest].type == 1))
            scanCoord = world.settings[scan].from;
        if (active)
            return;
        moved = scanned = tracking = false;
        preset = 0;
    }
    /// A handler's begin step; false when it does not go with what was seen of it.
    bool beginOwn(Begin kind, const Notification* seen)
    {
        const Origin by = kind == Begin::TRACK ? ORIGIN_TRACK : kind == Begin::RETURN ? ORIGIN_RETURN : ORIGIN_USER;
        if (active != (seen == nullptr) || (seen && (!seen->moving || seen->origin != by)))
            return false;
        if (kind == Begin::MASK)
            countAsUsers(); // also when it takes over another's motion
        if (kind == Begin::PRESET) {
            moved = true;
            origin = by;
        }
        if (!active) {
            begin(by);
            tracking = tracking || kind == Begin::TRACK;
        }
        drive = drive == Drive::DUE ? Drive::OVERTAKEN : drive;
        return true;
    }
    /// A scan's step has driven pan.
    void scanOn(const TourSettings& limits)
    {
        scanned = true;
        scanFrom = WHENEVER / 2; // until it has settled
        scanWay = scanCoord >= limits.to ? -1 : scanWay;
        scanWay = scanCoord <= limits.from ? 1 : scanWay;
        scanCoord += 10 * scanWay;
    }
};

/// All states that fit what was seen so far. Polls and threads act at moments that nobody sees, so there may be several
/// while something moves; at rest there is one, but for what the touring thread loads.
class MotionJudge {
public:
    using Fits = std::function<bool(const MotionState&)>;
    using Edit = std::function<void(MotionState&)>;

    /// Of a daemon that has just started.
    MotionJudge(const Evidence& evidence, const TourWorld& world) : evidence_(evidence), world_(world)
    {
        MotionState state;
        state.setting = state.scan = world_.settings.size() - 1;
        state.plan = world_.plans.size() - 1;
        state.scanCoord = world_.settings.back().from;
        states_ = {state};
    }
    /// Requests of step moves: the motion begins only after them.
    std::set<size_t> stepMoves;

    // What the event loop does.

    /// A handler begins a motion between two moments, before its first move request.
    void begin(Begin kind, int64_t fromNs, int64_t toNs)
    {
        const auto own = [kind](MotionState& state, const Notification* seen) { return state.beginOwn(kind, seen); };
        window(own, "the begin of a motion", fromNs, toNs);
    }
    /// A handler, called at calledNs, ends the motion itself, as a user's, if there is one.
    void stop(int64_t calledNs, int64_t fromNs)
    {
        const auto own = [&](MotionState& state, const Notification* seen) {
            // A tour's step that began after the halt is left alone.
            if (!seen)
                return !state.active || (state.origin == ORIGIN_TOUR && state.tourBegan >= calledNs);
            if (!state.active || seen->moving || seen->origin != ORIGIN_USER)
                return false;
            state.origin = ORIGIN_USER;
            state.drive = Drive::NONE;
            state.end(seen->labNs);
            return true;
        };
        window(own, "a stop", fromNs, WHENEVER);
    }
    /// It has found one of these origins, or none of them, between its last request and its next one.
    void keepOrigin(bool oneOf, std::initializer_list<int> origins, const std::string& why)
    {
        follow(evidence_.lastOfLoopNs());
        const int64_t until = evidence_.nextOfLoopNs(WHENEVER);
        const auto fits = [&](const MotionState& state) {
            return oneOf == (std::find(origins.begin(), origins.end(), state.origin) != origins.end());
        };
        States later = states_;
        for (size_t i = at_; std::none_of(later.begin(), later.end(), fits); ++i) {
            require(i < evidence_.notifications.size() && evidence_.notifications[i].labNs < until,
                    why + ": " + describe());
            later = afterHidden(std::move(later), evidence_.notifications[i]);
        }
        if (std::any_of(states_.begin(), states_.end(), fits))
            keep(fits, why);
    }

    // What polls and threads do.

    /// What they did before that moment.
    void follow(int64_t untilNs)
    {
        for (; at_ < evidence_.notifications.size() && evidence_.notifications[at_].labNs < untilNs; ++at_) {
            const States next = afterHidden(states_, evidence_.notifications[at_]);
            require(!next.empty(), "notifications do not fit what polls and threads do: " + describe());
            checkPremature(evidence_.notifications[at_]);
            states_ = next;
        }
    }
    /// Something that nobody sees happens; or may have happened. What the touring thread loads may come before it.
    void change(const Edit& edit, bool certainly = true)
    {
        closeOver(states_);
        const States before = certainly ? std::exchange(states_, {}) : states_;
        for (MotionState state : before) {
            edit(state);
            states_.insert(state);
        }
    }
    /// Keeps the states that fit; there must be some.
    void keep(const Fits& fitting, const std::string& why)
    {
        const std::string before = describe();
        std::erase_if(states_, [&](const MotionState& state) { return !fitting(state); });
        require(!states_.empty(), why + ": " + before);
    }
    /// True when nothing is under way in one of the states and nothing is left to explain.
    bool rests() const
    {
        return at_ == evidence_.notifications.size() &&
               std::any_of(states_.begin(), states_.end(), [](const auto& state) { return state.rests(); });
    }

    // The touring thread.

    /// What it is to load it has loaded by now.
    void keepReloaded()
    {
        closeOver(states_);
        std::erase_if(states_, [&](const MotionState& state) {
            return state.reloadsTour || state.reloadsScan || state.plan + 1 != world_.plans.size();
        });
    }
    /// It drives pan, in a step that it has begun; `fitting` are the requests of its kind of tour.
    void tourDrives(const LabJournalEntry& entry, const Fits& fitting)
    {
        follow(entry.labNs);
        keep([&](const MotionState& state) { return state.drive == Drive::DUE && fitting(state); },
             "a tour's move that is not due, or not to there: " + textOf(entry));
        change([&](MotionState& state) {
            state.drive = Drive::NONE;
            if (entry.result == 0 && world_.settings[state.setting].type == 1)
                state.scanOn(world_.settings[state.scan]);
        });
    }
    /// It has failed to look at the axes, or to stop them, perhaps on the way to a preset.
    void tourFails(int64_t ns)
    {
        follow(ns);
        for (const int64_t target : world_.targets(world_.plans.size() - 1, ns))
            change([target](MotionState& state) { state.preset = state.active ? state.preset : target; }, false);
    }
    /// Whether the tour is to move the head sooner or later if nobody else does: true, false or both.
    std::set<bool> tourMoves(int64_t ns) const
    {
        std::set<bool> result;
        for (MotionState state : states_) {
            state.moved = state.scanned = false;
            States begun;
            addTourBegins(begun, state, ns + QUIET_NS);
            result.insert(!begun.empty());
        }
        return result;
    }
    /// The states, and the notifications that are still to be explained.
    std::string describe() const
    {
        std::string text = "was";
        for (const MotionState& state : states_)
            text += std::string(state.active ? " moving" : " idle") + " with origin " + std::to_string(state.origin) +
                    (state.tracking ? " tracking" : "") + (state.moved ? " moved" : "") + " at preset " +
                    std::to_string(state.preset) + " scanning " + std::to_string(state.scanCoord);
        text += ", then came";
        for (size_t i = at_; i < evidence_.notifications.size(); ++i)
            text += (evidence_.notifications[i].moving ? " moving " : " idle ") +
                    std::to_string(evidence_.notifications[i].origin);
        return text;
    }

private:
    using States = std::set<MotionState>;
    using Own = std::function<bool(MotionState&, const Notification*)>;

    /// Adds what happens without a notification: a step that joins a motion under way, and what the touring thread
    /// loads.
    void closeOver(States& states) const
    {
        for (bool grown = true; grown;) {
            const size_t before = states.size();
            for (const MotionState& state : States(states)) {
                const auto alsoAfter = [&](bool possible, const auto& edit) {
                    MotionState next = state;
                    if (possible)
                        edit(next);
                    states.insert(next);
                };
                alsoAfter(state.begins > 0 && state.active, [](MotionState& s) { --s.begins; });
                alsoAfter(state.reloadsTour, [&](MotionState& s) { s.reload(world_, true); });
                alsoAfter(state.reloadsScan, [&](MotionState& s) { s.reload(world_, false); });
                alsoAfter(true, [&](MotionState& s) { s.plan = world_.plans.size() - 1; });
            }
            grown = states.size() > before;
        }
    }
    /// What the begin of a tour's step may lead to, if the tour may move the head at all.
    void addTourBegins(States& states, MotionState state, int64_t ns) const
    {
        const TourSettings& tour = world_.settings[state.setting];
        if (world_.held || state.active || state.calibration == 2 || state.tracking || tour.enabled == "off" ||
            (state.moved && (state.quietFrom == WHENEVER || ns < state.quietFrom + QUIET_NS)))
            return;
        state.begin(ORIGIN_TOUR);
        state.drive = Drive::DUE;
        state.tourBegan = ns;
        const bool rested = !state.scanned || state.lingers || ns >= state.scanFrom + SCAN_REST_NS;
        if (tour.type == 1 && rested && std::abs(state.scanCoord) <= 150) {
            // A second expiry for the rest that this step ends, or the first one when a reload ends it.
            const int64_t expiry = state.scanFrom + (state.scanned ? 2 : 1) * SCAN_REST_NS;
            state.lingers = state.scanned ? ns >= expiry : std::abs(ns - expiry) < LATENESS_NS;
            state.scanned = false;
            state.preset = 0;
            states.insert(state);
        }
        if (tour.type != 2)
            return;
        const int64_t last = state.preset;
        for (const int64_t target : world_.targets(state.plan, ns)) {
            state.preset = target;
            if (target != 0 && target != last)
                states.insert(state);
        }
    }
    States afterHidden(States states, const Notification& seen) const
    {
        closeOver(states);
        States result;
        for (MotionState state : states) {
            if (seen.moving && seen.origin == ORIGIN_TOUR) {
                addTourBegins(result, state, seen.labNs);
            } else if (!seen.moving && state.active && state.origin == seen.origin) {
                state.calibration = state.calibration == 2 ? 0 : state.calibration;
                state.end(seen.labNs);
                result.insert(state);
            } else if (seen.moving && seen.origin == ORIGIN_USER && !state.active && state.calibration != 2) {
                state.begin(ORIGIN_USER);
                MotionState other = state;
                if (std::exchange(other.begins, state.begins - 1) > 0)
                    result.insert(other);
                if (std::exchange(state.calibration, 2) == 1)
                    result.insert(state);
            }
        }
        closeOver(result);
        return result;
    }
    /// Explains the notifications of a stretch of time in which a handler acts at an unknown moment.
    void window(const Own& own, const std::string& name, int64_t fromNs, int64_t toNs)
    {
        follow(fromNs);
        size_t end = at_;
        while (end < evidence_.notifications.size() && evidence_.notifications[end].labNs < toNs)
            ++end;
        const auto hidden = [&](States states, size_t from, size_t to) {
            for (size_t i = from; i < to; ++i)
                states = afterHidden(std::move(states), evidence_.notifications[i]);
            return states;
        };
        const auto afterOwn = [&](const States& states, const Notification* seen) {
            States result;
            for (MotionState state : states)
                if (own(state, seen))
                    result.insert(state);
            return result;
        };
        States result;
        for (size_t i = at_; i <= end; ++i) {
            States before = hidden(states_, at_, i);
            closeOver(before);
            result.merge(hidden(afterOwn(before, nullptr), i, end));
            if (i < end)
                result.merge(hidden(afterOwn(before, &evidence_.notifications[i]), i + 1, end));
        }
        require(!result.empty(), "notifications do not fit " + name + ": " + describe());
        states_ = result;
        at_ = end;
    }
    /// No axis turns at an idle notification, unless a step's thread has not begun its motion yet.
    void checkPremature(const Notification& seen) const
    {
        const LabJournalEntry* last[LAB_AXIS_COUNT]{};
        bool drives[LAB_AXIS_COUNT]{};
        for (size_t i = 0; i < evidence_.entries.size() && evidence_.entries[i].labNs <= seen.labNs; ++i) {
            const LabJournalEntry& entry = evidence_.entries[i];
            last[entry.axis] = &entry;
            if (entry.result == 0 && (entry.request == "MOVE" || entry.request == "ROTATE"))
                drives[entry.axis] = entry.request == "MOVE" && !stepMoves.contains(i);
        }
        for (const LabAxisId axis : AXES) {
            if (seen.moving || !drives[axis] || last[axis]->rate == 0)
                continue;
            // The last step counts as made: it was begun at an unknown moment.
            const int64_t left = std::abs(int64_t{last[axis]->left}) - 1;
            require(seen.labNs >= last[axis]->labNs + left * SECOND_NS / std::abs(last[axis]->rate),
                    "an idle notification while an axis still turns");
        }
    }

    const Evidence& evidence_;
    const TourWorld& world_;
    States states_;
    size_t at_ = 0; // notifications before it are explained
};
