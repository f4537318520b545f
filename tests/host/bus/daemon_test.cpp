// The bus daemon: the golden conversation, and what it does not show.

#include "bus_test.h"

namespace {

enum : uint32_t { OK = 0, INVALID_COMMAND = 1, INVALID_ARGUMENT = 2, NOT_FOUND = 4, PERMISSION_DENIED = 6 };

constexpr size_t MAX_ROOT = 1048576;
constexpr size_t QUEUE = 1048576;

// The ids that the golden daemon gave out, which are random, and what they are this time.
using Ids = std::map<uint32_t, uint32_t>;

// Ids are given out in greetings and in the answers to ADD_OBJECT only.
void learn(Ids& ids, const Bytes& golden, const Bytes& actual)
{
    if (golden.at(1) == HELLO)
        ids[u32At(golden, 4)] = u32At(actual, 4);
    for (const uint8_t id : {A_OBJID, A_OBJTYPE}) {
        const Bytes value = find(golden, id), now = find(actual, id);
        if (golden[1] == DATA && !value.empty() && !now.empty())
            ids.emplace(u32At(value, 0), u32At(now, 0));
    }
}

// All ids stand at multiples of 4.
Bytes translate(const Ids& ids, Bytes golden)
{
    for (size_t at = 4; at + 4 <= golden.size(); at += 4) {
        const auto id = ids.find(u32At(golden, at));
        if (id != ids.end())
            std::ranges::copy(u32(id->second), golden.begin() + static_cast<ptrdiff_t>(at));
    }
    return golden;
}

// The caller was root, in group root; now it is whoever runs the test.
Bytes withoutNames(const Bytes& call)
{
    Bytes rest;
    for (size_t at = FRAME, end = 0; at < call.size(); at = end) {
        end = std::min(at + 4 + ((u32At(call, at) - 1) & 0xfffffc), call.size());
        if (call[at] != A_USER && call[at] != A_GROUP)
            rest = rest + part(call, at, end);
    }
    return message(call[1], static_cast<uint16_t>(u32At(call, 0)), u32At(call, 4), rest);
}

TEST_F(BusTest, HoldsTheGoldenConversations)
{
    for (const char* file : {"bus.txt", "subscriptions.txt"}) {
        std::map<std::string, RawClient> clients;
        Ids ids;
        for (const VectorRecord& record : readVectorFile(file)) {
            SCOPED_TRACE(file + (": message " + record.at("msg")));
            const Bytes golden = bytesFromHex(record.at("hex"));
            RawClient& client = clients.try_emplace(record.at("conn"), socketPath, false).first->second;
            if (golden.empty()) {
                clients.erase(record.at("conn"));
            } else if (record.at("dir") == "to-daemon") {
                client.send(translate(ids, golden));
            } else {
                const Bytes actual = client.receive();
                ASSERT_GE(actual.size(), FRAME);
                learn(ids, golden, actual);
                ASSERT_EQ(hex(withoutNames(actual)), hex(withoutNames(translate(ids, golden))));
            }
        }
        ASSERT_FALSE(clients.empty());
        for (const auto& [name, client] : clients)
            EXPECT_TRUE(client.nothingWaits()) << name;
    }
}

TEST_F(BusTest, RefusesWhatCannotBeCarriedOut)
{
    const RawClient client = connect(), other = connect();
    const uint32_t own = client.addObject();
    const uint32_t foreign = other.addObject("foreign");
    const Bytes method = attr(A_METHOD, text("x")), path = attr(A_OBJPATH, text("foreign"));
    const Bytes unterminated = attr(A_OBJPATH, {'n', 'o'});
    const auto removing = [](const Bytes& attributes) { return message(REMOVE_OBJECT, 2, 0, attributes); };
    const auto registering = [](const Bytes& object, const char* pattern) {
        return call(1, 1, "register", object + stringField("pattern", pattern));
    };
    const auto sending = [](const Bytes& fields) { return call(1, 1, "send", fields); };
    const Bytes name = stringField("id", "x"), table = tableField("data", {});
    Bytes shortNumber = numberField("n", 1);
    shortNumber[3] = 11;
    const struct {
        Bytes request;
        uint32_t status;
        size_t data = 0;
    } cases[] = {
        {message(INVOKE, 1, 5, attr(A_OBJID, u32(5555)) + method), NOT_FOUND},
        {message(INVOKE, 2, 5, method), INVALID_ARGUMENT},
        {message(INVOKE, 4, 1, attr(A_OBJID, u32(1)) + method), INVALID_COMMAND},
        {message(11, 5, 6, {}), INVALID_COMMAND},
        {message(ADD_OBJECT, 6, 0, path), INVALID_ARGUMENT},
        {removing(attr(A_OBJID, u32(foreign))), PERMISSION_DENIED},
        {removing(attr(A_OBJID, u32(own ^ 1))), NOT_FOUND},
        {removing(attr(A_OBJID, {0, 0, 1})), INVALID_ARGUMENT},
        // A broken path counts as none, so that all is found; of two the last good one counts.
        {message(LOOKUP, 1, 0, unterminated), OK, 1},
        {message(LOOKUP, 1, 0, attr(A_OBJPATH, text("no")) + path + unterminated), OK, 1},
        {registering({}, "x"), INVALID_ARGUMENT},
        {registering(numberField("object", foreign), "x"), PERMISSION_DENIED},
        {registering(numberField("object", own), ""), PERMISSION_DENIED},
        // A field of the wrong type counts as absent, and the right one behind it is found.
        {registering(stringField("object", "7") + numberField("object", own), "x"), OK},
        {sending(name), INVALID_ARGUMENT},
        {sending(name + shortNumber + table), INVALID_ARGUMENT}, // a broken field ends the walk
        {sending(name + table + shortNumber), OK},
        {sending(stringField("id", "ubus.object.add") + table), PERMISSION_DENIED},
        {subscription(SUBSCRIBE, own, 5555), NOT_FOUND},
        {subscription(SUBSCRIBE, own, own), INVALID_ARGUMENT},
        {subscription(SUBSCRIBE, foreign, foreign), INVALID_ARGUMENT},
        {message(SUBSCRIBE, 1, 0, attr(A_OBJID, u32(own))), INVALID_ARGUMENT},
        {subscription(UNSUBSCRIBE, own, foreign), NOT_FOUND},
        {unanswered(NOTIFY, foreign, "x", {}), PERMISSION_DENIED}, // answered all the same
    };
    for (const auto& [request, status, data] : cases) {
        const Answer answer = client.ask(request);
        EXPECT_EQ(answer.status, status) << hex(request);
        EXPECT_EQ(answer.data.size(), data) << hex(request);
    }
    // Only the owner's answers are forwarded, byte for byte but for the peer.
    const Bytes answer = attr(99, {1}) + attr(A_DATA, {}) + attr(A_OBJID, u32(foreign));
    for (const RawClient* sender : {&client, &other})
        sender->send(message(DATA, sender == &other, client.id(), answer));
    EXPECT_TRUE(other.nothingWaits());
    EXPECT_EQ(client.receive(), message(DATA, 1, foreign, answer));
}

TEST_F(BusTest, TakesRootLengthsUpToTheLimitAndDisconnectsBeyond)
{
    const auto pingOfRoot = [](size_t length) {
        return Bytes{0, PING, 0, 1, 0, 0, 0, 0} + u32(static_cast<uint32_t>(length)) +
               Bytes(std::max(length, size_t{4}) - 4);
    };
    for (const size_t length : {size_t{4}, size_t{5}, MAX_ROOT - 3, MAX_ROOT}) {
        Bytes echo = pingOfRoot(length);
        echo[1] = DATA;
        EXPECT_EQ(connect().ask(pingOfRoot(length)).data, Messages{echo}) << length;
    }
    for (const size_t length : {size_t{0}, size_t{3}, MAX_ROOT + 1, size_t{0xffffff}}) {
        SCOPED_TRACE(length);
        const RawClient client = connect();
        client.send(part(pingOfRoot(length), 0, FRAME));
        while (!client.receive().empty()) // until the daemon has closed the connection, which it must
            continue;
    }
}

TEST_F(BusTest, QueuesAMebibyteForAClientThatDoesNotReadAndDropsTheRest)
{
    constexpr uint32_t EVENTS = 3000;
    constexpr size_t FILL = 1000;
    const RawClient stalled = connect(), reader = connect(), sender = connect();
    const uint32_t object = sender.addObject();
    const auto send = [&](uint32_t number) {
        const Bytes fields = numberField("n", number) + stringField("x", std::string(FILL, 'x'));
        sender.send(unanswered(NOTIFY, object, "load", fields));
    };
    const auto numberOf = [](const Bytes& event) {
        return u32At(find(event, A_DATA), 8); // behind the word and the name header, 4 bytes each
    };
    for (const RawClient* client : {&stalled, &reader})
        ASSERT_EQ(client->ask(subscription(SUBSCRIBE, client->addObject(), object)).status, OK);
    for (uint32_t i = 0; i < EVENTS; ++i) {
        send(i);
        ASSERT_EQ(numberOf(reader.receive()), i) << "nobody else loses anything";
    }
    const auto processorTime = [&] {
        clockid_t clock{};
        timespec used{};
        EXPECT_TRUE(clock_getcpuclockid(daemon.pid(), &clock) == 0 && clock_gettime(clock, &used) == 0);
        return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
    };
    const auto before = processorTime();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_LT(processorTime() - before, std::chrono::milliseconds(60)) << "it waits until it can send again";
    uint32_t received = 0;
    for (size_t bytes = 0; bytes + FILL + 200 < QUEUE; ++received) {
        const Bytes event = stalled.receive();
        ASSERT_EQ(numberOf(event), received) << "without gaps";
        bytes += event.size();
    }
    for (const Bytes& event : stalled.ask(message(PING, 1, 1, {})).data) {
        if (event[1] == INVOKE) {
            ASSERT_EQ(numberOf(event), received++);
        }
    }
    EXPECT_LT(received, EVENTS) << "the rest was dropped";
    send(4711);
    EXPECT_EQ(numberOf(stalled.receive()), 4711u) << "later ones arrive again";
}

} // namespace
