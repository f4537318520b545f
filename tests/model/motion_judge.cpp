#include "motion_judge.h"

#include <algorithm>
#include <utility>

namespace {

constexpr int64_t MS = 1'000'000;
constexpr int64_t QUIET_NS = 60 * SECOND_NS;
constexpr int64_t SCAN_REST_NS = 15 * SECOND_NS;
constexpr int SCAN_STRIDE = 10;
constexpr int SCAN_LIMIT = 150;

void markMoved(MotionState& state)
{
    state.moved = true;
    state.preset = 0;
}

void settleAt(MotionState& state, int64_t ns)
{
    state.active = false;
    if (state.origin != ORIGIN_TOUR || std::exchange(state.drive, Drive::NONE) != Drive::NONE)
        markMoved(state);
    state.quietFrom = state.moved ? ns : state.quietFrom;
    state.scanFrom = state.scanned ? ns : state.scanFrom;
}

/// The tour starts anew after a reload, unless the head moves.
void startAnew(MotionState& state)
{
    if (state.active)
        return;
    state.moved = state.scanned = state.tracking = false;
    state.preset = 0;
}

/// The begin step of a handler; false when it does not go with what was seen of it.
bool beginOwn(MotionState& state, Begin kind, const Notification* seen)
{
    const int origin = kind == Begin::TRACK ? ORIGIN_TRACK : kind == Begin::RETURN ? ORIGIN_RETURN : ORIGIN_USER;
    if (state.active != (seen == nullptr) || (seen && (!seen->moving || seen->origin != origin)))
        return false;
    if (kind == Begin::MASK || kind == Begin::PRESET)
        state.moved = true;
    if (!state.active || kind == Begin::PRESET)
        state.origin = origin;
    if (!state.active || kind == Begin::MASK)
        state.preset = kind == Begin::RETURN ? state.preset : 0;
    if (!state.active) {
        state.moved = state.moved || kind == Begin::USER;
        state.tracking = state.tracking || kind == Begin::TRACK;
    }
    state.drive = state.drive == Drive::DUE ? Drive::OVERTAKEN : state.drive;
    state.active = true;
    return true;
}

} // namespace

void MotionJudge::restart()
{
    MotionState state;
    state.setting = state.scan = world_.settings.size() - 1;
    state.plan = world_.plans.size() - 1;
    state.scanCoord = world_.settings.back().from;
    states_ = {state};
    at_ = 0;
    stepMoves.clear();
}

/// Adds what happens without a notification: a step that joins a motion under way, and what the touring thread loads.
void MotionJudge::closeOver(States& states) const
{
    const auto changed = [](MotionState state, const auto& edit) {
        edit(state);
        return state;
    };
    const size_t latest = world_.settings.size() - 1;
    for (bool grown = true; grown;) {
        const size_t before = states.size();
        for (const MotionState& state : States(states)) {
            if (state.begins > 0 && state.active)
                states.insert(changed(state, [](MotionState& s) { --s.begins; }));
            if (state.reloadsTour)
                states.insert(changed(state, [&](MotionState& s) {
                    s.reloadsTour = false;
                    s.setting = latest;
                    if (world_.settings[latest].enabled == "on" && world_.settings[latest].type == 1)
                        s.scanCoord = world_.settings[s.scan].from;
                    startAnew(s);
                }));
            if (state.reloadsScan)
                states.insert(changed(state, [&](MotionState& s) {
                    s.reloadsScan = false;
                    s.scan = latest;
                    s.scanCoord = world_.settings[latest].from;
                    startAnew(s);
                }));
            states.insert(changed(state, [&](MotionState& s) { s.plan = world_.plans.size() - 1; }));
        }
        grown = states.size() > before;
    }
}

/// What the begin of a tour's step may lead to, if the tour may move the head at all.
void MotionJudge::addTourBegins(States& states, MotionState state, int64_t ns) const
{
    const TourSettings& tour = world_.settings[state.setting];
    if (world_.held || state.active || state.calibration == 2 || state.tracking || tour.enabled == "off" ||
        (state.moved && (state.quietFrom == WHENEVER || ns < state.quietFrom + QUIET_NS)))
        return;
    state.active = true;
    state.origin = ORIGIN_TOUR;
    state.moved = false;
    state.drive = Drive::DUE;
    state.tourBegan = ns;
    const bool rested = !state.scanned || state.lingers || ns >= state.scanFrom + SCAN_REST_NS;
    if (tour.type == 1 && rested && std::abs(state.scanCoord) <= SCAN_LIMIT &&
        world_.inSpan(state.scan, ns).contains(true)) {
        // A second expiry for the rest that this step ends, or the first one when a reload ends it.
        const int64_t expiry = state.scanFrom + (state.scanned ? 2 : 1) * SCAN_REST_NS;
        state.lingers = state.scanned ? ns >= expiry : std::abs(ns - expiry) < LATENESS_NS;
        state.scanned = false;
        state.preset = 0;
        states.insert(state);
    }
    if (tour.type != 2)
        return;
    const int last = state.preset;
    for (const int target : world_.targets(state.plan, ns)) {
        state.preset = target;
        if (target != 0 && target != last)
            states.insert(state);
    }
}

