#include <chrono>
#include <csignal>

#include <gtest/gtest.h>
#include <pthread.h>

#include "fake_bus.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr uint32_t CALLEE = 0x1000;
constexpr uint32_t OWN = 0x2000;
// In the field "s" of a call of "m": beside it there are the words of the root, the arguments and the field (12 bytes),
// the object's id and the method (16), the field's name (4) and the text's NUL.
constexpr size_t LARGEST_TEXT = UBUS_MAX_MSGLEN - 33;
const std::string OWN_ID = "0300000800002000";
const std::string METHOD_M = "040000066d000000";
const std::string NO_FIELDS = "07000004";

std::string callOfM(unsigned seq)
{
    return message(UBUS_MSG_INVOKE, seq, CALLEE, "0300000800001000" + METHOD_M + NO_FIELDS);
}

// A call of the client's own object, and the status that it is answered with.
std::string incoming(unsigned seq, uint32_t peer, const std::string& method = METHOD_M)
{
    return message(UBUS_MSG_INVOKE, seq, peer, OWN_ID + method + NO_FIELDS);
}

std::string ownStatus(unsigned seq, uint32_t peer, const std::string& status)
{
    return message(UBUS_MSG_STATUS, seq, peer, "01000008" + status + OWN_ID);
}

std::string dataOf(const char* json)
{
    JsonMessage fields(json);
    blob_attr* head = fields.get();
    head->id_len |= cpu_to_be32(UBUS_ATTR_DATA << BLOB_ATTR_ID_SHIFT);
    return hexFromBytes(head, blob_raw_len(head));
}

void acceptOwnObject(FakeBus& bus)
{
    bus.greet();
    bus.expect(message(UBUS_MSG_ADD_OBJECT, 1, 0, ""));
    bus.send(message(UBUS_MSG_DATA, 1, 0, OWN_ID) + statusMessage(1, 0, 0));
}

// An anonymous object with one handler.
struct OwnObject : ubus_object {
    using Handler = std::function<int(ubus_request_data*, blob_attr*)>;
    explicit OwnObject(Handler action) : ubus_object{}, handler(std::move(action))
    {
        static const ubus_method METHODS[] = {UBUS_METHOD_NOARG("m", onCall)};
        methods = METHODS;
        n_methods = 1;
    }
    static int onCall(ubus_context*, ubus_object* obj, ubus_request_data* req, const char*, blob_attr* msg)
    {
        return static_cast<OwnObject*>(obj)->handler(req, msg);
    }
    Handler handler;
};

int invokeM(ubus_context* ctx, int timeoutMs = 5000, std::string* reply = nullptr)
{
    return ubus_invoke(ctx, CALLEE, "m", nullptr, reply ? collectJson : nullptr, reply, timeoutMs);
}

} // namespace

TEST(Request, TakesOnlyItsOwnAnswersAndTheLastOfSeveralMatches)
{
    FakeBus bus([](FakeBus& daemon) {
        daemon.greet();
        daemon.expect(message(UBUS_MSG_LOOKUP, 1, 0, "02000007612a0000"));
        daemon.send(message(UBUS_MSG_DATA, 1, 0, "0300000800001001") +
                    message(UBUS_MSG_DATA, 1, 0, "0300000800001002") +
                    message(UBUS_MSG_DATA, 1, 0, "03000006ffff0000") + // an id of the wrong size
                    message(UBUS_MSG_DATA, 2, 0, "0300000800001003") + // another sequence number
                    message(UBUS_MSG_DATA, 1, 1, "0300000800001004") + // another peer
                    statusMessage(1, 1, 6) + statusMessage(1, 0, 0));
        daemon.expect(message(UBUS_MSG_LOOKUP, 2, 0, "0200000668000000"));
        daemon.send(statusMessage(2, 0, 0));
    });
    Context ctx = connectTo(bus);
    uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx.get(), "a*", &id), 0);
    EXPECT_EQ(id, 0x1002U);
    EXPECT_EQ(ubus_lookup_id(ctx.get(), "h", &id), 0); // hidden: a status of 0 and no data
    EXPECT_EQ(id, 0x1002U);
}

