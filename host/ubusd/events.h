#pragma once
// Who listens to which events, and their delivery.

#include "registry.h"

class EventBook {
public:
    /// Has `object` receive the events named `pattern`, or, if it ends in '*', all whose name begins with what is
    /// before it. A second time changes nothing.
    void add(Object& object, std::string_view pattern);

    /// Ends all that `object` listens to.
    void forget(Object& object);

    /// Delivers an event to every object that listens to it, once to each, and to none of the sender's own.
    ///
    /// @param sender  null when the event is the daemon's own
    /// @param data    fields, as they shall arrive
    void publish(const Client* sender, std::string_view name, Bytes data);

private:
    template <class Visit>
    void forEachMatch(std::string_view name, Visit visit);

    PatternMap exact_;
    PatternMap prefixes_;
    uint64_t event_ = 0;    // number of the event being delivered
    uint16_t sequence_ = 0; // counts deliveries, and wraps
};
