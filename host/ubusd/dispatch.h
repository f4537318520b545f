#pragma once
// The bus itself: who is connected, what each message does, and what a disconnect takes away.
//
// All of it belongs to the daemon's one thread.

#include "events.h"
#include "registry.h"

class Bus {
public:
    /// Takes a new connection in and greets it; `fd` is a non-blocking stream socket and the bus's from now on.
    void connect(int fd, int epollFd);

    /// Removes the client with everything it owns, last registered first, and closes its socket.
    void disconnect(Client& client);

    /// Null when no client has that id.
    Client* find(uint32_t id);

    /// Handles the client's input as far as it makes whole messages and no lookup has to wait for room.
    /// False when the client must be disconnected for what it sent.
    [[nodiscard]] bool work(Client& client);

private:
    void handle(Client& client, const Message& message);
    Status addObject(Client& client, const Message& message);
    Status removeObject(Client& client, const Message& message);
    std::optional<Status> invoke(Client& client, const Message& message);
    Status callEvents(Client& client, const Message& message);
    Status registerPattern(Client& client, Bytes data);
    Status sendEvent(Client& client, Bytes data);
    void forwardAnswer(Client& client, const Message& message);
    void announce(const char* event, uint32_t id, const std::string& name);
    bool dropObject(Object& object);

    std::unordered_map<uint32_t, Client> clients_;
    Registry registry_;
    EventBook events_;
};
