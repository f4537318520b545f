// Start and end of the daemon.

#include "bus_fixture.h"

#include <csignal>
#include <filesystem>
#include <fstream>

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
}

TEST_F(BusTest, ReplacesAFileThatLiesAtThePath)
{
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->wait(), 0);
    std::ofstream(socketPath()) << "in the way";
    daemon = startDaemon();
    EXPECT_TRUE(connect().nothingWaits());
}

TEST_F(BusTest, SaysWhyItCannotListen)
{
    std::filesystem::create_directories(folder() + "/directory/full");
    struct {
        std::string path;
        std::string error;
    } const cases[] = {
        {folder() + "/missing/bus", "usock: No such file or directory\n"},
        {folder() + "/directory", "usock: Address already in use\n"},
        {"/tmp/" + std::string(103, 'x'), "usock: File name too long\n"},
    };
    for (const auto& entry : cases) {
        Process process({UBUSD_PROGRAM, "-s", entry.path});
        EXPECT_EQ(process.wait(), 255);
        EXPECT_EQ(process.err, entry.error);
    }
}

TEST_F(BusTest, AnswersWrongOptionsWithItsUsage)
{
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"-x"}, {"-s"}, {"-A"}, {"word"}, {"-s", folder() + "/other", "word"}}) {
        std::vector<std::string> command{UBUSD_PROGRAM};
        command.insert(command.end(), arguments.begin(), arguments.end());
        Process process(command);
        EXPECT_EQ(process.wait(), 1) << arguments[0];
        EXPECT_EQ(process.out, "");
        EXPECT_EQ(process.err.substr(0, 7), "Usage: ");
    }
}

} // namespace
