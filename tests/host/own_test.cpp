// What only our stand-ins promise.
#include "bus/bus_test.h"
#include "ubus/fake_bus.h"
#include "uci/sandbox.h"

#include <algorithm>

namespace {

TEST_F(BusTest, HandlesAllInputBeforeTheEndOfTheStream)
{
    const RawClient listener = connect();
    listener.listenTo("load");
    listener.listenTo("ubus.object.remove");
    {
        const RawClient sender = connect();
        sender.addObject("sender");
        for (uint32_t i = 0; i < 100; ++i)
            sender.send(eventCall(1, "load", numberField("n", i)));
        sender.send({0, PING, 0}); // ends in the middle of a message
    }
    for (uint32_t i = 0; i < 100; ++i)
        ASSERT_EQ(find(listener.receive(), A_DATA), numberField("n", i));
    EXPECT_EQ(findText(listener.receive(), A_METHOD), "ubus.object.remove");
}

TEST(Connection, ABreakEndsAWaitingCall)
{
    // The end of the stream, and the heads of messages that no bus sends: the last would be rounded up to 1 MiB and 4.
    const Bytes breaks[] = {{},
                            Bytes{1, DATA, 0, 0} + u32(1) + u32(4),
                            Bytes{0, DATA, 0, 0} + u32(1) + u32(3),
                            Bytes{0, DATA, 0, 0} + u32(1) + u32(0x100001)};
    FakeBus bus([&](FakeBus& daemon) {
        std::vector<Peer> open; // so that it is the library that ends it
        for (const Bytes& last : breaks) {
            daemon.greet();
            daemon.client.receive();
            daemon.client.send(last);
            if (last.empty())
                shutdown(daemon.client.fd(), SHUT_WR);
            open.push_back(std::move(daemon.client));
        }
        daemon.accept();
        daemon.client = Peer();
    });
    static int losses;
    for (size_t i = 0; i < std::size(breaks); ++i) {
        SCOPED_TRACE(i);
        const Context ctx = connectTo(bus);
        losses = 0;
        ctx->connection_lost = [](ubus_context*) { ++losses; };
        const auto invoke = [&] { return ubus_invoke(ctx.get(), 0x1000, "x", nullptr, nullptr, nullptr, 3000); };
        EXPECT_EQ(invoke(), UBUS_STATUS_CONNECTION_FAILED);
        EXPECT_EQ(invoke(), UBUS_STATUS_INVALID_ARGUMENT);
        ubus_object object{};
        EXPECT_EQ(ubus_notify(ctx.get(), &object, "x", nullptr, -1), UBUS_STATUS_OK);
        EXPECT_EQ(ubus_notify(ctx.get(), &object, "x", nullptr, 0), UBUS_STATUS_NOT_SUPPORTED);
        ubus_handle_event(ctx.get());
        EXPECT_EQ(losses, 1);
    }
    EXPECT_FALSE(connectTo(bus)); // it ends before it has greeted
}

// The kernel ends a write of a killed process between two pages.
TEST(Save, OfALongOneNothingCountsUnlessAllIsThere)
{
    const Sandbox box("config s 'a'\n");
    const UciContext ctx = box.context();
    uci_package* p = load(ctx);
    ASSERT_EQ(edit(ctx, uci_set, "p.a.first=1") + uci_save(ctx.get(), p), 0);
    for (int i = 0; i < 200; ++i)
        ASSERT_EQ(edit(ctx, uci_set, "p.a.option" + std::to_string(i) + "=value"), UCI_OK);
    ASSERT_EQ(uci_save(ctx.get(), p), UCI_OK);
    const std::string whole = readFile(box.changeFile);
    const size_t first = whole.find('\n') + 1;
    for (const size_t left : {first, first + 1, first + 100, size_t{4096}, whole.size() - 1, whole.size()}) {
        writeFile(box.changeFile, whole.substr(0, left));
        // What is saved next is not taken for a part of it.
        EXPECT_EQ(box.run({"set", "p.a.next=1"}).status, 0);
        const std::string seen = box.show();
        EXPECT_NE(seen.find("p.a.first='1'\n"), seen.npos) << "what was saved before counts";
        EXPECT_EQ(seen.find("p.a.option0=") != seen.npos, left == whole.size()) << left;
        EXPECT_TRUE(seen.ends_with("p.a.next='1'\n")) << left;
    }
}

TEST(Commit, OfThreadsAndACommandTogetherLosesNothing)
{
    constexpr int ROUNDS = 20;
    const Sandbox box("config t 's'\n");
    const auto commitRounds = [&](const std::string& name) {
        const UciContext ctx = box.context();
        uci_package* p = load(ctx);
        for (int round = 0; round < ROUNDS; ++round)
            EXPECT_EQ(edit(ctx, uci_add_list, "p.s.l=" + name) + uci_commit(ctx.get(), &p, false), 0);
    };
    std::thread a(commitRounds, "a"), b(commitRounds, "b");
    for (int round = 0; round < ROUNDS; ++round)
        EXPECT_EQ(box.run({"add_list", "p.s.l=c"}).status + box.run({"commit"}).status, 0);
    a.join();
    b.join();
    std::string list = box.run({"get", "p.s.l"}).out;
    std::ranges::sort(list);
    for (const char name : {'a', 'b', 'c'})
        EXPECT_EQ(std::ranges::count(list, name), ROUNDS) << list;
    EXPECT_EQ(readFile(box.changeFile), "");
}

} // namespace
