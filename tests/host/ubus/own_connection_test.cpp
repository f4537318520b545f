// What only our library promises: a broken connection ends whatever waits, and what had arrived before is handled.

#include "fake_bus.h"

namespace {

constexpr uint32_t CALLEE = 0x1000;

int lostCalls; // of the callback below

void countLoss(ubus_context* ctx)
{
    EXPECT_TRUE(ctx->sock.eof && !ctx->sock.registered);
    ++lostCalls;
}

int invoke(const Context& ctx)
{
    return ubus_invoke(ctx.get(), CALLEE, "x", nullptr, nullptr, nullptr, 0);
}

} // namespace

TEST(OwnConnection, ABreakEndsAWaitingCall)
{
    // The end of the stream, and the heads of messages that no bus sends: the last would be rounded up to 1 MiB and 4.
    const Bytes breaks[] = {{},
                            Bytes{1, DATA, 0, 0} + u32(1) + u32(4),
                            Bytes{0, DATA, 0, 0} + u32(1) + u32(3),
                            Bytes{0, DATA, 0, 0} + u32(1) + u32(0x100001)};
    FakeBus bus([&](FakeBus& daemon) {
        for (const Bytes& last : breaks) {
            daemon.greet();
            daemon.client.receive();
            daemon.client.send(last);
            shutdown(daemon.client.fd(), last.empty() ? SHUT_WR : SHUT_RD);
        }
        daemon.accept();
        daemon.client = Peer();
    });
    for (size_t i = 0; i < std::size(breaks); ++i) {
        SCOPED_TRACE(i);
        const Context ctx = connectTo(bus);
        ctx->connection_lost = countLoss;
        lostCalls = 0;
        EXPECT_EQ(invoke(ctx), UBUS_STATUS_CONNECTION_FAILED);
        EXPECT_EQ(lostCalls, 1);
        EXPECT_EQ(invoke(ctx), UBUS_STATUS_INVALID_ARGUMENT);
        ubus_handle_event(ctx.get());
        EXPECT_EQ(lostCalls, 1);
    }
    EXPECT_FALSE(connectTo(bus)); // it ends before it has greeted
}

TEST(OwnConnection, HandlesWhatArrivedBeforeTheBreakWhoseCallbackMayFreeTheContext)
{
    FakeBus bus([](FakeBus& daemon) {
        daemon.greet();
        daemon.client.receive();
        daemon.client.send(message(DATA, 1, 5000, attr(A_DATA, {})) + statusMessage(1, 5000, 3));
        daemon.client = Peer();
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
