// Tests with a bus daemon of their own, and clients that write and read the bytes themselves.
#pragma once

#include "host_test.h"

#include <memory>

using Messages = std::vector<Bytes>;

// What came for a request: everything up to the status, and the status.
struct Answer {
    Messages data;
    uint32_t status = ~0u;
};

class RawClient : public Peer {
public:
    // Connects. Without `greeted` the greeting is left to be received.
    explicit RawClient(const std::string& path, bool greeted = true);

    uint32_t id() const
    {
        return id_;
    }
    void awaitGreeting();

    // Reads and drops what comes until the daemon has closed the connection; false when it does not.
    bool closedByDaemon();

    // Sends a request of the daemon and receives up to its status.
    Answer ask(const Bytes& request);

    // Nothing was sent to this client that it has not received: the next thing is the answer to a ping.
    bool nothingWaits();

    // Registers an object and gives its id: with a name, without, and with a pattern of events.
    uint32_t addObject(std::string_view name, const Bytes& signature = {});
    uint32_t addAnonymous();
    uint32_t listenTo(std::string_view pattern);

private:
    uint32_t id_ = 0;
};

class BusTest : public testing::Test {
protected:
    BusTest();
    void TearDown() override; // the daemon has to be alive and well, and to end in order

    // Starts a daemon at socketPath and waits until it listens.
    std::unique_ptr<Background> startDaemon() const;

    RawClient connect() const
    {
        return RawClient(socketPath);
    }

    // Whether the daemon sleeps: in half a second it uses little of the processor.
    bool daemonSleeps() const;

    const Folder folder;
    const std::string socketPath = folder.path / "bus";
    std::unique_ptr<Background> daemon;
};

// A signature with one method and one argument of type string.
Bytes oneMethod(std::string_view method, std::string_view argument);
