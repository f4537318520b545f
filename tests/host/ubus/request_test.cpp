// Requests and their answers, and the calls of a client's own object.

#include <csignal>

#include <gtest/gtest.h>
#include <pthread.h>

#include "fake_bus.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr uint32_t CALLEE = 0x1000;
constexpr uint32_t OWN = 0x2000;
// In the field "s" of a call of "m", whose root may be 1 MiB long: beside it there are the words of the root, the
// arguments and the field (12 bytes), the object's id and the method (16), the field's name (4) and the text's NUL.
constexpr size_t LARGEST_TEXT = 1048576 - 33;
const Bytes OWN_ID = attr(A_OBJID, u32(OWN));
const Bytes METHOD_M = attr(A_METHOD, text("m"));
const Bytes NO_FIELDS = attr(A_DATA, {});

Bytes callOfM(uint16_t seq, const Bytes& fields = {})
{
    return call(seq, CALLEE, "m", fields);
}

// What the callee replies.
Bytes reply(uint16_t seq, const Bytes& fields)
{
    return message(DATA, seq, CALLEE, attr(A_DATA, fields));
}

// A call of the client's own object, and the status that it is answered with.
Bytes incoming(uint16_t seq, uint32_t peer, const Bytes& attributes = OWN_ID + METHOD_M + NO_FIELDS)
{
    return message(INVOKE, seq, peer, attributes);
}

Bytes ownStatus(uint16_t seq, uint32_t peer, uint32_t status)
{
    return message(STATUS, seq, peer, attr(A_STATUS, u32(status)) + OWN_ID);
}

void acceptOwnObject(FakeBus& bus)
{
    bus.greet();
    bus.expect(message(ADD_OBJECT, 1, 0, {}));
    bus.send(message(DATA, 1, 0, OWN_ID) + statusMessage(1, 0, 0));
}

// An anonymous object with one handler, which it registers.
struct OwnObject : ubus_object {
    using Handler = std::function<int(ubus_request_data*, blob_attr*)>;
    OwnObject(const Context& ctx, Handler action) : ubus_object{}, handler(std::move(action))
    {
        static const ubus_method METHODS[] = {UBUS_METHOD_NOARG("m", onCall)};
        methods = METHODS;
        n_methods = 1;
        EXPECT_EQ(ubus_add_object(ctx.get(), this), 0);
        EXPECT_EQ(id, OWN);
    }
    static int onCall(ubus_context*, ubus_object* obj, ubus_request_data* req, const char*, blob_attr* msg)
    {
        return static_cast<OwnObject*>(obj)->handler(req, msg);
    }
    Handler handler;
};

int invokeM(const Context& ctx, int timeoutMs = 5000, std::string* collected = nullptr)
{
    return ubus_invoke(ctx.get(), CALLEE, "m", nullptr, collected ? collectJson : nullptr, collected, timeoutMs);
}

} // namespace

