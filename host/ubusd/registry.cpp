#include "registry.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <sys/random.h>

bool isSignature(Bytes signature)
{
    Field method;
    while (!signature.empty()) {
        if (!takeField(signature, method) || method.type != FIELD_TABLE || method.name.empty())
            return false;
    }
    return true;
}

uint32_t randomNumber()
{
    uint32_t number = 0;
    while (getrandom(&number, sizeof number, 0) != sizeof number) {
        if (errno == EINTR)
            continue;
        perror("getrandom");
        std::exit(EXIT_FAILURE);
    }
    return number;
}

Object* Registry::add(Client& owner, std::optional<std::string_view> name, std::optional<uint32_t> typeId,
                      std::optional<Bytes> signature)
{
    if (name && names_.contains(*name))
        return nullptr;
    const uint32_t id = freshId(objects_);
    Object& object = objects_[id];
    object.id = id;
    object.owner = &owner;
    object.place = owner.objects.insert(owner.objects.end(), &object);
    object.type = chooseType(typeId, signature);
    if (name)
        object.name = &names_.emplace(*name, &object).first->first;
    return &object;
}

ObjectType* Registry::chooseType(std::optional<uint32_t> typeId, std::optional<Bytes> signature)
{
    ObjectType* type = nullptr;
    if (const auto known = typeId ? types_.find(*typeId) : types_.end(); known != types_.end()) {
        type = &known->second;
    } else if (signature && isSignature(*signature)) {
        const uint32_t id = freshId(types_);
        type = &types_[id];
        *type = {.id = id, .users = 0, .signature = {signature->begin(), signature->end()}};
    } else {
        return nullptr;
    }
    ++type->users;
    return type;
}

bool Registry::remove(Object& object)
{
    if (object.name)
        names_.erase(names_.find(*object.name));
    object.owner->objects.erase(object.place);
    const bool lastUser = object.type && --object.type->users == 0;
    if (lastUser)
        types_.erase(object.type->id);
    objects_.erase(object.id);
    return lastUser;
}

Object* Registry::find(uint32_t id)
{
    const auto found = objects_.find(id);
    return found == objects_.end() ? nullptr : &found->second;
}
