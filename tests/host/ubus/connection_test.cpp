// Connecting, losing the connection, and connecting again.

#include <gtest/gtest.h>

#include "fake_bus.h"

namespace {

using std::chrono::milliseconds;

const ubus_method noMethods[1] = {};

// The head of a message: version and type, sequence number, peer, and the word of the root.
Bytes head(uint8_t version, uint8_t type, uint32_t peer, uint32_t root)
{
    return Bytes{version, type, 0, 0} + u32(peer) + u32(root);
}

// What the daemon answers to the registration of an object.
Bytes registered(uint16_t seq, uint32_t id, const Bytes& type = {})
{
    return message(DATA, seq, 0, attr(A_OBJID, u32(id)) + type) + statusMessage(seq, 0, 0);
}

int lostCalls; // of the callback below

void countLoss(ubus_context* ctx)
{
    EXPECT_FALSE(ctx->sock.registered);
    ++lostCalls;
}

void runLoopFor(int ms)
{
    uloop_timeout end{};
    end.cb = [](uloop_timeout*) { uloop_end(); };
    uloop_timeout_set(&end, ms);
    uloop_run();
    EXPECT_FALSE(end.pending) << "something else has ended the loop";
}

class Connection : public testing::Test {
protected:
    void SetUp() override
    {
        lostCalls = 0;
        ASSERT_EQ(uloop_init(), 0);
    }
    void TearDown() override
    {
        uloop_done();
    }
};

} // namespace

TEST_F(Connection, NeedsABusAndAGreetingThatMakesSense)
{
    EXPECT_FALSE(ubus_connect("/tmp/no-such-directory/ubus.sock"));
    EXPECT_FALSE(ubus_connect(("/tmp/" + std::string(103, 'x')).c_str())); // 108 characters
    const std::vector<std::pair<Bytes, bool>> greetings{
        {head(0, HELLO, 2, 4), true},           {head(0, STATUS, 2, 4), false},
        {head(1, HELLO, 2, 4), false},                                                     // another version
        {head(0, HELLO, 2, 3), false},                                                     // impossible root
        {head(0, HELLO, 0, 4), false},                                                     // ids that read as 0 and 1
        {head(0, HELLO, 0x01000000, 4), false}, {part(head(0, HELLO, 2, 4), 0, 8), false}, // cut off
    };
    FakeBus bus([&](FakeBus& daemon) {
        for (const auto& [greeting, valid] : greetings) {
            daemon.accept();
            daemon.send(greeting);
            if (!valid)
                daemon.closeHalf();
            daemon.expectEnd();
        }
    });
    for (const auto& [greeting, valid] : greetings)
        EXPECT_EQ(connectTo(bus) != nullptr, valid) << testing::PrintToString(greeting);
}

TEST_F(Connection, TheLoopReportsABreakOnceAndGoesOn)
{
    for (const bool counted : {true, false}) { // else the library's own callback gets the loss
        FakeBus bus([&](FakeBus& daemon) {
            daemon.greet();
            std::this_thread::sleep_for(milliseconds(10));
            daemon.close();
        });
        Context ctx = connectTo(bus);
        if (counted)
            ctx->connection_lost = countLoss;
        lostCalls = 0;
        ubus_add_uloop(ctx.get());
        const auto before = processorTime();
        runLoopFor(120);
        EXPECT_LT(processorTime() - before, milliseconds(80));
        EXPECT_EQ(lostCalls, counted ? 1 : 0);
        EXPECT_FALSE(ctx->sock.registered);
    }
}

TEST_F(Connection, ReconnectingRegistersTheObjectsUnderNewIds)
{
    FakeBus bus([](FakeBus& daemon) {
        const Bytes a = attr(A_OBJPATH, text("a")), b = attr(A_OBJPATH, text("b")), signature = attr(A_SIGNATURE, {});
        const Bytes type = attr(A_OBJTYPE, u32(0x3001)), newType = attr(A_OBJTYPE, u32(0x5001));
        daemon.greet(0x111);
        daemon.expect(message(ADD_OBJECT, 1, 0, a + signature));
        daemon.send(registered(1, 0x2001, type));
        daemon.expect(message(ADD_OBJECT, 2, 0, b + type)); // a type is shared
        daemon.send(registered(2, 0x2002));
        daemon.expect(message(ADD_OBJECT, 3, 0, {}));
        daemon.send(registered(3, 0x2003));
        daemon.receive();
        daemon.send(statusMessage(4, 1, 0));

        daemon.greet(0x222);
        daemon.expect(message(ADD_OBJECT, 1, 0, a + signature));
        daemon.send(statusMessage(1, 0, UBUS_STATUS_INVALID_ARGUMENT)); // the name is taken
        daemon.expect(message(ADD_OBJECT, 2, 0, b + signature));
        daemon.send(registered(2, 0x4002, newType));
        daemon.expect(message(ADD_OBJECT, 3, 0, {})); // the listener, without its pattern
        daemon.send(registered(3, 0x4003));
        daemon.expect(message(ADD_OBJECT, 4, 0, a + newType));
        daemon.send(statusMessage(4, 0, UBUS_STATUS_INVALID_ARGUMENT));
    });
    ubus_object_type type{.name = "t", .id = 0, .methods = noMethods, .n_methods = 0};
    ubus_object a{}, b{};
    ubus_event_handler listener{};
    a.name = "a";
    b.name = "b";
    a.type = b.type = &type;
    Context ctx = connectTo(bus);
    EXPECT_EQ(ubus_add_object(ctx.get(), &a), 0);
    EXPECT_EQ(ubus_add_object(ctx.get(), &b), 0);
    EXPECT_EQ(ubus_register_event_handler(ctx.get(), &listener, "x"), 0);
    ubus_add_uloop(ctx.get());
    static std::string path;
    path = bus.path();
    ctx->connection_lost = [](ubus_context* self) {
        countLoss(self);
        EXPECT_EQ(ubus_reconnect(self, path.c_str()), 0);
        uloop_end();
    };
    uloop_run();
    EXPECT_EQ(lostCalls, 1);
    EXPECT_EQ(ctx->local_id, cpu_to_be32(0x222));
    EXPECT_FALSE(ctx->sock.registered);
    EXPECT_EQ(a.id, 0U);
    EXPECT_EQ(b.id, 0x4002U);
    EXPECT_EQ(listener.obj.id, 0x4003U);
    EXPECT_EQ(ubus_add_object(ctx.get(), &a), UBUS_STATUS_INVALID_ARGUMENT); // forgotten, so it may be added again
}
