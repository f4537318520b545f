// The bus client: the captured conversation played back to it, byte for byte, and requests and their answers.
#include "fake_bus.h"

#include <arpa/inet.h>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr uint32_t PTZD_ID = 0xf1047b21; // in the capture
constexpr uint32_t CALLEE = 0x1000;      // in the other tests
// In the field "s" of a call of "m", whose root may be 1 MiB long: beside it there are the words of the root, the
// arguments and the field (12 bytes), the object's id and the method (16), the field's name (4) and the text's NUL.
constexpr size_t LARGEST_TEXT = 1048576 - 33;

// The daemon's side of one connection of the capture.
std::function<void(FakeBus&)> playBack(const std::string& connection, const char* file = "bus.txt")
{
    return [connection, file](FakeBus& bus) {
        bus.accept();
        for (const VectorRecord& record : readVectorFile(file)) {
            if (record.at("conn") != connection || record.contains("only"))
                continue;
            SCOPED_TRACE("message " + record.at("msg"));
            if (record.at("dir") == "from-daemon")
                bus.client.send(bytesFromHex(record.at("hex")));
            else
                bus.expect(bytesFromHex(record.at("hex")));
        }
        EXPECT_TRUE(bus.client.receive().empty());
    };
}

Bytes callOfM(uint16_t seq, const Bytes& fields = {})
{
    return call(seq, CALLEE, "m", fields);
}

// What the callee replies.
Bytes reply(uint16_t seq, const Bytes& fields)
{
    return message(DATA, seq, CALLEE, attr(A_DATA, fields));
}

std::string calls; // what the callbacks saw

int onCall(ubus_context* ctx, ubus_object*, ubus_request_data* req, const char* method, blob_attr* msg)
{
    calls += std::string(method) + jsonOf(msg) + req->acl.user + req->acl.group + req->acl.object + " ";
    if (*method == 's')
        return UBUS_STATUS_NO_DATA;
    Buffer answer(R"({"error_code":0})");
    return ubus_send_reply(ctx, req, answer.head);
}

int onNotification(ubus_context*, ubus_object*, ubus_request_data*, const char* type, blob_attr* msg)
{
    calls += type + jsonOf(msg) + " ";
    return UBUS_STATUS_OK;
}

// Handles what comes until the callbacks have seen this.
void expectCalls(const Context& ctx, const std::string& expected)
{
    EXPECT_TRUE(waitUntil([&] {
        ubus_handle_event(ctx.get());
        return calls.size() >= expected.size();
    }));
    EXPECT_EQ(std::exchange(calls, ""), expected);
}

} // namespace

TEST(Golden, OwnerOfAnObject)
{
    const blobmsg_policy policy[] = {{"x_coord", BLOBMSG_TYPE_STRING}, {"y_coord", BLOBMSG_TYPE_STRING}};
    const ubus_method methods[] = {UBUS_METHOD("moveTo", onCall, policy), UBUS_METHOD_NOARG("stop", onCall)};
    FakeBus bus(playBack("S1"));
    ubus_object_type type = UBUS_OBJECT_TYPE("rcvMsg", methods);
    ubus_object object{};
    object.name = "ptzd";
    object.type = &type;
    object.methods = methods;
    object.n_methods = 2;

    Context ctx = connectTo(bus);
    ASSERT_TRUE(ctx);
    EXPECT_EQ(ctx->local_id, htonl(0x0185bcb8));
    EXPECT_EQ(ubus_add_object(ctx.get(), &object), 0);
    EXPECT_TRUE(object.id == PTZD_ID && type.id == 0x4b751697U);
    expectCalls(ctx, R"(moveTo{"x_coord":"30"}rootrootptzd stop{}rootrootptzd )");
    EXPECT_EQ(ubus_remove_object(ctx.get(), &object), 0);
    EXPECT_TRUE(object.id == 0 && type.id == 0);
}

