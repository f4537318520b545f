#include "lookup.h"

#include "reply.h"

namespace {

// False when there is no room.
bool sendObject(Client& client, const PendingLookup& lookup, const Object& object)
{
    if (!object.type)
        return true; // exists, but shows nothing
    MessageWriter writer(MSG_DATA, lookup.seq, lookup.peer);
    writer.put(ATTR_OBJPATH, *object.name);
    writer.put(ATTR_OBJID, object.id);
    writer.put(ATTR_OBJTYPE, object.type->id);
    writer.put(ATTR_SIGNATURE, object.type->signature);
    const Bytes message = writer.finish();
    if (!client.hasRoom(message.size()))
        return false;
    client.send(message);
    return true;
}

// False when there is no room for the next one. Objects may come and go before it goes on: only the name is kept.
bool sendMatches(Client& client, PendingLookup& lookup, const Registry::NameMap& names)
{
    auto next = lookup.exact ? names.find(lookup.from) : names.lower_bound(lookup.from);
    while (next != names.end() && next->first.starts_with(lookup.prefix)) {
        if (!sendObject(client, lookup, *next->second)) {
            lookup.from = next->first;
            return false;
        }
        lookup.found = true;
        next = lookup.exact ? names.end() : std::next(next);
    }
    return true;
}

} // namespace

void beginLookup(Client& client, const Message& message)
{
    if (message.path && message.path->empty()) {
        sendStatus(client, message.seq, message.peer, Status::InvalidArgument);
        return;
    }
    std::string_view prefix = message.path.value_or("*");
    const bool exact = !prefix.ends_with('*');
    if (!exact)
        prefix.remove_suffix(1);
    client.lookup.reset(new PendingLookup{.seq = message.seq,
                                          .peer = message.peer,
                                          .exact = exact,
                                          .prefix = std::string(prefix),
                                          .from = std::string(prefix),
                                          .found = !message.path, // whoever asks for all may find none
                                          .listed = false});
}

bool answerLookup(Client& client, const Registry& registry)
{
    if (!client.lookup)
        return true;
    if (!client.muted()) {
        PendingLookup& lookup = *client.lookup;
        if (!lookup.listed && !sendMatches(client, lookup, registry.names()))
            return false;
        lookup.listed = true;
        if (!client.hasRoom(STATUS_MESSAGE_SIZE))
            return false;
        sendStatus(client, lookup.seq, lookup.peer, lookup.found ? Status::Ok : Status::NotFound);
    }
    client.lookup.reset();
    return true;
}
