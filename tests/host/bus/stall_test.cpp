// Clients that stop reading, close one side, or are owed more than fits.

#include "bus_fixture.h"

namespace {

constexpr size_t QUEUE = 1048576;
constexpr size_t EVENT_PAYLOAD = 1000;

Bytes numberedEvent(uint16_t seq, uint32_t number)
{
    return eventCall(seq, "load", numberField("n", number) + stringField("fill", std::string(EVENT_PAYLOAD, 'x')));
}

uint32_t numberOf(const Bytes& event)
{
    return u32At(find(event, A_DATA), 8); // behind the word and the name header, 4 bytes each
}

TEST_F(BusTest, QueuesAMebibyteForAClientThatDoesNotReadAndDropsTheRest)
{
    constexpr uint32_t EVENTS = 3000;
    RawClient stalled = connect();
    RawClient reader = connect();
    RawClient sender = connect();
    stalled.listenTo("load");
    reader.listenTo("load");
    for (uint32_t i = 0; i < EVENTS; ++i) {
        ASSERT_EQ(sender.ask(numberedEvent(1, i)).status, 0u);
        ASSERT_EQ(numberOf(reader.receive()), i) << "nobody else loses anything";
    }
    EXPECT_LE(ticksWhileIdle(), IDLE_TICKS);

    uint32_t received = 0;
    for (size_t bytes = 0; bytes + EVENT_PAYLOAD + 200 < QUEUE; ++received) {
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
    ASSERT_EQ(sender.ask(numberedEvent(1, 4711)).status, 0u);
    EXPECT_EQ(numberOf(stalled.receive()), 4711u) << "later ones arrive again";
}

TEST_F(BusTest, MakesALongLookupWaitForRoom)
{
    constexpr int OBJECTS = 3000;
    RawClient owner = connect();
    const Bytes signature = oneMethod(std::string(1000, 'm'), "argument");
    for (int i = 0; i < OBJECTS; ++i)
        owner.addObject(std::to_string(10000 + i), signature);
    RawClient asker = connect();
    RawClient other = connect();
    const size_t descriptors = daemonDescriptors();
    connect().send(message(LOOKUP, 1, 0, {})); // and is gone again
    asker.send(message(LOOKUP, 1, 0, {}) + message(PING, 2, 0, {}) + message(LOOKUP, 3, 0, {}));
    asker.endWriting();
    EXPECT_TRUE(other.nothingWaits());
    EXPECT_LE(ticksWhileIdle(), IDLE_TICKS);
    EXPECT_TRUE(owner.nothingWaits());
    EXPECT_TRUE(waitUntil([&] { return daemonDescriptors() <= descriptors; }));

    // An object that goes while the answer waits is left out, one that comes is there if its turn is still to come.
    const Answer removed = other.ask(message(LOOKUP, 1, 0, attr(A_OBJPATH, text("12999"))));
    EXPECT_EQ(owner.ask(message(REMOVE_OBJECT, 1, 0, attr(A_OBJID, find(removed.data.at(0), A_OBJID)))).status, 0u);
    owner.addObject("13001", signature);
    for (const uint16_t seq : {uint16_t{1}, uint16_t{3}}) {
        for (int i = 0; i < OBJECTS; ++i) {
            const std::string expected = std::to_string(i < OBJECTS - 1 ? 10000 + i : 13001);
            ASSERT_EQ(findText(asker.receive(), A_OBJPATH), expected);
        }
        EXPECT_EQ(asker.receive(), message(STATUS, seq, 0, attr(A_STATUS, u32(0))));
        if (seq == 1) {
            EXPECT_EQ(asker.receive(), message(DATA, 2, 0, {})) << "in the order of the requests";
            EXPECT_EQ(asker.receive(), message(STATUS, 2, 0, attr(A_STATUS, u32(0))));
        }
    }
    EXPECT_TRUE(asker.closedByDaemon());
}

TEST_F(BusTest, HandlesAllInputBeforeTheEndOfTheStream)
{
    RawClient listener = connect();
    listener.listenTo("load");
    listener.listenTo("ubus.object.remove");
    for (const bool halfOnly : {true, false}) {
        std::optional<RawClient> sender(connect());
        sender->addObject("sender");
        for (uint32_t i = 0; i < 100; ++i)
            sender->send(numberedEvent(1, i));
        sender->send({0, PING, 0}); // ends in the middle of a message
        if (halfOnly)
            sender->endWriting();
        else
            sender.reset();
        for (uint32_t i = 0; i < 100; ++i)
            ASSERT_EQ(numberOf(listener.receive()), i);
        EXPECT_EQ(findText(listener.receive(), A_METHOD), "ubus.object.remove") << "then it counts as a disconnect";
        if (halfOnly) {
            EXPECT_TRUE(sender->closedByDaemon());
        }
    }
}

TEST_F(BusTest, KeepsAHalfClosedClientUntilItHasReadItsQueue)
{
    RawClient witness = connect();
    witness.listenTo("ubus.object.remove");
    for (const bool readsOn : {true, false}) {
        auto client = std::make_unique<RawClient>(connect());
        client->addObject("half");
        const Bytes ping = message(PING, 1, 0, attr(A_DATA, Bytes(100000, 0)));
        for (int i = 0; i < 8; ++i)
            client->send(ping);
        client->endWriting();
        EXPECT_LE(ticksWhileIdle(), IDLE_TICKS) << "the end of a stream is not looked at again and again";
        EXPECT_EQ(witness.ask(message(LOOKUP, 1, 0, attr(A_OBJPATH, text("half")))).data.size(), 1u);
        if (readsOn) {
            for (int i = 0; i < 8; ++i) {
                EXPECT_EQ(client->receive().size(), ping.size());
                EXPECT_EQ(client->receive(), message(STATUS, 1, 0, attr(A_STATUS, u32(0))));
            }
            EXPECT_TRUE(client->closedByDaemon());
        } else {
            client.reset();
        }
        EXPECT_EQ(findText(witness.receive(), A_METHOD), "ubus.object.remove");
    }
}

} // namespace
