// Input that no library would send. None of it may cost another client anything.

#include "bus_fixture.h"

#include <algorithm>

namespace {

constexpr size_t MAX_ROOT = 1048576;

// A ping whose root attribute claims that length, with that much behind it.
Bytes pingOfRoot(size_t length)
{
    Bytes ping = message(PING, 1, 0, {});
    std::ranges::copy(u32(static_cast<uint32_t>(length)), ping.begin() + 8);
    ping.resize(8 + std::max(length, size_t{4}));
    return ping;
}

TEST_F(BusTest, TakesRootLengthsUpToTheLimitAndDisconnectsBeyond)
{
    for (const size_t length : {size_t{4}, size_t{5}, size_t{4096}, MAX_ROOT - 3, MAX_ROOT}) {
        RawClient client = connect();
        Bytes echo = pingOfRoot(length);
        echo[1] = DATA;
        EXPECT_EQ(client.ask(pingOfRoot(length)).data, Messages{echo}) << length;
    }
    for (const size_t length : {size_t{0}, size_t{3}, MAX_ROOT + 1, size_t{0xffffff}}) {
        RawClient client = connect();
        client.send(message(PING, 1, 0, {}) + part(pingOfRoot(length), 0, 12));
        EXPECT_EQ(client.receive(), message(DATA, 1, 0, {})) << "what came before is answered";
        EXPECT_TRUE(client.closedByDaemon()) << length;
    }
    EXPECT_TRUE(connect().nothingWaits());
}

TEST_F(BusTest, TreatsABrokenAttributeAsAbsent)
{
    RawClient owner = connect();
    const uint32_t object = owner.addObject("ptzd");
    RawClient client = connect();
    enum : uint32_t { OK = 0, INVALID_ARGUMENT = 2 };
    const Bytes id = attr(A_OBJID, u32(object));
    const Bytes wordOnly = u32(0x02000009);                 // a path of 5 bytes that are not there
    const Bytes tooShort = u32(0x02000003) + id;            // less than its own word, and the walk ends
    const Bytes unterminated = attr(A_OBJPATH, {'n', 'o'}); // found as if there was no path
    const Bytes emptyPath = attr(A_OBJPATH, {});
    for (const Bytes& path : {wordOnly, tooShort, unterminated, emptyPath}) {
        const Answer answer = client.ask(message(LOOKUP, 1, 0, path));
        EXPECT_EQ(answer.status, OK);
        EXPECT_EQ(answer.data.size(), 1u) << "looks up everything";
    }
    for (const Bytes& badId : {attr(A_OBJID, {}), attr(A_OBJID, {0, 0, 1}), attr(A_OBJID, {0, 0, 0, 0, 1}), tooShort})
        EXPECT_EQ(client.ask(message(REMOVE_OBJECT, 2, 0, badId)).status, INVALID_ARGUMENT);
    // A good one beside a bad one counts, whatever the order.
    const Answer answer = client.ask(message(LOOKUP, 3, 0, attr(A_OBJPATH, text("ptzd")) + unterminated));
    EXPECT_EQ(answer.data.size(), 1u);
    EXPECT_TRUE(owner.nothingWaits());
}

TEST_F(BusTest, EndsTheWalkAtABrokenField)
{
    RawClient client = connect();
    enum : uint32_t { OK = 0, INVALID_ARGUMENT = 2 };
    const Bytes name = stringField("id", "x");
    const Bytes table = tableField("data", {});
    const std::pair<size_t, uint8_t> changes[] = {
        {5, 200},  // a name that is too long
        {7, 'n'},  // one that is not ended
        {0, 0x89}, // an unknown type
        {3, 11},   // a number that is too short
        {0, 0x83}, // a text that is not ended
    };
    for (const auto& [at, value] : changes) {
        Bytes broken = numberField("n", 1);
        broken[at] = value;
        EXPECT_EQ(client.ask(call(1, 1, "send", broken + name + table)).status, INVALID_ARGUMENT) << at;
        EXPECT_EQ(client.ask(call(2, 1, "send", name + broken + table)).status, INVALID_ARGUMENT) << at;
        EXPECT_EQ(client.ask(call(3, 1, "send", name + table + broken)).status, OK) << at;
    }
    const Bytes notExtended = attr(3, text("abc")); // passed over, and the walk goes on
    EXPECT_EQ(client.ask(call(4, 1, "send", notExtended + name + notExtended + table)).status, OK);
}

TEST_F(BusTest, KeepsTheLongestCallWithinTheLimitOfItsOwner)
{
    RawClient owner = connect();
    RawClient caller = connect();
    const uint32_t object = owner.addObject("ptzd");
    const size_t overhead = call(1, object, "m", {}).size() - 8;
    for (const size_t spare : {size_t{0}, size_t{400}}) {
        caller.send(call(1, object, "m", Bytes(MAX_ROOT - overhead - spare, 0)));
        const Bytes received = owner.receive();
        EXPECT_LE(received.size(), MAX_ROOT + 8);
        EXPECT_EQ(find(received, A_DATA).size(), MAX_ROOT - overhead - spare);
        EXPECT_EQ(find(received, A_USER).empty(), spare == 0) << "left out where it does not fit";
    }
}

} // namespace