TEST(Request, ReadsMessagesInPiecesAndManyAtOnceAmidSignals)
{
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    const pthread_t waiter = pthread_self();
    const std::string text(100000, 'x');
    const std::string json = R"({"s":")" + text + R"("})";
    FakeBus bus([&](FakeBus& daemon) {
        daemon.greet();
        daemon.expect(callOfM(1));
        std::string small = message(UBUS_MSG_DATA, 1, CALLEE, dataOf(R"({"n":1})"));
        std::string all = small + message(UBUS_MSG_DATA, 1, CALLEE, dataOf(json.c_str())) + small + small +
                          statusMessage(1, CALLEE, 0);
        for (size_t piece : {5U, 6U, 4U, 40U, 3000U, 90000U}) {
            daemon.send(all.substr(0, 2 * piece));
            all.erase(0, 2 * piece);
            std::this_thread::sleep_for(milliseconds(3));
            pthread_kill(waiter, SIGUSR1);
        }
        daemon.send(all);
    });
    std::string reply;
    EXPECT_EQ(invokeM(connectTo(bus).get(), 0, &reply), 0);
    EXPECT_TRUE(reply == R"({"n":1})" + json + R"({"n":1}{"n":1})") << reply.size();
}

TEST(Request, TimesOutAndIgnoresTheLateAnswer)
{
    FakeBus bus([](FakeBus& daemon) {
        daemon.greet();
        daemon.expect(callOfM(1));
        daemon.expect(callOfM(2));
        daemon.expect(callOfM(3));
        daemon.send(message(UBUS_MSG_DATA, 1, CALLEE, dataOf(R"({"late":1})")) + statusMessage(1, CALLEE, 0) +
                    message(UBUS_MSG_DATA, 3, CALLEE, dataOf(R"({"n":3})")) + statusMessage(3, CALLEE, 5));
    });
    Context ctx = connectTo(bus);
    auto start = steady_clock::now();
    EXPECT_STREQ(ubus_strerror(invokeM(ctx.get(), 60)), "Request timed out");
    EXPECT_GE(steady_clock::now() - start, milliseconds(59));
    EXPECT_EQ(invokeM(ctx.get(), -1), UBUS_STATUS_TIMEOUT);
    std::string reply;
    EXPECT_EQ(invokeM(ctx.get(), 0, &reply), UBUS_STATUS_NO_DATA);
    EXPECT_EQ(reply, R"({"n":3})");
    EXPECT_STREQ(ubus_strerror(14), "Unknown error: 14");
    EXPECT_STREQ(ubus_strerror(-1), "Unknown error: -1");
}

TEST(Request, HandlersRunAfterTheOutermostWaitAndNeverNest)
{
    FakeBus bus([](FakeBus& daemon) {
        acceptOwnObject(daemon);
        daemon.expect(callOfM(2));
        daemon.send(incoming(7, 0xa) + incoming(8, 0xb) + statusMessage(2, CALLEE, 0));
        daemon.expect(callOfM(3)); // made by the first handler
        daemon.send(incoming(9, 0xc) + statusMessage(3, CALLEE, 0));
        daemon.expect(ownStatus(7, 0xa, "00000000"));
        daemon.expect(ownStatus(8, 0xb, "00000000"));
        daemon.expect(ownStatus(9, 0xc, "00000000"));
        daemon.expect(callOfM(4)); // in the loop, which the handler is left to
        daemon.send(incoming(5, 0xd) + statusMessage(4, CALLEE, 0));
        daemon.expect(ownStatus(5, 0xd, "00000003"));
    });
    Context ctx = connectTo(bus);
    std::string order;
    OwnObject object([&](ubus_request_data* req, blob_attr*) {
        order += "(" + std::to_string(req->peer);
        if (req->peer == 0xa) {
            EXPECT_EQ(invokeM(ctx.get()), 0);
        }
        order += ")";
        if (req->peer == 0xd)
            uloop_end();
        return req->peer == 0xd ? UBUS_STATUS_METHOD_NOT_FOUND : UBUS_STATUS_OK;
    });
    EXPECT_EQ(ubus_add_object(ctx.get(), &object), 0);
    EXPECT_EQ(object.id, OWN);
    EXPECT_EQ(invokeM(ctx.get()), 0);
    EXPECT_EQ(order, "(10)(11)(12)");
    ubus_add_uloop(ctx.get());
    EXPECT_EQ(invokeM(ctx.get()), 0);
    EXPECT_EQ(order, "(10)(11)(12)");
    uloop_run();
    EXPECT_EQ(order, "(10)(11)(12)(13)");
}

