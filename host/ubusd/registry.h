#pragma once
// What is on the bus: objects by id and by name, and the types (signatures) that they share.

#include "client.h"

#include <map>
#include <set>
#include <unordered_map>

/// What the objects of one type offer: a run of named tables, one for each method.
struct ObjectType {
    uint32_t id;
    uint32_t users; // objects of this type
    std::vector<uint8_t> signature;
};

struct Object {
    uint32_t id;
    Client* owner;
    std::list<Object*>::iterator place; // in the owner's list
    const std::string* name = nullptr;  // null: anonymous
    ObjectType* type = nullptr;         // null: callable, but hidden from lookups
    std::set<std::string> patterns;     // of the events that it listens to
    std::set<Object*> subscribers;      // to its notifications, objects of other clients
    std::set<Object*> targets;          // whose subscriber it is
    uint16_t notices = 0;               // to its owner, about subscriptions; wraps
};

/// Whether `signature` is, to its end, a run of tables with names.
bool isSignature(Bytes signature);

/// A random number that is no key of `taken`, at least FIRST_OWN_ID, and never the number that clients take for a
/// broken greeting.
template <class Map>
uint32_t freshId(const Map& taken);

class Registry {
public:
    using NameMap = std::map<std::string, Object*, std::less<>>;

    /// Adds an object of `owner`. A known `typeId` gives it that type, else a good `signature` a new one, else it has
    /// none. Null when the name is taken.
    Object* add(Client& owner, std::optional<std::string_view> name, std::optional<uint32_t> typeId,
                std::optional<Bytes> signature);

    /// Removes the object from all of the registry's tables; nobody may use it any more. True when its type goes too.
    bool remove(Object& object);

    Object* find(uint32_t id);

    const std::unordered_map<uint32_t, Object>& objects() const
    {
        return objects_;
    }

    /// Named objects in byte order of their names.
    const NameMap& names() const
    {
        return names_;
    }

private:
    ObjectType* chooseType(std::optional<uint32_t> typeId, std::optional<Bytes> signature);

    std::unordered_map<uint32_t, Object> objects_;
    std::unordered_map<uint32_t, ObjectType> types_;
    NameMap names_;
};

/// 32 bits from the kernel's random number generator; ends the process in the unheard-of case that there is none.
uint32_t randomNumber();

template <class Map>
uint32_t freshId(const Map& taken)
{
    constexpr uint32_t LOOKS_BROKEN = 0x01000000; // reads as 1 on a little-endian machine that does not swap it
    for (;;) {
        const uint32_t id = randomNumber();
        if (id >= FIRST_OWN_ID && id != LOOKS_BROKEN && !taken.contains(id))
            return id;
    }
}
