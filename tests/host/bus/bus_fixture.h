#pragma once
// Tests with a bus daemon of their own, on a socket in a temporary folder.

#include "raw_client.h"

#include <memory>
#include <optional>

#include <gtest/gtest.h>

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
