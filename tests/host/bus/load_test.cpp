// Many clients, and more than there are descriptors for.

#include "bus_fixture.h"

#include <sys/resource.h>

namespace {

constexpr size_t CLIENTS = 1000;

bool mayOpen(rlim_t descriptors)
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < descriptors)
        return false;
    limit.rlim_cur = std::max(limit.rlim_cur, descriptors);
    return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

TEST_F(BusTest, ServesAThousandClients)
{
    if (!mayOpen(CLIENTS + 100))
        GTEST_SKIP() << "too few descriptors allowed";
    RawClient sender = connect();
    const long before = daemonStatus("VmRSS");
    const size_t descriptors = daemonDescriptors();
    std::vector<RawClient> clients;
    for (size_t i = 0; i < CLIENTS; ++i)
        clients.push_back(connect());
    EXPECT_LT(daemonStatus("VmRSS") - before, 8 * static_cast<long>(CLIENTS)) << "8 KiB each, sanitizers included";
    for (size_t i = 0; i < CLIENTS; ++i)
        clients[i].listenTo(i % 2 == 0 ? "motor*" : "motor_rotate");
    EXPECT_LE(ticksWhileIdle(), IDLE_TICKS);

    const Bytes fields = stringField("action", "stop");
    EXPECT_EQ(sender.ask(eventCall(1, "motor_rotate", fields)).status, 0u);
    for (RawClient& client : clients)
        ASSERT_EQ(find(client.receive(), A_DATA), fields);
    const uint32_t object = sender.addObject("ptzd");
    for (RawClient& client : clients)
        client.send(call(1, object, "stop", {}));
    for (size_t i = 0; i < CLIENTS; ++i) {
        const Bytes received = sender.receive();
        sender.send(message(STATUS, 1, u32At(received, 4), attr(A_STATUS, u32(0)) + attr(A_OBJID, u32(object))));
    }
    for (RawClient& client : clients)
        ASSERT_EQ(client.receive()[1], STATUS);
    clients.clear();
    EXPECT_TRUE(waitUntil([&] { return daemonDescriptors() <= descriptors; }));
    EXPECT_TRUE(sender.nothingWaits());
}

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
