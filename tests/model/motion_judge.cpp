#include "motion_judge.h"

#include <algorithm>
#include <utility>

namespace {

constexpr int64_t MS = 1'000'000;
constexpr int64_t QUIET_NS = 60 * SECOND_NS;
constexpr int64_t SCAN_REST_NS = 15 * SECOND_NS;
constexpr int SCAN_STRIDE = 10;
constexpr int SCAN_LIMIT = 150;

/// The begin step of a handler; false when it does not go with what was seen of it.
bool beginOwn(MotionState& state, Begin kind, const Notification* seen)
{
    const Origin origin = kind == Begin::TRACK ? ORIGIN_TRACK : kind == Begin::RETURN ? ORIGIN_RETURN : ORIGIN_USER;
    if (state.active != (seen == nullptr) || (seen && (!seen->moving || seen->origin != origin)))
        return false;
    if (kind == Begin::MASK)
        state.countAsUsers(); // also when it takes over another's motion
    if (kind == Begin::PRESET) {
        state.moved = true;
        state.origin = origin;
    }
    if (!state.active) {
        state.begin(origin);
        state.tracking = state.tracking || kind == Begin::TRACK;
    }
    state.drive = state.drive == Drive::DUE ? Drive::OVERTAKEN : state.drive;
    return true;
}

} // namespace

void MotionState::begin(Origin by)
{
    active = true;
    origin = by;
    moved = by == ORIGIN_USER || (by != ORIGIN_TOUR && moved);
    preset = by == ORIGIN_USER || by == ORIGIN_TRACK ? 0 : preset;
}

void MotionState::end(int64_t ns)
{
    active = false;
    if (origin != ORIGIN_TOUR || std::exchange(drive, Drive::NONE) != Drive::NONE)
        countAsUsers();
    startQuiet(ns);
}

void MotionState::countAsUsers()
{
    moved = true;
    preset = 0;
}

void MotionState::startQuiet(int64_t ns)
{
    quietFrom = moved ? ns : quietFrom;
    scanFrom = scanned ? ns : scanFrom;
}

void MotionState::endTracking(int64_t ns)
{
    if (!std::exchange(tracking, false))
        return;
    countAsUsers();
    startQuiet(ns);
}

/// What the touring thread does with a reload: the tour starts anew, unless the head moves.
void MotionState::reload(const TourWorld& world, bool tour)
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
    for (bool grown = true; grown;) {
        const size_t before = states.size();
        for (const MotionState& state : States(states)) {
            const auto alsoAfter = [&](bool possible, const auto& edit) {
                MotionState next = state;
                edit(next);
                if (possible)
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

bool MotionJudge::hasReloaded(const MotionState& state) const
{
    return !state.reloadsTour && !state.reloadsScan && state.plan + 1 == world_.plans.size();
}

/// What the begin of a tour's step may lead to, if the tour may move the head at all.
void MotionJudge::addTourBegins(States& states, MotionState state, int64_t ns) const
{
    const TourSettings& tour = world_.settings[state.setting];
    if (world_.held || state.active || state.calibration == 2 || state.tracking || tour.enabled == "off" ||
        (state.moved && (state.quietFrom == WHENEVER || ns < state.quietFrom + QUIET_NS)))
        return;
    state.begin(ORIGIN_TOUR);
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
        state.end(seen->labNs);
        return true;
    };
    window(own, true, "a stop", fromNs, WHENEVER);
}

void MotionJudge::follow(int64_t untilNs)
{
    for (; at_ < evidence_.notifications.size() && evidence_.notifications[at_].labNs < untilNs; ++at_) {
        const States next = afterHidden(states_, evidence_.notifications[at_]);
        demand(next, "what polls and threads do");
        checkPremature(evidence_.notifications[at_]);
        states_ = next;
    }
}

void MotionJudge::checkPremature(const Notification& seen) const
{
    for (const LabAxisId axis : {LAB_PAN, LAB_TILT}) {
        const size_t move = evidence_.moveUnderWay(axis, seen.labNs);
        require(seen.moving || move == evidence_.entries.size() || stepMoves.contains(move) ||
                    evidence_.entries[move].request != "MOVE",
                "an idle notification while an axis still turns");
    }
}

void MotionJudge::change(const Edit& edit)
{
    const States before = std::exchange(states_, {});
    for (MotionState state : before) {
        edit(state);
        states_.insert(state);
    }
}

void MotionJudge::mayChange(const Edit& edit)
{
    const States before = states_;
    change(edit);
    states_.insert(before.begin(), before.end());
}

void MotionJudge::mayReload()
{
    closeOver(states_);
}

void MotionJudge::keepReloaded()
{
    closeOver(states_);
    std::erase_if(states_, [&](const MotionState& state) { return !hasReloaded(state); });
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

void MotionJudge::keepOrigin(bool oneOf, std::initializer_list<int> origins, const std::string& why)
{
    follow(evidence_.lastOfLoopNs());
    const int64_t until = evidence_.loopIsDone() ? WHENEVER : evidence_.entries[evidence_.nextOfLoop()].labNs;
    const auto fits = [&](const MotionState& state) {
        return oneOf == (std::find(origins.begin(), origins.end(), state.origin) != origins.end());
    };
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
    return std::any_of(states_.begin(), states_.end(), [origin](const auto& state) { return state.origin == origin; });
}

bool MotionJudge::rests() const
{
    return at_ == evidence_.notifications.size() &&
           std::any_of(states_.begin(), states_.end(), [](const auto& state) { return state.rests(); });
}

void MotionJudge::keepResting()
{
    std::erase_if(states_, [](const MotionState& state) { return !state.rests(); });
}

int64_t MotionJudge::ends() const
{
    const auto from = evidence_.notifications.begin();
    return std::count_if(from, from + static_cast<ptrdiff_t>(at_), [](const auto& seen) { return !seen.moving; });
}

std::set<bool> MotionJudge::tourMoves(int64_t ns) const
{
    States states = states_;
    closeOver(states);
    std::erase_if(states, [&](const MotionState& state) { return !hasReloaded(state); });
    std::set<bool> result;
    for (MotionState state : states) {
        state.moved = state.scanned = false;
        // At each of these moments a step may begin, or at none.
        for (const int64_t moment : {ns, ns + 60 * SECOND_NS, ns + 120 * SECOND_NS}) {
            States begun;
            addTourBegins(begun, state, moment);
            result.insert(!begun.empty());
            if (world_.targets(state.plan, moment).size() > 1 || world_.inSpan(state.scan, moment).size() > 1)
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
