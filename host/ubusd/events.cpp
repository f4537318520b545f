#include "events.h"

#include <algorithm>

namespace {

// Where the listener's own numbers stand in a delivery, whose first attribute is OBJID.
constexpr size_t SEQ_AT = 2;
constexpr size_t OBJID_AT = FRAME_SIZE + ATTR_SIZE;

void leave(PatternMap& map, std::vector<PatternMap::iterator>& places, Object& object)
{
    for (const auto place : places) {
        place->second.erase(&object);
        if (place->second.empty())
            map.erase(place);
    }
    places.clear();
}

size_t commonLength(std::string_view a, std::string_view b)
{
    const size_t shorter = std::min(a.size(), b.size());
    return static_cast<size_t>(std::mismatch(a.begin(), a.begin() + static_cast<ptrdiff_t>(shorter), b.begin()).first -
                               a.begin());
}

} // namespace

void EventBook::add(Object& object, std::string_view pattern)
{
    const bool isPrefix = pattern.ends_with('*');
    if (isPrefix)
        pattern.remove_suffix(1);
    PatternMap& map = isPrefix ? prefixes_ : exact_;
    auto place = map.find(pattern);
    if (place == map.end())
        place = map.emplace(pattern, Listeners()).first;
    if (place->second.insert(&object).second)
        (isPrefix ? object.namePrefixes : object.exactNames).push_back(place);
}

void EventBook::forget(Object& object)
{
    leave(exact_, object.exactNames, object);
    leave(prefixes_, object.namePrefixes, object);
}

template <class Visit>
void EventBook::forEachMatch(std::string_view name, Visit visit)
{
    if (const auto place = exact_.find(name); place != exact_.end())
        visit(place->second);
    // Every prefix of the name sorts before it. The last entry up to `rest` either is a prefix, or shows by what it has
    // in common with the name how long the next one can be at most; entries that do not matter are jumped over.
    std::string_view rest = name;
    for (auto next = prefixes_.upper_bound(rest); next != prefixes_.begin(); next = prefixes_.upper_bound(rest)) {
        const auto& [prefix, listeners] = *std::prev(next);
        size_t longest = commonLength(prefix, rest);
        if (longest == prefix.size()) {
            visit(listeners);
            if (longest == 0)
                return;
            --longest;
        }
        rest = rest.substr(0, longest);
    }
}

void EventBook::publish(const Client* sender, std::string_view name, Bytes data)
{
    ++event_;
    MessageWriter writer(MSG_INVOKE, 0, 0);
    writer.put(ATTR_OBJID, uint32_t{0});
    writer.put(ATTR_METHOD, name);
    writer.put(ATTR_DATA, data);
    const Bytes built = writer.finish();
    if (built.empty())
        return; // the name of an object can be so long that its event passes the limit of all peers
    std::vector<uint8_t> message(built.begin(), built.end());
    forEachMatch(name, [&](const Listeners& listeners) {
        for (Object* object : listeners) {
            if (object->lastEvent == event_ || object->owner == sender)
                continue;
            object->lastEvent = event_;
            writeU16(&message[SEQ_AT], ++sequence_);
            writeU32(&message[OBJID_AT], object->id);
            object->owner->send(message);
        }
    });
}