TEST(Request, ADataCallbackMayWaitForAnotherRequest)
{
    FakeBus bus([](FakeBus& daemon) {
        daemon.greet();
        daemon.expect(callOfM(1));
        daemon.send(message(UBUS_MSG_DATA, 1, CALLEE, dataOf(R"({"n":1})")));
        daemon.expect(message(UBUS_MSG_LOOKUP, 2, 0, "0200000668000000"));
        daemon.send(message(UBUS_MSG_DATA, 1, CALLEE, dataOf(R"({"n":2})")) + statusMessage(1, CALLEE, 0));
        std::this_thread::sleep_for(milliseconds(20));
        daemon.send(statusMessage(2, 0, 4));
        daemon.expect(message(UBUS_MSG_LOOKUP, 3, 0, "0200000668000000"));
        daemon.send(statusMessage(3, 0, 4));
    });
    Context ctx = connectTo(bus);
    std::string order;
    auto waitInside = [](ubus_request* req, int, blob_attr* msg) {
        auto& text = *static_cast<std::string*>(req->priv);
        uint32_t id = 0;
        text += "<" + jsonOf(msg);
        EXPECT_EQ(ubus_lookup_id(req->ctx, "h", &id), UBUS_STATUS_NOT_FOUND);
        text += jsonOf(msg) + ">";
    };
    EXPECT_EQ(ubus_invoke(ctx.get(), CALLEE, "m", nullptr, waitInside, &order, 5000), 0);
    EXPECT_EQ(order, R"(<{"n":1}{"n":1}><{"n":2}{"n":2}>)");
}

TEST(Request, RepliesMayBeDeferred)
{
    FakeBus bus([](FakeBus& daemon) {
        acceptOwnObject(daemon);
        daemon.send(incoming(5, 0xa) + incoming(6, 0xb));
        daemon.expect(ownStatus(6, 0xb, "00000000"));
        daemon.expect(message(UBUS_MSG_DATA, 5, 0xa, OWN_ID + dataOf(R"({"n":1})")));
        daemon.expect(ownStatus(5, 0xa, "00000008"));
    });
    Context ctx = connectTo(bus);
    ubus_request_data later{};
    int seen = 0;
    OwnObject object([&](ubus_request_data* req, blob_attr*) {
        if (++seen == 1)
            ubus_defer_request(ctx.get(), req, &later);
        return 0;
    });
    EXPECT_EQ(ubus_add_object(ctx.get(), &object), 0);
    EXPECT_TRUE(handleUntil(ctx.get(), [&] { return seen == 2; }));
    JsonMessage reply(R"({"n":1})");
    EXPECT_EQ(ubus_send_reply(ctx.get(), &later, reply.get()), 0);
    ubus_complete_deferred_request(ctx.get(), &later, UBUS_STATUS_NOT_SUPPORTED);
}

TEST(Request, MalformedCallsAreRefusedOrPassedOver)
{
    FakeBus bus([](FakeBus& daemon) {
        acceptOwnObject(daemon);
        daemon.send(message(UBUS_MSG_INVOKE, 1, 0xa, METHOD_M + NO_FIELDS) +                      // no object
                    message(UBUS_MSG_INVOKE, 2, 0xa, "03000007002000ff" + METHOD_M + NO_FIELDS) + // of 3 bytes
                    message(UBUS_MSG_NOTIFY, 3, 0xa, OWN_ID + METHOD_M + NO_FIELDS) + message(99, 3, 0xa, "") +
                    message(UBUS_MSG_INVOKE, 4, 0xa, "0300000800002001" + METHOD_M + NO_FIELDS)); // unknown object
        daemon.expect(message(UBUS_MSG_STATUS, 4, 0xa, "01000008000000040300000800002001"));
        daemon.send(message(UBUS_MSG_INVOKE, 5, 0xa, OWN_ID + "040000056d000000" + NO_FIELDS)); // text without its end
        daemon.expect(ownStatus(5, 0xa, "00000002"));
        daemon.send(message(UBUS_MSG_INVOKE, 6, 0xa, OWN_ID + METHOD_M)); // no arguments at all
        daemon.expect(ownStatus(6, 0xa, "00000002"));
        daemon.send(incoming(7, 0xa, "040000066e000000")); // another method
        daemon.expect(ownStatus(7, 0xa, "00000003"));
        // The last valid one of equal attributes counts, unknown ones and a cut-off tail do not.
        daemon.send(
            message(UBUS_MSG_INVOKE, 8, 0xa,
                    "0300000800009999" + OWN_ID + "03000005ff000000" + "7f000004" + METHOD_M + NO_FIELDS + "07ffffff"));
        daemon.expect(ownStatus(8, 0xa, "00000000"));
    });
    Context ctx = connectTo(bus);
    int calls = 0;
    OwnObject object([&](ubus_request_data*, blob_attr* msg) {
        EXPECT_EQ(blob_len(msg), 0U);
        ++calls;
        return 0;
    });
    EXPECT_EQ(ubus_add_object(ctx.get(), &object), 0);
    EXPECT_EQ(ubus_add_object(ctx.get(), &object), UBUS_STATUS_INVALID_ARGUMENT); // is registered already
    EXPECT_TRUE(handleUntil(ctx.get(), [&] { return calls == 1; }));
}