MotionJudge::States MotionJudge::afterHidden(States states, const Notification& seen) const
{
    closeOver(states);
    States result;
    for (MotionState state : states) {
        if (seen.moving && seen.origin == ORIGIN_TOUR) {
            addTourBegins(result, state, seen.labNs);
        } else if (!seen.moving && state.active && state.origin == seen.origin) {
            // A step that has begun and then not driven must have been overtaken.
            if (state.drive == Drive::DUE && state.calibration == 0 &&
                !evidence_.loopActed(state.tourBegan - LATENESS_NS, seen.labNs))
                continue;
            state.calibration = state.calibration == 2 ? 0 : state.calibration;
            settleAt(state, seen.labNs);
            result.insert(state);
        } else if (seen.moving && seen.origin == ORIGIN_USER && !state.active && state.calibration != 2) {
            state.active = true;
            state.origin = ORIGIN_USER;
            markMoved(state);
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
void MotionJudge::window(const Own& own, bool restAllowed, const std::string& name, int64_t fromNs, int64_t toNs)
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
        // Between a begin and its move requests no poll may take the pause for the end of the motion.
        if (i == end || restAllowed)
            result.merge(hidden(afterOwn(before, nullptr), i, end));
        if (i < end && (i + 1 == end || restAllowed))
            result.merge(hidden(afterOwn(before, &evidence_.notifications[i]), i + 1, end));
    }
    for (size_t i = at_; i < end && !restAllowed; ++i)
        if (!evidence_.notifications[i].moving)
            checkPremature(evidence_.notifications[i]);
    demand(result, name);
    states_ = result;
    at_ = end;
}

void MotionJudge::begin(Begin kind, int64_t fromNs, int64_t toNs)
{
    const auto own = [kind](MotionState& state, const Notification* seen) { return beginOwn(state, kind, seen); };
    window(own, false, "the begin of a motion", fromNs, toNs);
}

void MotionJudge::stop(int64_t calledNs, int64_t fromNs)
{
    const auto own = [&](MotionState& state, const Notification* seen) {
        // A tour's step that began after the halt is left alone.
        if (!seen)
            return !state.active || (state.origin == ORIGIN_TOUR && state.tourBegan >= calledNs);
        if (!state.active || seen->moving || seen->origin != ORIGIN_USER)
            return false;
        state.origin = ORIGIN_USER;
        state.drive = Drive::NONE;
        settleAt(state, seen->labNs);
        return true;
    };
    window(own, true, "a stop", fromNs, WHENEVER);
}

void MotionJudge::follow(int64_t untilNs)
{
    for (; at_ < evidence_.notifications.size() && evidence_.notifications[at_].labNs < untilNs; ++at_) {
        const Notification& seen = evidence_.notifications[at_];
        const States next = afterHidden(states_, seen);
        demand(next, "what polls and threads do");
        if (!seen.moving)
            checkPremature(seen);
        states_ = next;
    }
}

void MotionJudge::checkPremature(const Notification& seen) const
{
    for (const LabAxisId axis : {LAB_PAN, LAB_TILT}) {
        const size_t move = evidence_.moveUnderWay(axis, seen.labNs);
        require(move == evidence_.entries.size() || stepMoves.contains(move) ||
                    evidence_.entries[move].request != "MOVE",
                "an idle notification while an axis still turns");
    }
}

void MotionJudge::change(const std::function<void(MotionState&)>& edit)
{
    States result;
    for (MotionState state : states_) {
        edit(state);
        result.insert(state);
    }
    states_ = result;
}

void MotionJudge::addBegin(bool certainly)
{
    const States before = certainly ? States{} : states_;
    change([](MotionState& state) { ++state.begins; });
    states_.insert(before.begin(), before.end());
}

void MotionJudge::forgetBegin()
{
    for (MotionState state : States(states_))
        if (state.begins-- > 0)
            states_.insert(state);
}

void MotionJudge::addCalibration()
{
    change([](MotionState& state) { state.calibration = 1; });
}

void MotionJudge::endTracking(int64_t ns)
{
    change([ns](MotionState& state) {
        if (!std::exchange(state.tracking, false))
            return;
        markMoved(state);
        state.quietFrom = ns;
        state.scanFrom = state.scanned ? ns : state.scanFrom;
    });
}

void MotionJudge::clearPreset()
{
    change([](MotionState& state) { state.preset = 0; });
}

void MotionJudge::requestReload(bool tour)
{
    change([tour](MotionState& state) { (tour ? state.reloadsTour : state.reloadsScan) = true; });
}

void MotionJudge::mayReload()
{
    closeOver(states_);
}

void MotionJudge::keepReloaded()
{
    closeOver(states_);
    std::erase_if(states_, [&](const MotionState& state) {
        return state.reloadsTour || state.reloadsScan || state.plan + 1 != world_.plans.size();
    });
}

void MotionJudge::tourDrives(int64_t ns, bool succeeds, const Fits& fitting)
{
    follow(ns);
    keep([&](const MotionState& state) { return state.drive == Drive::DUE && fitting(state); },
         "a tour's move that is not due, or not to there");
    change([&](MotionState& state) {
        state.drive = Drive::NONE;
        const TourSettings& limits = world_.settings[state.scan];
        if (!succeeds || world_.settings[state.setting].type != 1)
            return;
        state.scanned = true;
        state.scanFrom = WHENEVER / 2; // until it has settled
        state.scanWay = state.scanCoord >= limits.to ? -1 : state.scanWay;
        state.scanWay = state.scanCoord <= limits.from ? 1 : state.scanWay;
        state.scanCoord += SCAN_STRIDE * state.scanWay;
    });
}

void MotionJudge::tourFails(int64_t ns)
{
    follow(ns);
    closeOver(states_);
    for (MotionState state : States(states_)) {
        if (state.active || world_.settings[state.setting].type != 2)
            continue;
        states_.erase(state);
        for (const int target : world_.targets(state.plan, ns)) {
            state.preset = target;
            states_.insert(state);
        }
    }
}

void MotionJudge::keep(const Fits& fitting, const std::string& why)
{
    const std::string before = describe();
    std::erase_if(states_, [&](const MotionState& state) { return !fitting(state); });
    require(!states_.empty(), why + ": was " + before);
}

void MotionJudge::keepOrigin(const std::function<bool(int)>& fitting, const std::string& why)
{
    follow(evidence_.lastOfLoopNs());
    const size_t next = evidence_.nextOfLoop();
    const int64_t until = next < evidence_.entries.size() ? evidence_.entries[next].labNs : WHENEVER;
    const auto fits = [&](const MotionState& state) { return fitting(state.origin); };
    States later = states_;
    for (size_t i = at_; std::none_of(later.begin(), later.end(), fits); ++i) {
        require(i < evidence_.notifications.size() && evidence_.notifications[i].labNs < until,
                why + ": was " + describe());
        later = afterHidden(std::move(later), evidence_.notifications[i]);
    }
    if (std::any_of(states_.begin(), states_.end(), fits))
        keep(fits, why);
}

bool MotionJudge::mayBe(int origin) const
{
    return std::any_of(states_.begin(), states_.end(),
                       [origin](const MotionState& state) { return state.origin == origin; });
}

namespace {

bool resting(const MotionState& state)
{
    return !state.active && state.begins == 0 && state.calibration == 0;
}

} // namespace

bool MotionJudge::rests() const
{
    return at_ == evidence_.notifications.size() && std::any_of(states_.begin(), states_.end(), resting);
}

int64_t MotionJudge::ends() const
{
    const auto from = evidence_.notifications.begin();
    return std::count_if(from, from + static_cast<ptrdiff_t>(at_),
                         [](const Notification& seen) { return !seen.moving; });
}

void MotionJudge::keepResting()
{
    std::erase_if(states_, [](const MotionState& state) { return !resting(state); });
}

std::set<bool> MotionJudge::tourMoves(int64_t ns) const
{
    States states = states_;
    closeOver(states);
    std::set<bool> result;
    for (MotionState state : states) {
        if (state.reloadsTour || state.reloadsScan || state.plan + 1 != world_.plans.size())
            continue;
        // At each of these moments a step may begin, or at none.
        for (const int64_t after : {0, 60, 120}) {
            MotionState later = state;
            later.moved = later.scanned = false;
            States begun;
            addTourBegins(begun, later, ns + after * SECOND_NS);
            result.insert(!begun.empty());
            const std::set<int> targets = world_.targets(state.plan, ns + after * SECOND_NS);
            const std::set<bool> spans = world_.inSpan(state.scan, ns + after * SECOND_NS);
            if (!begun.empty() && (targets.size() > 1 || spans.size() > 1))
                result.insert(false);
        }
    }
    return result;
}

std::string MotionJudge::describe() const
{
    std::string text;
    for (const MotionState& state : states_) {
        const TourSettings& tour = world_.settings[state.setting];
        text += std::string(text.empty() ? "" : " or ") + (state.active ? "moving" : "idle") + " with origin " +
                std::to_string(state.origin) + (state.tracking ? " tracking" : "") + (state.moved ? " moved" : "");
        if (tour.enabled != "off")
            text += " (tour " + std::to_string(tour.type) + (tour.type == 1 ? ", next " : ", at ") +
                    std::to_string(tour.type == 1 ? state.scanCoord : state.preset) + ", began at " +
                    std::to_string(state.tourBegan / MS) + ", rested at " + std::to_string(state.scanFrom / MS) + ")";
    }
    return text;
}

void MotionJudge::demand(const States& states, const std::string& why) const
{
    if (!states.empty())
        return;
    std::string seen;
    for (size_t i = at_; i < evidence_.notifications.size(); ++i)
        seen += std::string(evidence_.notifications[i].moving ? " moving " : " idle ") +
                std::to_string(evidence_.notifications[i].origin) + " at " +
                std::to_string(evidence_.notifications[i].labNs / MS);
    throw Mismatch{"notifications do not fit " + why + ": was " + describe() + ", then came" +
                   (seen.empty() ? " none" : seen)};
}
