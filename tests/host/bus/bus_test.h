#pragma once
// Tests with a bus daemon of their own, on a socket in a temporary folder, and clients that write and read the bytes
// themselves.

#include "wire.h"

#include <memory>
#include <optional>

#include <gtest/gtest.h>

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

    // Reads and drops what comes until the daemon has closed the connection; false when it does not.
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

class BusTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override; // the daemon has to be alive and well, and to end in order

    // Starts a daemon at socketPath() and waits until it listens.
    std::unique_ptr<Process> startDaemon() const;

    // The process that takes connections there; 0 when nobody does.
    pid_t listenerAtSocket() const;

    RawClient connect() const
    {
        return RawClient(socketPath());
    }
    std::string socketPath() const
    {
        return folder_ + "/bus";
    }
    const std::string& folder() const
    {
        return folder_;
    }

    // Processor time that the daemon has used, in clock ticks of 10 ms.
    long daemonTicks() const;

    // Ticks used in half a second of watching: a busy loop would take about 50.
    long ticksWhileIdle() const;

    std::unique_ptr<Process> daemon;

private:
    std::string folder_;
};

constexpr long IDLE_TICKS = 10;

// A signature with one method and one argument of type string.
Bytes oneMethod(std::string_view method, std::string_view argument);
