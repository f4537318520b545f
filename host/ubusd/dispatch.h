#pragma once
// The bus itself: who is connected, what each message does, and what a disconnect takes away.
//
// All of it belongs to the daemon's one thread.

#include "registry.h"

class Bus {
public:
    /// Takes a new connection in, greets it, and serves it in the event loop; `fd` is a non-blocking stream socket and
    /// the bus's from now on.
    void connect(int fd);

    /// Null when no client has that id.
    Client* find(uint32_t id);

    /// What the event loop does when it can go on with a client, which may be gone afterwards.
    void serve(Client& client, bool readable, bool hungUp);

private:
    /// Handles the client's input as far as it makes whole messages and its answers find room.
    /// False when the client must be disconnected for what it sent.
    [[nodiscard]] bool work(Client& client);

    /// Removes the client with everything it owns, last registered first, and closes its socket.
    void disconnect(Client& client);

    void handle(Client& client, const Message& message);
    void answerLookup(Client& client, const Message& message);
    Status addObject(Client& client, const Message& message);
    Status removeObject(Client& client, const Message& message);
    std::optional<Status> invoke(Client& client, const Message& message);
    Status callEvents(Client& client, const Message& message);
    Status registerPattern(Client& client, Bytes data);
    Status sendEvent(Client& client, Bytes data);
    Status subscribe(Client& client, const Message& message);
    Status unsubscribe(Client& client, const Message& message);
    std::optional<Status> notify(Client& client, const Message& message);
    void forwardAnswer(Client& client, const Message& message);
    /// Delivers an event to every object that listens to it, once to each, and to none of the sender's own; without a
    /// sender it is the daemon's own. `data` are the fields as they shall arrive.
    void publish(const Client* sender, std::string_view name, Bytes data);
    void announce(const char* event, uint32_t id, const std::string& name);
    bool dropObject(Object& object);

    std::unordered_map<uint32_t, Client> clients_;
    Registry registry_;
    uint16_t deliveries_ = 0; // of events; wraps
};
