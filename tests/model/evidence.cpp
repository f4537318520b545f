#include "evidence.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

void require(bool condition, const std::string& text)
{
    if (!condition)
        throw Mismatch{text};
}

std::string textOf(const LabJournalEntry& entry)
{
    std::string text = entry.axis == LAB_PAN ? "x " : "y ";
    text += entry.request;
    for (const int32_t word : entry.in)
        text += " " + std::to_string(word);
    return text + (entry.result == 0 ? "" : " (failed)") + " at " + std::to_string(entry.count);
}

void Evidence::load(const Lab& lab)
{
    log = lab.cetLog(); // first: what led to a notification is then in the journal
    entries = lab.journal();
    notifications.clear();
    for (const LabCetEntry& entry : log)
        if (!entry.isEvent)
            notifications.push_back({entry.realNs, entry.labNs, entry.name == "notify_motor_moving",
                                     static_cast<int>(strtol(entry.text.c_str(), nullptr, 10))});
}

size_t Evidence::nextOfLoop() const
{
    size_t i = at;
    while (i < entries.size() && entries[i].thread != entries[i].pid)
        ++i;
    return i;
}

int64_t Evidence::lastOfLoopRealNs() const
{
    for (size_t i = at; i-- > 0;)
        if (entries[i].thread == entries[i].pid)
            return entries[i].realNs;
    return 0;
}

int64_t Evidence::lastOfLoopLabNs() const
{
    for (size_t i = at; i-- > 0;)
        if (entries[i].thread == entries[i].pid)
            return entries[i].labNs;
    return 0;
}

