#pragma once
// A client of the bus that writes and reads the bytes itself.

#include "wire.h"

using Messages = std::vector<Bytes>;

// What came for a request: everything up to the status, and the status.
struct Answer {
    Messages data;
    uint32_t status = ~0u;
};

class RawClient : public WireEnd {
public:
    // Connects. Without `greeted` the greeting is left to be received.
    explicit RawClient(const std::string& path, bool greeted = true);

    uint32_t id() const
    {
        return id_;
    }
    void awaitGreeting();

    // The next message; empty, and a test failure, when none comes.
    Bytes receive();

    // Reads and forgets until the daemon has closed the connection; false when it does not.
    bool closedByDaemon();

    // Sends a request of the daemon and receives up to its status.
    Answer ask(const Bytes& request);

    // Nothing was sent to this client that it has not received: the next thing is the answer to a ping.
    bool nothingWaits();

    // Registers an object and gives its id.
    uint32_t addObject(std::string_view name, const Bytes& signature = {});
    uint32_t addAnonymous();
    uint32_t listenTo(std::string_view pattern);

private:
    uint32_t add(const Bytes& attributes);

    uint32_t id_ = 0;
    uint16_t seq_ = 0xf000; // own requests: well away from the tests'
};
