#include "dispatch.h"

#include <algorithm>

namespace {

// Appends the caller's names where they fit; a call as long as a message may be goes without them.
void putCaller(MessageWriter& writer, const Client& caller, size_t rest)
{
    if (rest + 2 * ATTR_SIZE + padded(caller.user.size() + 1) + padded(caller.group.size() + 1) > MAX_ROOT)
        return;
    writer.put(ATTR_USER, caller.user);
    writer.put(ATTR_GROUP, caller.group);
}

// A call to its owner, or a notification to a subscriber.
void forwardCall(const Client& caller, const Object& object, const Message& call)
{
    MessageWriter writer(MSG_INVOKE, call.seq, caller.id());
    if (call.type == MSG_NOTIFY && call.noReply) // calls are always answered
        writer.put(ATTR_NO_REPLY, uint8_t{1});
    writer.put(ATTR_OBJID, object.id);
    writer.put(ATTR_METHOD, *call.method);
    putCaller(writer, caller, padded(call.raw.size()));
    if (call.data)
        writer.put(ATTR_DATA, *call.data);
    object.owner->send(writer.finish());
}

// Notifies an object's owner of a change of its subscriptions.
template <typename Value>
void sendNotice(Object& object, MessageType type, AttrId what, Value value)
{
    MessageWriter writer(type, ++object.notices, 0);
    writer.put(ATTR_OBJID, object.id);
    writer.put(what, value);
    object.owner->send(writer.finish());
}

// False when there was no such subscription.
bool endSubscription(Object& subscriber, Object& target)
{
    if (subscriber.targets.erase(&target) == 0)
        return false;
    target.subscribers.erase(&subscriber);
    if (target.subscribers.empty())
        sendNotice(target, MSG_NOTIFY, ATTR_ACTIVE, uint8_t{0});
    return true;
}

// Of an object that goes: those of its own, and those to it.
void endSubscriptions(Object& object)
{
    while (!object.targets.empty())
        endSubscription(object, **object.targets.begin());
    for (Object* subscriber : object.subscribers) {
        subscriber->targets.erase(&object);
        sendNotice(*subscriber, MSG_UNSUBSCRIBE, ATTR_TARGET, object.id);
    }
}

// The daemon's own answer to a request, whose sequence number and peer it repeats.
MessageWriter statusMessage(const Message& request, Status status)
{
    MessageWriter writer(MSG_STATUS, request.seq, request.peer);
    writer.put(ATTR_STATUS, static_cast<uint32_t>(status));
    return writer;
}

bool matches(std::string_view pattern, std::string_view name)
{
    if (!pattern.ends_with('*'))
        return pattern == name;
    pattern.remove_suffix(1);
    return name.starts_with(pattern);
}

void serveClient(uloop_fd* sock, unsigned events)
{
    Client& client = *static_cast<Client*>(sock);
    client.bus.serve(client, (events & ULOOP_READ) != 0, sock->error);
}

} // namespace

void Bus::connect(int fd)
{
    const uint32_t id = freshId(clients_);
    Client& client = clients_.try_emplace(id, *this, fd, id, serveClient).first->second;
    if (client.watch())
        client.send(MessageWriter(MSG_HELLO, 0, id).finish());
    else
        clients_.erase(id);
}

void Bus::serve(Client& client, bool readable, bool hungUp)
{
    if (hungUp)
        client.mute();
    client.flush();
    bool good = work(client);
    if (good && readable && client.wantsInput()) {
        client.receive();
        good = work(client);
    }
    if (good && !client.finished())
        (void)client.watch(); // which cannot fail for a socket that is watched
    else
        disconnect(client);
}

void Bus::answerLookup(Client& client, const Message& message)
{
    std::string_view prefix = message.path.value_or("*");
    const bool exact = !prefix.ends_with('*');
    if (!exact)
        prefix.remove_suffix(1);
    const auto& names = registry_.names();
    auto next = exact ? names.find(prefix) : names.lower_bound(prefix);
    if (message.path == "")
        next = names.end();
    bool found = !message.path; // whoever asks for all may find none
    for (; next != names.end() && next->first.starts_with(prefix); next = exact ? names.end() : std::next(next)) {
        const auto& [name, object] = *next;
        found = true;
        if (!object->type)
            continue; // exists, but shows nothing
        MessageWriter writer(MSG_DATA, message.seq, message.peer);
        writer.put(ATTR_OBJPATH, name);
        writer.put(ATTR_OBJID, object->id);
        writer.put(ATTR_OBJTYPE, object->type->id);
        writer.put(ATTR_SIGNATURE, object->type->signature);
        client.sendInAnyCase(writer.finish());
    }
    const Status status = message.path == "" ? Status::InvalidArgument : found ? Status::Ok : Status::NotFound;
    client.sendInAnyCase(statusMessage(message, status).finish());
}

