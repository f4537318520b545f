#include <chrono>

#include <gtest/gtest.h>

#include "fake_bus.h"

namespace {

using std::chrono::milliseconds;

const ubus_method noMethods[1] = {};

void closeClient(FakeBus& bus)
{
    bus.close();
}

void closeHalf(FakeBus& bus)
{
    bus.closeHalf();
}

template <char const* HEX>
void sendBroken(FakeBus& bus)
{
    bus.send(HEX);
}

constexpr char VERSION_1[] = "010200010000000000000004";
constexpr char ROOT_TOO_SHORT[] = "000200010000000000000003";
constexpr char ROOT_TOO_LONG[] = "000200010000000000100001"; // rounded up: 1 MiB and 4 bytes

int lostCalls; // of the callbacks below

void countLoss(ubus_context* ctx)
{
    EXPECT_FALSE(ctx->sock.registered);
    EXPECT_TRUE(ctx->sock.eof);
    ++lostCalls;
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

TEST_F(Connection, NeedsAGreetingThatMakesSense)
{
    const std::vector<std::pair<std::string, bool>> greetings{
        {"000000000000000200000004", true},
        {"00000000a617c13a0000000c"
         "0300000800000001",
         true},                              // attributes do no harm
        {"000100010000000000000004", false}, // no greeting
        {"010000000000000200000004", false}, // another version
        {"000000000000000200000003", false}, // impossible root
        {"000000000000000000000004", false}, // ids that read as 0 and 1
        {"000000000100000000000004", false},
        {"0000000000000002", false}, // cut off
    };
    FakeBus bus([&](FakeBus& daemon) {
        for (const auto& [hex, valid] : greetings) {
            daemon.accept();
            daemon.send(hex.substr(0, 6));
            daemon.send(hex.substr(6));
            if (!valid)
                daemon.closeHalf();
            daemon.expectEnd();
        }
    });
    for (const auto& [hex, valid] : greetings)
        EXPECT_EQ(connectTo(bus) != nullptr, valid) << hex;
}

TEST_F(Connection, FailsWithoutABus)
{
    EXPECT_FALSE(ubus_connect("/tmp/no-such-directory/ubus.sock"));
    EXPECT_FALSE(ubus_connect(("/tmp/" + std::string(103, 'x')).c_str())); // 108 characters
}

TEST_F(Connection, ABreakEndsEveryWaitingCall)
{
    struct Case {
        const char* name;
        int (*call)(ubus_context*);
    };
    static ubus_object object, known;
    static ubus_event_handler listener;
    const Case cases[] = {
        {"add_object", [](ubus_context* ctx) { return ubus_add_object(ctx, &object); }},
        {"remove_object", [](ubus_context* ctx) { return ubus_remove_object(ctx, &known); }},
        {"lookup", [](ubus_context* ctx) { return ubus_lookup(ctx, nullptr, nullptr, nullptr); }},
        {"lookup_id",
         [](ubus_context* ctx) {
             uint32_t id = 0;
             return ubus_lookup_id(ctx, "x", &id);
         }},
        {"invoke", [](ubus_context* ctx) { return ubus_invoke(ctx, 5000, "x", nullptr, nullptr, nullptr, 0); }},
        {"send_event", [](ubus_context* ctx) { return ubus_send_event(ctx, "x", nullptr); }},
        {"register", [](ubus_context* ctx) { return ubus_register_event_handler(ctx, &listener, "x"); }},
    };
    void (*const breaks[])(FakeBus&) = {closeClient, closeHalf, sendBroken<VERSION_1>, sendBroken<ROOT_TOO_SHORT>,
                                        sendBroken<ROOT_TOO_LONG>};
    FakeBus bus([&](FakeBus& daemon) {
        for (size_t i = 0; i < std::size(cases); ++i) {
            for (auto breakUp : breaks) {
                daemon.greet();
                daemon.receive();
                breakUp(daemon);
            }
        }
        daemon.accept();
        daemon.close();
    });
    for (const Case& waiting : cases) {
        for (size_t i = 0; i < std::size(breaks); ++i) {
            SCOPED_TRACE(waiting.name + std::to_string(i));
            Context ctx = connectTo(bus);
            ctx->connection_lost = countLoss;
            lostCalls = 0;
            EXPECT_EQ(waiting.call(ctx.get()), UBUS_STATUS_CONNECTION_FAILED);
            EXPECT_EQ(lostCalls, 1);
            EXPECT_EQ(waiting.call(ctx.get()), UBUS_STATUS_INVALID_ARGUMENT);
            ubus_handle_event(ctx.get());
            EXPECT_EQ(lostCalls, 1);
        }
    }
    EXPECT_EQ(object.id, 0U);
    EXPECT_FALSE(connectTo(bus)); // it ends before it has greeted
}

TEST_F(Connection, TheLoopReportsABreakOnceAndGoesOn)
{
    for (auto breakUp : {closeClient, closeHalf, sendBroken<VERSION_1>}) {
        FakeBus bus([&](FakeBus& daemon) {
            daemon.greet();
            std::this_thread::sleep_for(milliseconds(10));
            breakUp(daemon);
        });
        Context ctx = connectTo(bus);
        if (breakUp != closeHalf) // whose loss goes to the library's own callback
            ctx->connection_lost = countLoss;
        lostCalls = 0;
        ubus_add_uloop(ctx.get());
        uloop_timeout end{};
        end.cb = [](uloop_timeout*) { uloop_end(); };
        uloop_timeout_set(&end, 120);
        long before = processorMs();
        uloop_run();
        EXPECT_FALSE(end.pending); // nothing else has ended the loop
        EXPECT_LT(processorMs() - before, 80);
        EXPECT_EQ(lostCalls, breakUp != closeHalf ? 1 : 0);
        EXPECT_FALSE(ctx->sock.registered);
        EXPECT_TRUE(ctx->sock.eof);
    }
}

TEST_F(Connection, ReconnectingRegistersTheObjectsUnderNewIds)
{
    FakeBus bus([](FakeBus& daemon) {
        const std::string id = "03000008", type = "05000008", path = "02000006", empty = "06000004";
        daemon.greet(0x111);
        daemon.expect(message(UBUS_MSG_ADD_OBJECT, 1, 0, path + "61000000" + empty));
        daemon.send(message(UBUS_MSG_DATA, 1, 0, id + "00002001" + type + "00003001") + statusMessage(1, 0, 0));
        daemon.expect(message(UBUS_MSG_ADD_OBJECT, 2, 0, path + "62000000" + type + "00003001")); // a type is shared
        daemon.send(message(UBUS_MSG_DATA, 2, 0, id + "00002002") + statusMessage(2, 0, 0));
        daemon.expect(message(UBUS_MSG_ADD_OBJECT, 3, 0, ""));
        daemon.send(message(UBUS_MSG_DATA, 3, 0, id + "00002003") + statusMessage(3, 0, 0));
        daemon.receive();
        daemon.send(statusMessage(4, 1, 0));

        daemon.greet(0x222);
        daemon.expect(message(UBUS_MSG_ADD_OBJECT, 1, 0, path + "61000000" + empty));
        daemon.send(statusMessage(1, 0, UBUS_STATUS_INVALID_ARGUMENT)); // the name is taken
        daemon.expect(message(UBUS_MSG_ADD_OBJECT, 2, 0, path + "62000000" + empty));
        daemon.send(message(UBUS_MSG_DATA, 2, 0, id + "00004002" + type + "00005001") + statusMessage(2, 0, 0));
        daemon.expect(message(UBUS_MSG_ADD_OBJECT, 3, 0, "")); // the listener, without its pattern
        daemon.send(message(UBUS_MSG_DATA, 3, 0, id + "00004003") + statusMessage(3, 0, 0));
        daemon.expect(message(UBUS_MSG_ADD_OBJECT, 4, 0, path + "61000000" + type + "00005001"));
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
    EXPECT_FALSE(ctx->sock.eof);
    EXPECT_EQ(a.id, 0U);
    EXPECT_EQ(b.id, 0x4002U);
    EXPECT_EQ(listener.obj.id, 0x4003U);
    EXPECT_EQ(ubus_add_object(ctx.get(), &a), UBUS_STATUS_INVALID_ARGUMENT); // forgotten, so it may be added again
}

TEST_F(Connection, ReconnectingMayFailAndBeTriedAgain)
{
    FakeBus bus([](FakeBus& daemon) {
        daemon.greet();
        daemon.expect(message(UBUS_MSG_ADD_OBJECT, 1, 0, ""));
        daemon.send(message(UBUS_MSG_DATA, 1, 0, "0300000800002001") + statusMessage(1, 0, 0));
        daemon.receive();
        daemon.accept();
        daemon.send(message(UBUS_MSG_STATUS, 0, 0x111, ""));
        daemon.greet();
        daemon.receive(); // dies while the object is registered again
        daemon.close();
    });
    Context ctx = connectTo(bus);
    ctx->connection_lost = countLoss;
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
    uloop_timeout end{};
    end.cb = [](uloop_timeout*) { uloop_end(); };
    uloop_timeout_set(&end, 20);
    uloop_run();
    EXPECT_EQ(lostCalls, 1) << "reported by the loop";
}

TEST_F(Connection, HandlesWhatArrivedBeforeTheBreakWhoseCallbackMayFreeTheContext)
{
    FakeBus bus([](FakeBus& daemon) {
        daemon.greet();
        daemon.expect(message(UBUS_MSG_LOOKUP, 1, 0, ""));
        daemon.send(statusMessage(1, 0, UBUS_STATUS_NOT_FOUND));
        daemon.receive();
        daemon.send(message(UBUS_MSG_DATA, 2, 5000, "07000004") + statusMessage(2, 5000, 3));
        daemon.close();
    });
    ubus_context* ctx = connectTo(bus).release();
    ASSERT_TRUE(ctx);
    EXPECT_EQ(ubus_lookup(ctx, nullptr, nullptr, nullptr), UBUS_STATUS_NOT_FOUND);
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
