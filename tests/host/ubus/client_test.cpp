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
std::function<void(FakeBus&)> playBack(const std::string& connection)
{
    return [connection](FakeBus& bus) {
        bus.accept();
        for (const VectorRecord& record : readVectorFile("bus.txt")) {
            if (record.at("conn") != connection)
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

std::string calls; // what the owner's handler saw

int onCall(ubus_context* ctx, ubus_object*, ubus_request_data* req, const char* method, blob_attr* msg)
{
    calls += std::string(method) + jsonOf(msg) + req->acl.user + req->acl.group + req->acl.object + " ";
    if (*method == 's')
        return UBUS_STATUS_NO_DATA;
    Buffer answer(R"({"error_code":0})");
    return ubus_send_reply(ctx, req, answer.head());
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
    calls.clear();

    Context ctx = connectTo(bus);
    ASSERT_TRUE(ctx);
    EXPECT_EQ(ctx->local_id, htonl(0x0185bcb8));
    EXPECT_EQ(ubus_add_object(ctx.get(), &object), 0);
    EXPECT_TRUE(object.id == PTZD_ID && type.id == 0x4b751697U);
    EXPECT_TRUE(waitUntil([&] {
        ubus_handle_event(ctx.get());
        return calls.find("stop") != calls.npos;
    }));
    EXPECT_EQ(calls, R"(moveTo{"x_coord":"30"}rootrootptzd stop{}rootrootptzd )");
    EXPECT_EQ(ubus_remove_object(ctx.get(), &object), 0);
    EXPECT_TRUE(object.id == 0 && type.id == 0);
}

TEST(Golden, ListenerToEvents)
{
    struct Listener : ubus_event_handler {
        std::string heard;
    } listener{};
    listener.cb = [](ubus_context*, ubus_event_handler* ev, const char* type, blob_attr* msg) {
        static_cast<Listener*>(ev)->heard += type + jsonOf(msg);
    };
    FakeBus bus(playBack("L1"));
    Context ctx = connectTo(bus);
    EXPECT_EQ(ubus_register_event_handler(ctx.get(), &listener, "ubus.object.*"), 0);
    EXPECT_EQ(ubus_register_event_handler(ctx.get(), &listener, "motor_rotate_event"), 0);
    EXPECT_TRUE(waitUntil([&] {
        ubus_handle_event(ctx.get());
        return listener.heard.find("remove") != std::string::npos;
    }));
    EXPECT_EQ(listener.heard, R"(ubus.object.add{"id":-251364575,"path":"ptzd"})"
                              R"(motor_rotate_event{"action":"start"})"
                              R"(ubus.object.remove{"id":-251364575,"path":"ptzd"})");
}

TEST(Golden, CallersOfMethods)
{
    struct Call {
        const char* connection;
        const char* method;
        const char* argument; // null: no message
        int status;
        const char* reply;
    };
    for (const Call& call : {Call{"C1", "moveTo", R"({"x_coord":"30"})", 0, R"({"error_code":0})"},
                             Call{"C2", "nosuch", nullptr, UBUS_STATUS_METHOD_NOT_FOUND, ""},
                             Call{"C3", "stop", "{}", UBUS_STATUS_NO_DATA, ""}}) {
        SCOPED_TRACE(call.connection);
        FakeBus bus(playBack(call.connection));
        Context ctx = connectTo(bus);
        uint32_t id = 0;
        EXPECT_EQ(ubus_lookup_id(ctx.get(), "ptzd", &id), 0);
        EXPECT_EQ(id, PTZD_ID);
        Buffer argument(call.argument ? call.argument : "{}");
        std::string reply;
        EXPECT_EQ(ubus_invoke(ctx.get(), id, call.method, call.argument ? argument.head() : nullptr, collectJson,
                              &reply, 5000),
                  call.status);
        EXPECT_EQ(reply, call.reply);
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
    EXPECT_EQ(ubus_send_event(connectTo(bus).get(), "motor_rotate_event", data.head()), 0);
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
    EXPECT_EQ(ubus_invoke(ctx.get(), CALLEE, "m", argument.head(), collectJson, &answer, 5000), 0);
    EXPECT_EQ(answer.size(), LARGEST_TEXT + 8); // {"s":"…"}
    EXPECT_EQ(ubus_invoke(ctx.get(), CALLEE, "m", tooLarge.head(), nullptr, nullptr, 1000),
              UBUS_STATUS_INVALID_ARGUMENT);
}
