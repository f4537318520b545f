// In what our daemon is kinder to its clients than others of its kind.

#include "bus_test.h"

#include <csignal>

#include <sys/resource.h>

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
            sender->endWriting();
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
    asker.endWriting();
    EXPECT_LE(ticksWhileIdle(), IDLE_TICKS);
    for (int i = 0; i < OBJECTS; ++i)
        ASSERT_EQ(findText(asker.receive(), A_OBJPATH), std::to_string(10000 + i));
    EXPECT_EQ(asker.receive(), message(STATUS, 1, 0, attr(A_STATUS, u32(0))));
    EXPECT_EQ(asker.receive(), message(DATA, 2, 0, {})) << "in the order of the requests";
    EXPECT_TRUE(asker.closedByDaemon());
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
