// Plays the captured conversation to the client: what it receives and what it must send, byte for byte.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "fake_bus.h"

namespace {

// The daemon's side of one connection of the capture.
FakeBus::Script playBack(const std::string& connection)
{
    return [connection](FakeBus& bus) {
        bus.accept();
        for (const VectorRecord& record : readVectorFile("bus.txt")) {
            if (record.text("conn") != connection)
                continue;
            SCOPED_TRACE("message " + record.text("msg"));
            if (record.text("dir") == "from-daemon")
                bus.send(record.bytes("hex"));
            else
                bus.expect(record.bytes("hex"));
        }
        bus.expectEnd();
    };
}

constexpr uint32_t PTZD_ID = 0xf1047b21;

std::string calls; // what the owner's handlers saw

int onMoveTo(ubus_context* ctx, ubus_object* obj, ubus_request_data* req, const char* method, blob_attr* msg)
{
    calls += std::string(method) + jsonOf(msg) + req->acl.user + req->acl.group + req->acl.object + " ";
    EXPECT_EQ(req->object, obj->id);
    EXPECT_EQ(req->peer, 0x0fff92beU);
    Buffer reply(R"({"error_code":0})");
    EXPECT_EQ(ubus_send_reply(ctx, req, reply.head()), 0);
    return 0;
}

int onStop(ubus_context*, ubus_object*, ubus_request_data*, const char* method, blob_attr* msg)
{
    calls += method + jsonOf(msg);
    return UBUS_STATUS_NO_DATA;
}

const blobmsg_policy moveToPolicy[] = {{"x_coord", BLOBMSG_TYPE_STRING}, {"y_coord", BLOBMSG_TYPE_STRING}};
const ubus_method ptzdMethods[] = {UBUS_METHOD("moveTo", onMoveTo, moveToPolicy), UBUS_METHOD_NOARG("stop", onStop)};

} // namespace

TEST(Golden, OwnerOfAnObject)
{
    FakeBus bus(playBack("S1"));
    ubus_object_type type = UBUS_OBJECT_TYPE("rcvMsg", ptzdMethods);
    ubus_object object{};
    object.name = "ptzd";
    object.type = &type;
    object.methods = ptzdMethods;
    object.n_methods = 2;
    calls.clear();

    Context ctx = connectTo(bus);
    ASSERT_TRUE(ctx);
    EXPECT_EQ(ctx->local_id, htonl(0x0185bcb8));
    EXPECT_EQ(ubus_add_object(ctx.get(), &object), 0);
    EXPECT_EQ(object.id, PTZD_ID);
    EXPECT_EQ(type.id, 0x4b751697U);
    EXPECT_TRUE(handleUntil(ctx.get(), [] { return calls.ends_with("stop{}"); }));
    EXPECT_EQ(calls, R"(moveTo{"x_coord":"30"}rootrootptzd stop{})");
    EXPECT_EQ(ubus_remove_object(ctx.get(), &object), 0);
    EXPECT_EQ(object.id, 0U);
    EXPECT_EQ(type.id, 0U);
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
    EXPECT_TRUE(handleUntil(ctx.get(), [&] { return listener.heard.find("remove") != std::string::npos; }));
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
    auto collect = [](ubus_context*, ubus_object_data* obj, void* priv) {
        EXPECT_EQ(obj->id, PTZD_ID);
        EXPECT_EQ(obj->type_id, 0x4b751697U);
        *static_cast<std::string*>(priv) += obj->path + jsonOf(obj->signature);
    };
    EXPECT_EQ(ubus_lookup(connectTo(all).get(), nullptr, collect, &found), 0);
    EXPECT_EQ(found, R"(ptzd{"moveTo":{"x_coord":3,"y_coord":3},"stop":{}})");

    FakeBus bus(playBack("C6"));
    Buffer data(R"({"action":"start"})");
    EXPECT_EQ(ubus_send_event(connectTo(bus).get(), "motor_rotate_event", data.head()), 0);
}
