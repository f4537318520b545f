// In what our daemon is kinder to its clients than others of its kind.

#include "bus_test.h"

#include <optional>

#include <sys/resource.h>
#include <sys/socket.h>

namespace {

TEST_F(BusTest, HandlesAllInputBeforeTheEndOfTheStream)
{
    RawClient listener = connect();
    listener.listenTo("load");
    listener.listenTo("ubus.object.remove");
    for (const bool halfOnly : {true, false}) {
        std::optional<RawClient> sender(connect());
        sender->addObject("sender");
        for (uint32_t i = 0; i < 100; ++i)
            sender->send(eventCall(1, "load", numberField("n", i)));
        sender->send({0, PING, 0}); // ends in the middle of a message
        if (halfOnly)
            shutdown(sender->fd(), SHUT_WR);
        else
            sender.reset();
        for (uint32_t i = 0; i < 100; ++i)
            ASSERT_EQ(find(listener.receive(), A_DATA), numberField("n", i));
        EXPECT_EQ(findText(listener.receive(), A_METHOD), "ubus.object.remove") << "then it counts as a disconnect";
        if (halfOnly) {
            EXPECT_TRUE(sender->closedByDaemon());
        }
    }
}

TEST_F(BusTest, AnswersALookupInFullHoweverLong)
{
    constexpr int OBJECTS = 3000;
    RawClient owner = connect();
    const Bytes signature = oneMethod(std::string(1000, 'm'), "argument");
    for (int i = 0; i < OBJECTS; ++i)
        owner.addObject(std::to_string(10000 + i), signature);
    RawClient asker = connect();
    asker.send(message(LOOKUP, 1, 0, {}) + message(PING, 2, 0, {}));
    shutdown(asker.fd(), SHUT_WR);
    EXPECT_TRUE(daemonSleeps());
    for (int i = 0; i < OBJECTS; ++i)
        ASSERT_EQ(findText(asker.receive(), A_OBJPATH), std::to_string(10000 + i));
    EXPECT_EQ(asker.receive(), message(STATUS, 1, 0, attr(A_STATUS, u32(0))));
    EXPECT_EQ(asker.receive(), message(DATA, 2, 0, {})) << "in the order of the requests";
    EXPECT_TRUE(asker.closedByDaemon());
}

TEST_F(BusTest, AcceptsAgainOnceThereAreDescriptors)
{
    rlimit before{};
    ASSERT_EQ(prlimit(daemon->pid(), RLIMIT_NOFILE, nullptr, &before), 0);
    const rlimit few{.rlim_cur = 16, .rlim_max = before.rlim_max};
    ASSERT_EQ(prlimit(daemon->pid(), RLIMIT_NOFILE, &few, nullptr), 0);
    std::vector<RawClient> clients;
    for (int i = 0; i < 40; ++i)
        clients.emplace_back(socketPath, false);
    clients[0].awaitGreeting();
    size_t greeted = 1;
    while (clients[greeted].hasInput(std::chrono::milliseconds(500)))
        clients[greeted++].awaitGreeting();
    EXPECT_LT(greeted, 16u);
    EXPECT_TRUE(daemonSleeps());
    EXPECT_TRUE(clients[0].nothingWaits()) << "those who are in are served";
    {
        const RawClient leaves = std::move(clients[0]);
    }
    clients[greeted].awaitGreeting(); // its place is given to the next
    ASSERT_EQ(prlimit(daemon->pid(), RLIMIT_NOFILE, &before, nullptr), 0);
    for (size_t i = greeted + 1; i < clients.size(); ++i)
        clients[i].awaitGreeting();
}

TEST_F(BusTest, ServesManyClients)
{
    std::vector<RawClient> clients;
    for (int i = 0; i < 900; ++i) {
        clients.push_back(connect());
        clients.back().listenTo("load");
    }
    RawClient sender = connect();
    EXPECT_EQ(sender.ask(eventCall(1, "load", {})).status, 0u);
    for (RawClient& client : clients)
        ASSERT_EQ(findText(client.receive(), A_METHOD), "load");
}

} // namespace