size_t Evidence::moveUnderWay(LabAxisId axis, int64_t labNs) const
{
    size_t last = entries.size();
    for (size_t i = 0; i < entries.size() && entries[i].labNs <= labNs; ++i)
        if (entries[i].axis == axis)
            last = i;
    if (last == entries.size() || entries[last].rate == 0)
        return entries.size();
    // The last step counts as made: it was begun at an unknown moment.
    const LabJournalEntry& entry = entries[last];
    const int64_t steps = std::abs(int64_t{entry.left}) - 1;
    if (labNs >= entry.labNs + steps * 1'000'000'000 / std::abs(entry.rate))
        return entries.size();
    const auto started = [&](const LabJournalEntry& other) {
        return other.axis == axis && other.result == 0 && (other.request == "MOVE" || other.request == "ROTATE");
    };
    while (last > 0 && !started(entries[last]))
        --last;
    return last;
}

std::string Evidence::wrongEvents(bool all) const
{
    std::vector<size_t> calls;
    size_t answered = 0;
    for (size_t i = 0; i < log.size(); ++i) {
        if (!log[i].isEvent) {
            if (log[i].text != "1")
                calls.push_back(i);
            continue;
        }
        if (answered >= calls.size())
            return "an event \"" + log[i].text + "\" without its notification";
        const bool starts = log[calls[answered++]].name == "notify_motor_moving";
        if (log[i].text != (starts ? "start" : "stop"))
            return "an event \"" + log[i].text + "\" where the other one was due";
    }
    return all && answered < calls.size() ? "a notification without its event" : "";
}

void MotionJudge::restart()
{
    states_ = {MotionState{}};
    at_ = 0;
    stepMoves.clear();
}

/// Adds what happens without a notification: a step that joins a motion under way.
void MotionJudge::closeOver(States& states) const
{
    for (bool grown = true; grown;) {
        grown = false;
        for (const MotionState& state : States(states)) {
            MotionState joined = state;
            --joined.begins;
            if (state.begins > 0 && state.active)
                grown = states.insert(joined).second || grown;
        }
    }
}

MotionJudge::States MotionJudge::afterHidden(States states, const Notification& seen) const
{
    closeOver(states);
    States result;
    for (MotionState state : states) {
        const bool calibrates = state.calibration == 2;
        if (!seen.moving && state.active && state.origin == seen.origin) {
            state.active = false;
            state.calibration = calibrates ? 0 : state.calibration;
            result.insert(state);
        } else if (seen.moving && seen.origin == 0 && !state.active && !calibrates) {
            state.active = true;
            state.origin = 0;
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

MotionJudge::States MotionJudge::afterOwn(const States& states, Act act, int origin, const Notification* seen) const
{
    States result;
    for (MotionState state : states) {
        const bool changes = state.active != (act == Act::BEGIN);
        const bool shown = seen && seen->moving == (act == Act::BEGIN) && seen->origin == origin;
        if (changes != (seen != nullptr) || (changes && !shown))
            continue;
        if (changes) {
            state.active = act == Act::BEGIN;
            state.origin = origin;
        }
        result.insert(state);
    }
    return result;
}

/// Explains the notifications of a stretch of time in which a handler acts at an unknown moment.
void MotionJudge::window(Act act, int origin, int64_t fromRealNs, int64_t toRealNs)
{
    follow(fromRealNs);
    size_t end = at_;
    while (end < evidence_.notifications.size() && evidence_.notifications[end].realNs < toRealNs)
        ++end;
    const auto hidden = [&](States states, size_t from, size_t to) {
        for (size_t i = from; i < to; ++i)
            states = afterHidden(std::move(states), evidence_.notifications[i]);
        return states;
    };
    States result;
    for (size_t own = at_; own <= end; ++own) {
        States before = hidden(states_, at_, own);
        closeOver(before);
        // Between a begin and its move requests no poll may take the pause for the end of the motion.
        const bool restAllowed = act == Act::STOP;
        if (own == end || restAllowed)
            result.merge(hidden(afterOwn(before, act, origin, nullptr), own, end));
        if (own < end && (own + 1 == end || restAllowed))
            result.merge(hidden(afterOwn(before, act, origin, &evidence_.notifications[own]), own + 1, end));
    }
    for (size_t i = at_; i < end && act == Act::BEGIN; ++i)
        if (!evidence_.notifications[i].moving)
            checkPremature(evidence_.notifications[i]);
    demand(result, act == Act::BEGIN ? "the begin of a motion of origin " + std::to_string(origin) : "a stop");
    states_ = result;
    at_ = end;
}

void MotionJudge::begin(int origin, int64_t fromRealNs, int64_t toRealNs)
{
    window(Act::BEGIN, origin, fromRealNs, toRealNs);
}

void MotionJudge::stop(int64_t fromRealNs)
{
    window(Act::STOP, 0, fromRealNs, WHENEVER);
}

void MotionJudge::follow(int64_t untilRealNs)
{
    for (; at_ < evidence_.notifications.size() && evidence_.notifications[at_].realNs < untilRealNs; ++at_) {
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

void MotionJudge::addBegin(bool certainly)
{
    States result = certainly ? States{} : states_;
    for (MotionState state : states_) {
        ++state.begins;
        result.insert(state);
    }
    states_ = result;
}

void MotionJudge::forgetBegin()
{
    for (MotionState state : States(states_))
        if (state.begins-- > 0)
            states_.insert(state);
}

void MotionJudge::addCalibration()
{
    States result;
    for (MotionState state : states_) {
        state.calibration = 1;
        result.insert(state);
    }
    states_ = result;
}

void MotionJudge::keepOrigin(int origin, bool equal, const std::string& why)
{
    follow(evidence_.lastOfLoopRealNs());
    std::erase_if(states_, [&](const MotionState& state) { return (state.origin == origin) != equal; });
    require(!states_.empty(), why);
}

void MotionJudge::keepCalibrated(const std::string& why)
{
    std::erase_if(states_, [](const MotionState& state) { return state.calibration != 0; });
    require(!states_.empty(), why);
}

bool MotionJudge::mayBe(int origin) const
{
    return std::any_of(states_.begin(), states_.end(),
                       [origin](const MotionState& state) { return state.origin == origin; });
}

bool MotionJudge::rests() const
{
    return at_ == evidence_.notifications.size() &&
           std::any_of(states_.begin(), states_.end(), [](const MotionState& state) {
               return !state.active && state.begins == 0 && state.calibration == 0;
           });
}

void MotionJudge::keepResting()
{
    std::erase_if(states_,
                  [](const MotionState& state) { return state.active || state.begins != 0 || state.calibration != 0; });
}

std::string MotionJudge::describe() const
{
    std::string text;
    for (const MotionState& state : states_)
        text += std::string(text.empty() ? "" : " or ") + (state.active ? "moving" : "idle") + " with origin " +
                std::to_string(state.origin);
    return text;
}

void MotionJudge::demand(const States& states, const std::string& why) const
{
    if (!states.empty())
        return;
    std::string seen;
    for (size_t i = at_; i < evidence_.notifications.size(); ++i)
        seen += std::string(evidence_.notifications[i].moving ? " moving " : " idle ") +
                std::to_string(evidence_.notifications[i].origin);
    throw Mismatch{"notifications do not fit " + why + ": was " + describe() + ", then came" +
                   (seen.empty() ? " none" : seen)};
}