TEST(Request, SendsTheLargestMessageToABusThatDoesNotReadYetAndRefusesALargerOne)
{
    const std::string json = R"({"s":")" + std::string(LARGEST_TEXT, 'x') + R"("})";
    FakeBus bus([&](FakeBus& daemon) {
        acceptOwnObject(daemon);
        std::this_thread::sleep_for(milliseconds(400));
        std::string expected =
            message(UBUS_MSG_INVOKE, 2, CALLEE, "0300000800001000" + METHOD_M + dataOf(json.c_str()));
        Bytes bytes = daemon.receive();
        EXPECT_TRUE(hexFromBytes(bytes.data(), bytes.size()) == expected);
        daemon.send(incoming(3, 0xa) + statusMessage(2, CALLEE, 0));
        daemon.expect(ownStatus(3, 0xa, "00000000"));
    });
    Context ctx = connectTo(bus);
    JsonMessage argument(json.c_str());
    const std::string more = R"({"s":")" + std::string(LARGEST_TEXT + 1, 'x') + R"("})";
    JsonMessage tooLarge(more.c_str());
    int replied = -1;
    OwnObject object([&](ubus_request_data* req, blob_attr*) {
        JsonMessage larger((R"({"t":)" + more + "}").c_str());
        replied = ubus_send_reply(ctx.get(), req, larger.get());
        return 0;
    });
    EXPECT_EQ(ubus_add_object(ctx.get(), &object), 0);
    ubus_request req;
    long before = processorMs();
    EXPECT_EQ(ubus_invoke_async(ctx.get(), CALLEE, "m", argument.get(), &req), 0);
    EXPECT_LT(processorMs() - before, 300);
    EXPECT_EQ(ubus_complete_request(ctx.get(), &req, 5000), 0);
    EXPECT_EQ(ubus_invoke(ctx.get(), CALLEE, "m", tooLarge.get(), nullptr, nullptr, 1000),
              UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_TRUE(handleUntil(ctx.get(), [&] { return replied >= 0; }));
    EXPECT_EQ(replied, UBUS_STATUS_NO_DATA);
}

TEST(AsyncRequest, CompletesAndAbortsOutsideTheLoop)
{
    FakeBus bus([](FakeBus& daemon) {
        daemon.greet();
        daemon.expect(callOfM(1));
        daemon.expect(callOfM(2));
        daemon.send(message(UBUS_MSG_DATA, 1, CALLEE, dataOf(R"({"n":1})")) + statusMessage(1, CALLEE, 0) +
                    message(UBUS_MSG_DATA, 2, CALLEE, dataOf(R"({"n":2})")) + statusMessage(2, CALLEE, 4));
    });
    Context ctx = connectTo(bus);
    std::string reply;
    int ended = -1;
    struct Request : ubus_request {
        int* ended;
    } aborted{}, kept{};
    for (Request* req : {&aborted, &kept}) {
        EXPECT_EQ(ubus_invoke_async(ctx.get(), CALLEE, "m", nullptr, req), 0);
        req->data_cb = collectJson;
        req->complete_cb = [](ubus_request* self, int status) { *static_cast<Request*>(self)->ended = status; };
        req->priv = &reply;
        req->ended = &ended;
        ubus_complete_request_async(ctx.get(), req);
    }
    ubus_abort_request(ctx.get(), &aborted);
    EXPECT_TRUE(handleUntil(ctx.get(), [&] { return ended >= 0; }));
    EXPECT_EQ(ended, UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(reply, R"({"n":2})");
    EXPECT_FALSE(ctx->sock.eof);
}
