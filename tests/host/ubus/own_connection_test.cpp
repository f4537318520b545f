// What only our library promises: a broken connection ends whatever waits, and what had arrived before is handled.

#include <gtest/gtest.h>

#include "fake_bus.h"

namespace {

using Break = std::function<void(FakeBus&)>;

// The head of a message that no bus sends.
Break sendHead(uint8_t version, uint32_t root)
{
    return [=](FakeBus& bus) { bus.send(Bytes{version, DATA, 0, 0} + u32(1) + u32(root)); };
}

int lostCalls; // of the callback below

void countLoss(ubus_context* ctx)
{
    EXPECT_FALSE(ctx->sock.registered);
    EXPECT_TRUE(ctx->sock.eof);
    ++lostCalls;
}

} // namespace

TEST(OwnConnection, ABreakEndsEveryWaitingCall)
{
    static ubus_object object;
    int (*const calls[])(ubus_context*) = {
        [](ubus_context* ctx) { return ubus_add_object(ctx, &object); },
        [](ubus_context* ctx) { return ubus_invoke(ctx, 5000, "x", nullptr, nullptr, nullptr, 0); },
    };
    // The last is one that would be rounded up to 1 MiB and 4 bytes.
    const Break breaks[] = {[](FakeBus& bus) { bus.close(); }, [](FakeBus& bus) { bus.closeHalf(); }, sendHead(1, 4),
                            sendHead(0, 3), sendHead(0, 0x100001)};
    FakeBus bus([&](FakeBus& daemon) {
        for (size_t i = 0; i < std::size(calls); ++i) {
            for (const Break& breakUp : breaks) {
                daemon.greet();
                daemon.receive();
                breakUp(daemon);
            }
        }
        daemon.accept();
        daemon.close();
    });
    for (const auto call : calls) {
        for (size_t i = 0; i < std::size(breaks); ++i) {
            SCOPED_TRACE(i);
            Context ctx = connectTo(bus);
            ctx->connection_lost = countLoss;
            lostCalls = 0;
            EXPECT_EQ(call(ctx.get()), UBUS_STATUS_CONNECTION_FAILED);
            EXPECT_EQ(lostCalls, 1);
            EXPECT_EQ(call(ctx.get()), UBUS_STATUS_INVALID_ARGUMENT);
            ubus_handle_event(ctx.get());
            EXPECT_EQ(lostCalls, 1);
        }
    }
    EXPECT_EQ(object.id, 0U);
    EXPECT_FALSE(connectTo(bus)); // it ends before it has greeted
}

TEST(OwnConnection, ReconnectingMayFailAndBeTriedAgain)
{
    FakeBus bus([](FakeBus& daemon) {
        daemon.greet();
        daemon.expect(message(ADD_OBJECT, 1, 0, {}));
        daemon.send(message(DATA, 1, 0, attr(A_OBJID, u32(0x2001))) + statusMessage(1, 0, 0));
        daemon.receive();
        daemon.accept();
        daemon.send(message(STATUS, 0, 0x111, {}));
        daemon.greet();
        daemon.receive(); // dies while the object is registered again
        daemon.close();
    });
    Context ctx = connectTo(bus);
    ctx->connection_lost = countLoss;
    lostCalls = 0;
    ubus_object object{};
    EXPECT_EQ(ubus_add_object(ctx.get(), &object), 0);
    static int ended;
    auto* req = new ubus_request;
    EXPECT_EQ(ubus_invoke_async(ctx.get(), 5000, "x", nullptr, req), 0);
    req->complete_cb = [](ubus_request* self, int status) {
        ended = status;
        delete self;
    };
    ubus_complete_request_async(ctx.get(), req);
    EXPECT_EQ(ubus_reconnect(ctx.get(), "/tmp/no-such-directory/ubus.sock"), UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(ended, UBUS_STATUS_TIMEOUT);
    EXPECT_EQ(ctx->sock.fd, -1);
    EXPECT_EQ(ubus_lookup(ctx.get(), nullptr, nullptr, nullptr), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(ubus_reconnect(ctx.get(), bus.path()), UBUS_STATUS_UNKNOWN_ERROR);
    EXPECT_EQ(ubus_reconnect(ctx.get(), bus.path()), 0);
    EXPECT_EQ(object.id, 0U);
    EXPECT_EQ(lostCalls, 0);
    ubus_add_uloop(ctx.get());
    ctx->connection_lost = [](ubus_context*) { uloop_end(); };
    uloop_run(); // which reports it
}

TEST(OwnConnection, HandlesWhatArrivedBeforeTheBreakWhoseCallbackMayFreeTheContext)
{
    FakeBus bus([](FakeBus& daemon) {
        daemon.greet();
        daemon.receive();
        daemon.send(message(DATA, 1, 5000, attr(A_DATA, {})) + statusMessage(1, 5000, 3));
        daemon.close();
    });
    ubus_context* ctx = connectTo(bus).release();
    ASSERT_TRUE(ctx);
    ubus_add_uloop(ctx);
    static std::string order;
    order.clear();
    ubus_request req;
    ubus_invoke_async(ctx, 5000, "x", nullptr, &req);
    req.data_cb = [](ubus_request*, int, blob_attr*) { order += "data "; };
    req.complete_cb = [](ubus_request*, int status) { order += std::to_string(status); };
    ctx->connection_lost = [](ubus_context* self) {
        order += " lost";
        ubus_free(self);
        uloop_end();
    };
    ubus_complete_request_async(ctx, &req);
    uloop_run();
    EXPECT_EQ(order, "data 3 lost");
}
