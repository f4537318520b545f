// Start and end of the daemon, and its limits.

#include "bus_test.h"

#include <csignal>
#include <filesystem>

#include <sys/stat.h>

namespace {

constexpr size_t MAX_ROOT = 1048576;
constexpr size_t QUEUE = 1048576;
constexpr size_t EVENT_PAYLOAD = 1000;

// A ping whose root attribute claims that length, with that much behind it.
Bytes pingOfRoot(size_t length)
{
    Bytes ping = message(PING, 1, 0, {});
    std::ranges::copy(u32(static_cast<uint32_t>(length)), ping.begin() + 8);
    ping.resize(8 + std::max(length, size_t{4}));
    return ping;
}

Bytes numberedEvent(uint32_t number)
{
    return eventCall(1, "load", numberField("n", number) + stringField("fill", std::string(EVENT_PAYLOAD, 'x')));
}

uint32_t numberOf(const Bytes& event)
{
    return u32At(find(event, A_DATA), 8); // behind the word and the name header, 4 bytes each
}

TEST_F(BusTest, RemovesItsSocketWhenASignalEndsIt)
{
    struct stat status {};
    ASSERT_EQ(stat(socketPath().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFSOCK | 0666));
    for (const int number : {SIGINT, SIGTERM}) {
        RawClient connected = connect();
        daemon->signal(number);
        EXPECT_EQ(daemon->wait(), 0);
        EXPECT_FALSE(std::filesystem::exists(socketPath()));
        EXPECT_TRUE(connected.closedByDaemon());
        daemon = startDaemon();
    }
    RawClient stays = connect();
    const auto second = startDaemon(); // takes the path over
    EXPECT_TRUE(stays.nothingWaits()) << "clients of the first stay with it";
    EXPECT_TRUE(connect().nothingWaits());
    second->signal(SIGTERM);
    EXPECT_EQ(second->wait(), 0);
}

TEST_F(BusTest, SaysWhyItCannotListen)
{
    std::filesystem::create_directories(folder() + "/directory/full");
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"-s", folder() + "/missing/bus"}, "usock: No such file or directory\n"},
        {{"-s", folder() + "/directory"}, "usock: Address already in use\n"},
        {{"-x"}, ""}, // explains itself
    };
    for (const auto& [arguments, error] : cases) {
        std::vector<std::string> command{UBUSD_PROGRAM};
        command.insert(command.end(), arguments.begin(), arguments.end());
        Process process(command);
        EXPECT_EQ(process.wait(), error.empty() ? 1 : 255) << arguments[0];
        EXPECT_EQ(process.out, "");
        EXPECT_TRUE(error.empty() ? process.err.find("Usage: ") != std::string::npos : process.err == error)
            << process.err;
    }
}

TEST_F(BusTest, TakesRootLengthsUpToTheLimitAndDisconnectsBeyond)
{
    for (const size_t length : {size_t{4}, size_t{5}, size_t{4096}, MAX_ROOT - 3, MAX_ROOT}) {
        RawClient client = connect();
        Bytes echo = pingOfRoot(length);
        echo[1] = DATA;
        EXPECT_EQ(client.ask(pingOfRoot(length)).data, Messages{echo}) << length;
    }
    for (const size_t length : {size_t{0}, size_t{3}, MAX_ROOT + 1, size_t{0xffffff}}) {
        RawClient client = connect();
        client.send(part(pingOfRoot(length), 0, 12));
        EXPECT_TRUE(client.closedByDaemon()) << length;
    }
}

TEST_F(BusTest, QueuesAMebibyteForAClientThatDoesNotReadAndDropsTheRest)
{
    constexpr uint32_t EVENTS = 3000;
    RawClient stalled = connect();
    RawClient reader = connect();
    RawClient sender = connect();
    stalled.listenTo("load");
    reader.listenTo("load");
    for (uint32_t i = 0; i < EVENTS; ++i) {
        ASSERT_EQ(sender.ask(numberedEvent(i)).status, 0u);
        ASSERT_EQ(numberOf(reader.receive()), i) << "nobody else loses anything";
    }
    EXPECT_LE(ticksWhileIdle(), IDLE_TICKS);

    uint32_t received = 0;
    for (size_t bytes = 0; bytes + EVENT_PAYLOAD + 200 < QUEUE; ++received) {
        const Bytes event = stalled.receive();
        ASSERT_EQ(numberOf(event), received) << "without gaps";
        bytes += event.size();
    }
    for (const Bytes& event : stalled.ask(message(PING, 1, 1, {})).data) {
        if (event[1] == INVOKE) {
            ASSERT_EQ(numberOf(event), received++);
        }
    }
    EXPECT_LT(received, EVENTS) << "the rest was dropped";
    ASSERT_EQ(sender.ask(numberedEvent(4711)).status, 0u);
    EXPECT_EQ(numberOf(stalled.receive()), 4711u) << "later ones arrive again";
}

} // namespace
