// Start and end of the daemon.

#include "bus_fixture.h"

#include <csignal>
#include <filesystem>
#include <fstream>

#include <sys/resource.h>
#include <sys/stat.h>

namespace {

TEST_F(BusTest, RemovesItsSocketWhenASignalEndsIt)
{
    struct stat status {};
    ASSERT_EQ(stat(socketPath().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFSOCK | 0666));
    daemon->signal(SIGHUP); // no reason to end
    EXPECT_TRUE(connect().nothingWaits());
    for (const int number : {SIGINT, SIGTERM}) {
        RawClient connected = connect();
        daemon->signal(number);
        EXPECT_EQ(daemon->wait(), 0);
        EXPECT_FALSE(std::filesystem::exists(socketPath()));
        EXPECT_TRUE(connected.closedByDaemon());
        daemon = startDaemon();
    }
}

TEST_F(BusTest, TakesAPathOverAndLeavesItToWhoeverHasIt)
{
    RawClient stays = connect();
    auto second = startDaemon();
    EXPECT_TRUE(stays.nothingWaits()) << "clients of the first stay with it";
    std::swap(daemon, second);
    second->signal(SIGTERM);
    EXPECT_EQ(second->wait(), 0);
    EXPECT_EQ(listenerAtSocket(), daemon->pid()) << "the first must not take away the second's socket";
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->wait(), 0);
    std::ofstream(socketPath()) << "in the way";
    daemon = startDaemon();
    EXPECT_TRUE(connect().nothingWaits());
}

TEST_F(BusTest, SaysWhyItCannotListen)
{
    std::filesystem::create_directories(folder() + "/directory/full");
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"-s", folder() + "/missing/bus"}, "usock: No such file or directory\n"},
        {{"-s", folder() + "/directory"}, "usock: Address already in use\n"},
        {{"-s", "/tmp/" + std::string(103, 'x')}, "usock: File name too long\n"},
        {{"-x"}, "Usage: "},
        {{"-s"}, "Usage: "},
        {{"-s", folder() + "/other", "word"}, "Usage: "},
    };
    for (const auto& [arguments, error] : cases) {
        std::vector<std::string> command{UBUSD_PROGRAM};
        command.insert(command.end(), arguments.begin(), arguments.end());
        Process process(command);
        EXPECT_EQ(process.wait(), error == "Usage: " ? 1 : 255) << arguments[0];
        EXPECT_EQ(process.out, "");
        EXPECT_TRUE(process.err.starts_with(error)) << process.err;
    }
}

// More clients than there are descriptors for.
TEST_F(BusTest, AcceptsAgainOnceThereAreDescriptors)
{
    rlimit before{};
    ASSERT_EQ(prlimit(daemon->pid(), RLIMIT_NOFILE, nullptr, &before), 0);
    const rlimit few{.rlim_cur = 16, .rlim_max = before.rlim_max};
    ASSERT_EQ(prlimit(daemon->pid(), RLIMIT_NOFILE, &few, nullptr), 0);
    std::vector<RawClient> clients;
    for (int i = 0; i < 40; ++i)
        clients.emplace_back(socketPath(), false);
    clients[0].awaitGreeting();
    size_t greeted = 1;
    while (clients[greeted].hasInput(std::chrono::milliseconds(500)))
        clients[greeted++].awaitGreeting();
    EXPECT_LT(greeted, 16u);
    EXPECT_LE(ticksWhileIdle(), IDLE_TICKS);
    EXPECT_TRUE(clients[0].nothingWaits()) << "those who are in are served";

    {
        const RawClient leaves = std::move(clients[0]);
    }
    clients[greeted].awaitGreeting(); // its place is given to the next
    ASSERT_EQ(prlimit(daemon->pid(), RLIMIT_NOFILE, &before, nullptr), 0);
    for (size_t i = greeted + 1; i < clients.size(); ++i)
        clients[i].awaitGreeting();
}

} // namespace