void Bus::disconnect(Client& client)
{
    client.mute();
    while (!client.objects.empty())
        dropObject(*client.objects.back());
    clients_.erase(client.id());
}

Client* Bus::find(uint32_t id)
{
    const auto found = clients_.find(id);
    return found == clients_.end() ? nullptr : &found->second;
}

bool Bus::work(Client& client)
{
    while (!client.isFull()) {
        Bytes raw;
        const auto next = client.input.next(raw);
        if (next == InputBuffer::Next::Broken)
            return false;
        if (next == InputBuffer::Next::Incomplete)
            break;
        handle(client, readMessage(raw));
    }
    client.input.release();
    return true;
}

void Bus::handle(Client& client, const Message& message)
{
    std::optional<Status> status = Status::Ok;
    switch (message.type) {
    case MSG_STATUS:
    case MSG_DATA:
        forwardAnswer(client, message);
        return;
    case MSG_LOOKUP:
        answerLookup(client, message);
        return;
    case MSG_PING: {
        std::vector<uint8_t> echo(message.raw.begin(), message.raw.end());
        echo[1] = MSG_DATA;
        client.send(echo);
        break;
    }
    case MSG_INVOKE:
        status = invoke(client, message);
        break;
    case MSG_ADD_OBJECT:
        status = addObject(client, message);
        break;
    case MSG_REMOVE_OBJECT:
        status = removeObject(client, message);
        break;
    case MSG_SUBSCRIBE:
        status = subscribe(client, message);
        break;
    case MSG_UNSUBSCRIBE:
        status = unsubscribe(client, message);
        break;
    case MSG_NOTIFY:
        status = notify(client, message);
        break;
    default:
        status = Status::InvalidCommand;
        break;
    }
    if (status)
        client.send(statusMessage(message, *status).finish());
}

Status Bus::addObject(Client& client, const Message& message)
{
    const Object* object = registry_.add(client, message.path, message.typeId, message.signature);
    if (!object)
        return Status::InvalidArgument;
    if (object->name)
        announce("ubus.object.add", object->id, *object->name);
    MessageWriter answer(MSG_DATA, message.seq, message.peer);
    answer.put(ATTR_OBJID, object->id);
    if (message.signature && object->type)
        answer.put(ATTR_OBJTYPE, object->type->id);
    client.send(answer.finish());
    return Status::Ok;
}

Status Bus::removeObject(Client& client, const Message& message)
{
    if (!message.objectId)
        return Status::InvalidArgument;
    if (*message.objectId == EVENT_OBJECT)
        return Status::PermissionDenied;
    Object* object = registry_.find(*message.objectId);
    if (!object)
        return Status::NotFound;
    if (object->owner != &client)
        return Status::PermissionDenied;
    MessageWriter answer(MSG_DATA, message.seq, message.peer);
    answer.put(ATTR_OBJID, object->id);
    const uint32_t typeId = object->type ? object->type->id : 0;
    if (dropObject(*object))
        answer.put(ATTR_OBJTYPE, typeId);
    client.send(answer.finish());
    return Status::Ok;
}

// Nothing to answer when the call was forwarded: its owner does.
std::optional<Status> Bus::invoke(Client& client, const Message& message)
{
    if (!message.objectId || !message.method)
        return Status::InvalidArgument;
    if (*message.objectId == EVENT_OBJECT)
        return callEvents(client, message);
    Object* object = registry_.find(*message.objectId);
    if (!object)
        return Status::NotFound;
    forwardCall(client, *object, message);
    return std::nullopt;
}

Status Bus::callEvents(Client& client, const Message& message)
{
    if (*message.method == "register")
        return registerPattern(client, message.data.value_or(Bytes()));
    if (*message.method == "send")
        return sendEvent(client, message.data.value_or(Bytes()));
    return Status::InvalidCommand;
}

Status Bus::registerPattern(Client& client, Bytes data)
{
    std::optional<uint32_t> id;
    std::optional<std::string_view> pattern;
    for (Field field; takeField(data, field);) {
        if (!id && field.type == FIELD_INT32 && field.name == "object")
            id = readU32(field.value.data());
        else if (!pattern && field.type == FIELD_STRING && field.name == "pattern")
            pattern = textOf(field.value);
    }
    if (!id || !pattern)
        return Status::InvalidArgument;
    if (*id < FIRST_OWN_ID)
        return Status::PermissionDenied;
    Object* object = registry_.find(*id);
    if (!object)
        return Status::NotFound;
    if (object->owner != &client || pattern->empty())
        return Status::PermissionDenied;
    object->patterns.emplace(*pattern);
    return Status::Ok;
}