TEST(Request, TakesOnlyItsOwnAnswersAndTheLastOfSeveralMatches)
{
    FakeBus bus([](FakeBus& daemon) {
        const auto found = [](uint16_t seq, uint32_t peer, const Bytes& id) {
            return message(DATA, seq, peer, attr(A_OBJID, id));
        };
        daemon.greet();
        daemon.expect(message(LOOKUP, 1, 0, attr(A_OBJPATH, text("a*"))));
        daemon.send(found(1, 0, u32(0x1001)) + found(1, 0, u32(0x1002)) + found(1, 0, {0xff, 0xff}) +
                    found(2, 0, u32(0x1003)) + found(1, 1, u32(0x1004)) + statusMessage(1, 1, 6) +
                    statusMessage(1, 0, 0));
        daemon.expect(message(LOOKUP, 2, 0, attr(A_OBJPATH, text("h"))));
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
    const std::string large(100000, 'x');
    FakeBus bus([&](FakeBus& daemon) {
        daemon.greet();
        daemon.expect(callOfM(1));
        const Bytes small = reply(1, numberField("n", 1));
        const Bytes all = small + reply(1, stringField("s", large)) + small + small + statusMessage(1, CALLEE, 0);
        size_t at = 0;
        for (const size_t piece : {5U, 6U, 4U, 40U, 3000U, 90000U}) {
            daemon.send(part(all, at, at + piece));
            at += piece;
            std::this_thread::sleep_for(milliseconds(3));
            pthread_kill(waiter, SIGUSR1);
        }
        daemon.send(part(all, at, all.size()));
    });
    std::string replies;
    EXPECT_EQ(invokeM(connectTo(bus), 0, &replies), 0);
    EXPECT_TRUE(replies == R"({"n":1}{"s":")" + large + R"("}{"n":1}{"n":1})") << replies.size();
}

TEST(Request, TimesOutAndIgnoresTheLateAnswer)
{
    FakeBus bus([](FakeBus& daemon) {
        daemon.greet();
        for (uint16_t seq = 1; seq <= 3; ++seq)
            daemon.expect(callOfM(seq));
        daemon.send(reply(1, numberField("late", 1)) + statusMessage(1, CALLEE, 0) + reply(3, numberField("n", 3)) +
                    statusMessage(3, CALLEE, UBUS_STATUS_NO_DATA));
    });
    Context ctx = connectTo(bus);
    auto start = steady_clock::now();
    EXPECT_STREQ(ubus_strerror(invokeM(ctx, 60)), "Request timed out");
    EXPECT_GE(steady_clock::now() - start, milliseconds(59));
    EXPECT_EQ(invokeM(ctx, -1), UBUS_STATUS_TIMEOUT);
    std::string replies;
    EXPECT_EQ(invokeM(ctx, 0, &replies), UBUS_STATUS_NO_DATA);
    EXPECT_EQ(replies, R"({"n":3})");
    EXPECT_STREQ(ubus_strerror(-1), "Unknown error: -1");
}

TEST(Request, HandlersRunAfterTheOutermostWaitAndNeverNest)
{
    FakeBus bus([](FakeBus& daemon) {
        acceptOwnObject(daemon);
        daemon.expect(callOfM(2));
        daemon.send(incoming(7, 10) + incoming(8, 11) + statusMessage(2, CALLEE, 0));
        daemon.expect(callOfM(3)); // made by the first handler
        daemon.send(incoming(9, 12) + statusMessage(3, CALLEE, 0));
        for (uint16_t seq = 7; seq <= 9; ++seq)
            daemon.expect(ownStatus(seq, seq + 3U, UBUS_STATUS_METHOD_NOT_FOUND));
    });
    Context ctx = connectTo(bus);
    std::string order;
    OwnObject object(ctx, [&](ubus_request_data* req, blob_attr*) {
        order += "(" + std::to_string(req->peer);
        if (req->peer == 10) {
            EXPECT_EQ(invokeM(ctx), 0);
        }
        order += ")";
        return UBUS_STATUS_METHOD_NOT_FOUND;
    });
    EXPECT_EQ(invokeM(ctx), 0);
    EXPECT_EQ(order, "(10)(11)(12)");
}

TEST(Request, TheLoopHandlesOneMessageATurnOnceACallHasWaited)
{
    FakeBus bus([](FakeBus& daemon) {
        acceptOwnObject(daemon);
        daemon.send(incoming(5, 10) + incoming(6, 11) + incoming(7, 12) + incoming(8, 13));
        daemon.expect(ownStatus(5, 10, 0));
        daemon.expect(callOfM(2)); // made by the second handler
        daemon.send(statusMessage(2, CALLEE, 0));
        for (uint16_t seq = 6; seq <= 8; ++seq)
            daemon.expect(ownStatus(seq, seq + 5U, 0));
    });
    struct : uloop_timeout {
        std::string order;
    } turn{};
    turn.cb = [](uloop_timeout* self) {
        auto& order = static_cast<decltype(turn)*>(self)->order;
        order += " ";
        if (order.ends_with("13 "))
            uloop_end();
    };
    Context ctx = connectTo(bus);
    OwnObject object(ctx, [&](ubus_request_data* req, blob_attr*) {
        uloop_timeout_set(&turn, 0);
        turn.order += std::to_string(req->peer);
        if (req->peer == 11) {
            EXPECT_EQ(invokeM(ctx), 0);
        }
        return 0;
    });
    ubus_add_uloop(ctx.get());
    uloop_run();
    EXPECT_EQ(turn.order, "10 11 1213 ") << "the two that came in while the second waited are one turn's";
}

TEST(Request, RefusesMalformedCallsAndRepliesAtOnceOrLater)
{
    const Bytes later = attr(A_DATA, numberField("later", 1));
    FakeBus bus([&](FakeBus& daemon) {
        acceptOwnObject(daemon);
        daemon.send(incoming(1, 10, METHOD_M + NO_FIELDS) + // no object, and none of the right size: passed over
                    incoming(2, 10, attr(A_OBJID, {0, 0, 0x20}) + METHOD_M + NO_FIELDS) + message(99, 3, 10, {}) +
                    incoming(5, 10, OWN_ID + attr(A_METHOD, {'m'}) + NO_FIELDS));
        daemon.expect(ownStatus(5, 10, UBUS_STATUS_INVALID_ARGUMENT));
        daemon.send(incoming(6, 10, OWN_ID + METHOD_M)); // no arguments at all
        daemon.expect(ownStatus(6, 10, UBUS_STATUS_INVALID_ARGUMENT));
        daemon.send(incoming(7, 10, OWN_ID + attr(A_METHOD, text("n")) + NO_FIELDS));
        daemon.expect(ownStatus(7, 10, UBUS_STATUS_METHOD_NOT_FOUND));
        // The last valid one of equal attributes counts; unknown ones do not.
        daemon.send(
            incoming(8, 10,
                     attr(A_OBJID, u32(0x9999)) + OWN_ID + attr(A_OBJID, {0xff}) + attr(0x7f, {}) + METHOD_M + later) +
            incoming(9, 11));
        daemon.expect(ownStatus(9, 11, 0));
        daemon.expect(message(DATA, 8, 10, OWN_ID + later));
        daemon.expect(ownStatus(8, 10, UBUS_STATUS_NOT_SUPPORTED));
    });
    Context ctx = connectTo(bus);
    ubus_request_data deferred{};
    int calls = 0;
    OwnObject object(ctx, [&](ubus_request_data* req, blob_attr* msg) {
        if (++calls == 1)
            ubus_defer_request(ctx.get(), req, &deferred);
        EXPECT_EQ(jsonOf(msg), calls == 1 ? R"({"later":1})" : "{}");
        return 0;
    });
    EXPECT_TRUE(handleUntil(ctx.get(), [&] { return calls == 2; }));
    Buffer answer(R"({"later":1})");
    EXPECT_EQ(ubus_send_reply(ctx.get(), &deferred, answer.head()), 0);
    ubus_complete_deferred_request(ctx.get(), &deferred, UBUS_STATUS_NOT_SUPPORTED);
}

TEST(Request, SendsTheLargestMessageToABusThatDoesNotReadYetAndRefusesALargerOne)
{
    const std::string largest(LARGEST_TEXT, 'x');
    FakeBus bus([&](FakeBus& daemon) {
        daemon.greet();
        std::this_thread::sleep_for(milliseconds(400));
        EXPECT_TRUE(daemon.receive() == callOfM(1, stringField("s", largest)));
        daemon.send(statusMessage(1, CALLEE, 0));
    });
    Context ctx = connectTo(bus);
    Buffer argument((R"({"s":")" + largest + "\"}").c_str());
    Buffer tooLarge((R"({"s":")" + largest + "x\"}").c_str());
    ubus_request req;
    const auto before = processorTime();
    EXPECT_EQ(ubus_invoke_async(ctx.get(), CALLEE, "m", argument.head(), &req), 0);
    EXPECT_LT(processorTime() - before, milliseconds(300)) << "it waits asleep";
    EXPECT_EQ(ubus_complete_request(ctx.get(), &req, 5000), 0);
    EXPECT_EQ(ubus_invoke(ctx.get(), CALLEE, "m", tooLarge.head(), nullptr, nullptr, 1000),
              UBUS_STATUS_INVALID_ARGUMENT);
}

TEST(Request, AsyncOnesCompleteAndAbortOutsideTheLoop)
{
    FakeBus bus([](FakeBus& daemon) {
        daemon.greet();
        daemon.expect(callOfM(1));
        daemon.expect(callOfM(2));
        daemon.send(reply(1, numberField("n", 1)) + statusMessage(1, CALLEE, 0) + reply(2, numberField("n", 2)) +
                    statusMessage(2, CALLEE, UBUS_STATUS_NOT_FOUND));
    });
    Context ctx = connectTo(bus);
    static int ended;
    ended = -1;
    std::string replies;
    ubus_request aborted, kept;
    for (ubus_request* req : {&aborted, &kept}) {
        EXPECT_EQ(ubus_invoke_async(ctx.get(), CALLEE, "m", nullptr, req), 0);
        req->data_cb = collectJson;
        req->complete_cb = [](ubus_request*, int status) { ended = status; };
        req->priv = &replies;
        ubus_complete_request_async(ctx.get(), req);
    }
    ubus_abort_request(ctx.get(), &aborted);
    EXPECT_TRUE(handleUntil(ctx.get(), [&] { return ended >= 0; }));
    EXPECT_EQ(ended, UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(replies, R"({"n":2})");
}