TEST(Golden, ListenerToEvents)
{
    ubus_event_handler listener{};
    listener.cb = [](ubus_context* ctx, ubus_event_handler* ev, const char* type, blob_attr* msg) {
        (void)onNotification(ctx, &ev->obj, nullptr, type, msg);
    };
    FakeBus bus(playBack("L1"));
    Context ctx = connectTo(bus);
    EXPECT_EQ(ubus_register_event_handler(ctx.get(), &listener, "ubus.object.*"), 0);
    EXPECT_EQ(ubus_register_event_handler(ctx.get(), &listener, "motor_rotate_event"), 0);
    expectCalls(ctx, R"(ubus.object.add{"id":-251364575,"path":"ptzd"} motor_rotate_event{"action":"start"} )"
                     R"(ubus.object.remove{"id":-251364575,"path":"ptzd"} )");
}

TEST(Golden, PublisherAndSubscriber)
{
    FakeBus publishers(playBack("P1", "subscriptions.txt")), subscribers(playBack("N1", "subscriptions.txt"));
    const Context publisher = connectTo(publishers), notified = connectTo(subscribers);
    ubus_object object{};
    object.subscribe_cb = [](ubus_context*, ubus_object* obj) { calls += obj->has_subscribers ? "first" : "none"; };
    EXPECT_EQ(ubus_add_object(publisher.get(), &object), 0);
    expectCalls(publisher, "first");
    Buffer data(R"({"state":"idle","x":"1"})");
    EXPECT_EQ(ubus_notify(publisher.get(), &object, "motion", data.head, -1), 0);

    ubus_subscriber subscriber{};
    subscriber.cb = onNotification;
    subscriber.remove_cb = [](ubus_context*, ubus_subscriber*, uint32_t id) { calls += hex(u32(id)); };
    EXPECT_EQ(ubus_register_subscriber(notified.get(), &subscriber), 0);
    EXPECT_EQ(ubus_unsubscribe(notified.get(), &subscriber, object.id), UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(ubus_subscribe(notified.get(), &subscriber, object.id), 0);
    const std::string motion = R"(motion{"state":"idle","x":"1"} )";
    expectCalls(notified, motion + motion + "c89a6368");
}

TEST(Golden, CallersOfMethods)
{
    for (const auto& [connection, method, argument, status, expected] :
         {std::tuple{"C1", "moveTo", R"({"x_coord":"30"})", 0, R"({"error_code":0})"},
          {"C2", "nosuch", nullptr, UBUS_STATUS_METHOD_NOT_FOUND, ""},
          {"C3", "stop", "{}", UBUS_STATUS_NO_DATA, ""}}) {
        SCOPED_TRACE(connection);
        FakeBus bus(playBack(connection));
        Context ctx = connectTo(bus);
        uint32_t id = 0;
        EXPECT_EQ(ubus_lookup_id(ctx.get(), "ptzd", &id), 0);
        EXPECT_EQ(id, PTZD_ID);
        Buffer message(argument ? argument : "{}");
        std::string reply;
        EXPECT_EQ(ubus_invoke(ctx.get(), id, method, argument ? message.head : nullptr, collectJson, &reply, 5000),
                  status);
        EXPECT_EQ(reply, expected);
    }
}

TEST(Golden, LookupsAndAnEvent)
{
    FakeBus missing(playBack("C4"));
    uint32_t id = 77;
    EXPECT_EQ(ubus_lookup_id(connectTo(missing).get(), "nosuch", &id), UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(id, 77U);

    FakeBus all(playBack("C5"));
    std::string found;
    const auto collect = [](ubus_context*, ubus_object_data* obj, void* priv) {
        EXPECT_EQ(obj->id, PTZD_ID);
        *static_cast<std::string*>(priv) += obj->path + jsonOf(obj->signature);
    };
    EXPECT_EQ(ubus_lookup(connectTo(all).get(), nullptr, collect, &found), 0);
    EXPECT_EQ(found, R"(ptzd{"moveTo":{"x_coord":3,"y_coord":3},"stop":{}})");

    FakeBus bus(playBack("C6"));
    Buffer data(R"({"action":"start"})");
    EXPECT_EQ(ubus_send_event(connectTo(bus).get(), "motor_rotate_event", data.head), 0);
}

TEST(Request, TimesOutAndIgnoresTheLateAnswer)
{
    FakeBus bus([](FakeBus& daemon) {
        daemon.greet();
        for (uint16_t seq = 1; seq <= 3; ++seq)
            daemon.expect(callOfM(seq));
        daemon.client.send(reply(1, numberField("late", 1)) + statusMessage(1, CALLEE, 0) +
                           reply(3, numberField("n", 3)) + statusMessage(3, CALLEE, UBUS_STATUS_NO_DATA));
    });
    const Context ctx = connectTo(bus);
    std::string replies;
    const auto invoke = [&](int timeoutMs) {
        return ubus_invoke(ctx.get(), CALLEE, "m", nullptr, collectJson, &replies, timeoutMs);
    };
    const auto start = steady_clock::now();
    EXPECT_STREQ(ubus_strerror(invoke(60)), "Request timed out");
    EXPECT_GE(steady_clock::now() - start, milliseconds(59));
    EXPECT_EQ(invoke(-1), UBUS_STATUS_TIMEOUT);
    EXPECT_EQ(invoke(0), UBUS_STATUS_NO_DATA);
    EXPECT_EQ(replies, R"({"n":3})");
    EXPECT_STREQ(ubus_strerror(-1), "Unknown error: -1");
}

TEST(Subscription, WaitsBehindACallAndEndsWithTheConnection)
{
    constexpr uint32_t OWN = 0x2000;
    const auto registerOne = [](FakeBus& daemon) {
        daemon.greet();
        daemon.client.receive();
        daemon.client.send(message(DATA, 1, 0, attr(A_OBJID, u32(OWN))) + statusMessage(1, 0, 0));
    };
    FakeBus bus([&](FakeBus& daemon) {
        registerOne(daemon);
        daemon.expect(callOfM(2));
        daemon.client.send(unanswered(INVOKE, OWN, "early", {}) + reply(2, {}) + statusMessage(2, CALLEE, 0) +
                           unanswered(INVOKE, OWN, "late", {}) +
                           message(NOTIFY, 1, 0, attr(A_OBJID, u32(OWN)) + attr(A_ACTIVE, {1})));
        daemon.expect({}); // no answer
        registerOne(daemon);
    });
    const Context ctx = connectTo(bus);
    ubus_subscriber both{}; // also a publisher
    both.cb = onNotification;
    EXPECT_EQ(ubus_register_subscriber(ctx.get(), &both), 0);
    const auto onReply = [](ubus_request*, int, blob_attr*) { calls += "reply "; };
    EXPECT_EQ(ubus_invoke(ctx.get(), CALLEE, "m", nullptr, onReply, nullptr, 5000), 0);
    EXPECT_EQ(std::exchange(calls, ""), "reply early{} ");
    expectCalls(ctx, "late{} ");
    ubus_handle_event(ctx.get());
    EXPECT_TRUE(both.obj.has_subscribers);
    EXPECT_EQ(ubus_reconnect(ctx.get(), bus.path.c_str()), 0);
    EXPECT_TRUE(both.obj.id == OWN && !both.obj.has_subscribers);
}

TEST(Request, SendsTheLargestMessageToABusThatDoesNotReadYetAndReadsOneInPieces)
{
    const std::string largest(LARGEST_TEXT, 'x');
    FakeBus bus([&](FakeBus& daemon) {
        daemon.greet();
        std::this_thread::sleep_for(milliseconds(100));
        EXPECT_TRUE(daemon.client.receive() == callOfM(1, stringField("s", largest)));
        const Bytes answer = reply(1, stringField("s", largest)) + statusMessage(1, CALLEE, 0);
        for (const auto& [from, to] : {std::pair<size_t, size_t>{0, 5}, {5, 11}, {11, 5000}, {5000, answer.size()}}) {
            daemon.client.send(part(answer, from, to));
            std::this_thread::sleep_for(milliseconds(3));
        }
    });
    const Context ctx = connectTo(bus);
    Buffer argument((R"({"s":")" + largest + "\"}").c_str());
    Buffer tooLarge((R"({"s":")" + largest + "x\"}").c_str());
    std::string answer;
    EXPECT_EQ(ubus_invoke(ctx.get(), CALLEE, "m", argument.head, collectJson, &answer, 5000), 0);
    EXPECT_EQ(answer.size(), LARGEST_TEXT + 8); // {"s":"…"}
    EXPECT_EQ(ubus_invoke(ctx.get(), CALLEE, "m", tooLarge.head, nullptr, nullptr, 1000), UBUS_STATUS_INVALID_ARGUMENT);
}