Status Bus::sendEvent(Client& client, Bytes data)
{
    std::optional<std::string_view> name;
    std::optional<Bytes> content;
    for (Field field; takeField(data, field);) {
        if (!name && field.type == FIELD_STRING && field.name == "id")
            name = textOf(field.value);
        else if (!content && field.type == FIELD_TABLE && field.name == "data")
            content = field.value;
    }
    if (!name || !content)
        return Status::InvalidArgument;
    if (name->starts_with("ubus."))
        return Status::PermissionDenied; // the daemon's own
    publish(&client, *name, *content);
    return Status::Ok;
}

// Subscribing twice is subscribing once.
Status Bus::subscribe(Client& client, const Message& message)
{
    Object* subscriber = message.objectId ? registry_.find(*message.objectId) : nullptr;
    if (!message.target || !subscriber || subscriber->owner != &client)
        return Status::InvalidArgument;
    Object* target = registry_.find(*message.target);
    if (!target)
        return Status::NotFound;
    if (target->owner == &client)
        return Status::InvalidArgument;
    subscriber->targets.insert(target);
    if (target->subscribers.insert(subscriber).second && target->subscribers.size() == 1)
        sendNotice(*target, MSG_NOTIFY, ATTR_ACTIVE, uint8_t{1});
    return Status::Ok;
}

Status Bus::unsubscribe(Client& client, const Message& message)
{
    Object* subscriber = message.objectId ? registry_.find(*message.objectId) : nullptr;
    Object* target = message.target ? registry_.find(*message.target) : nullptr;
    if (!subscriber || !target || subscriber->owner != &client || !endSubscription(*subscriber, *target))
        return Status::NotFound;
    return Status::Ok;
}

// Nothing to answer when the publisher does not want to know. Else it gets the subscribers, whose answers follow.
std::optional<Status> Bus::notify(Client& client, const Message& message)
{
    if (!message.objectId || !message.method)
        return Status::InvalidArgument;
    const Object* object = registry_.find(*message.objectId);
    if (!object)
        return Status::NotFound;
    if (object->owner != &client)
        return Status::PermissionDenied;
    std::vector<uint8_t> subscribers;
    for (const Object* subscriber : object->subscribers) {
        forwardCall(client, *subscriber, message);
        putNumber(subscribers, subscriber->id);
    }
    if (message.noReply)
        return std::nullopt;
    MessageWriter answer(MSG_STATUS, message.seq, message.peer);
    answer.put(ATTR_OBJID, object->id);
    answer.put(ATTR_SUBSCRIBERS, subscribers);
    answer.put(ATTR_STATUS, static_cast<uint32_t>(Status::Ok));
    client.send(answer.finish());
    return std::nullopt;
}

// An answer to a call: byte for byte as the owner wrote it, but for the peer. There is no record of calls, so whoever
// owns the object may answer anybody.
void Bus::forwardAnswer(Client& client, const Message& message)
{
    const Object* object = message.objectId ? registry_.find(*message.objectId) : nullptr;
    Client* caller = find(message.peer);
    if (!object || object->owner != &client || !caller)
        return;
    std::vector<uint8_t> answer(message.raw.begin(), message.raw.end());
    writeU32(&answer[4], object->id);
    caller->send(answer);
}

void Bus::publish(const Client* sender, std::string_view name, Bytes data)
{
    for (const auto& [id, object] : registry_.objects()) {
        if (object.owner == sender ||
            std::ranges::none_of(object.patterns, [&](const auto& pattern) { return matches(pattern, name); }))
            continue;
        MessageWriter writer(MSG_INVOKE, ++deliveries_, 0);
        writer.put(ATTR_OBJID, id);
        writer.put(ATTR_METHOD, name);
        writer.put(ATTR_DATA, data);
        object.owner->send(writer.finish());
    }
}

void Bus::announce(const char* event, uint32_t id, const std::string& name)
{
    std::vector<uint8_t> data;
    putField(data, "id", id);
    putField(data, "path", name);
    publish(nullptr, event, data);
}

// True when the object's type goes too.
bool Bus::dropObject(Object& object)
{
    const uint32_t id = object.id;
    const std::optional<std::string> name = object.name ? std::optional(*object.name) : std::nullopt;
    endSubscriptions(object);
    const bool typeGone = registry_.remove(object);
    if (name)
        announce("ubus.object.remove", id, *name);
    return typeGone;
}
