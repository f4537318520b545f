// Input that no library would send. None of it may cost another client anything.

#include "bus_fixture.h"

#include <algorithm>
#include <random>

#include <sys/socket.h>

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

TEST_F(BusTest, PutsMessagesTogetherFromAnyPieces)
{
    RawClient client = connect();
    Bytes stream;
    for (uint16_t seq = 1; seq <= 300; ++seq)
        stream = stream + message(PING, seq, 0, attr(A_DATA, Bytes(seq % 7, 1)));
    std::mt19937 random(1);
    for (size_t at = 0; at < stream.size();) {
        const size_t piece = std::min<size_t>(1 + random() % 41, stream.size() - at);
        client.send(part(stream, at, at + piece));
        at += piece;
    }
    client.send(stream); // and all in one
    for (int i = 0; i < 600; ++i) {
        const auto seq = static_cast<uint16_t>(i % 300 + 1);
        ASSERT_EQ(client.receive(), message(DATA, seq, 0, attr(A_DATA, Bytes(seq % 7, 1))));
        ASSERT_EQ(client.receive(), message(STATUS, seq, 0, attr(A_STATUS, u32(0))));
    }
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
    Bytes nameTooLong = numberField("n", 1);
    nameTooLong[5] = 200;
    Bytes nameNotEnded = numberField("n", 1);
    nameNotEnded[7] = 'n';
    Bytes unknownType = numberField("n", 1);
    unknownType[0] = 0x89;
    Bytes numberTooShort = numberField("n", 1);
    numberTooShort[3] = static_cast<uint8_t>(numberTooShort[3] - 1);
    Bytes textNotEnded = stringField("n", "abc");
    textNotEnded.back() = 'd';
    const Bytes notExtended = attr(3, text("abc")); // passed over, and the walk goes on
    for (const Bytes& broken : {nameTooLong, nameNotEnded, unknownType, numberTooShort, textNotEnded}) {
        EXPECT_EQ(client.ask(call(1, 1, "send", broken + name + table)).status, INVALID_ARGUMENT);
        EXPECT_EQ(client.ask(call(2, 1, "send", name + broken + table)).status, INVALID_ARGUMENT);
        EXPECT_EQ(client.ask(call(3, 1, "send", name + table + broken)).status, OK);
    }
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

// Sends without ever waiting for room: a client that is owed a long answer is not read from.
void sendAndDrain(const RawClient& client, const Bytes& bytes)
{
    for (size_t sent = 0; sent < bytes.size();) {
        const size_t count = client.trySend(part(bytes, sent, bytes.size()));
        sent += count;
        while (client.hasInput()) {
            uint8_t drained[4096];
            if (recv(client.fd(), drained, sizeof drained, MSG_DONTWAIT) <= 0)
                return; // disconnected, for a bad root length
        }
    }
}

// A message of the golden conversation about objects that exist now.
Bytes withIds(Bytes golden, uint32_t ptzd, uint32_t listener)
{
    for (size_t at = 4; at + 4 <= golden.size(); at += 4) {
        const uint32_t word = u32At(golden, at);
        if (word == 0xf1047b21 || word == 0x47268c58)
            std::ranges::copy(u32(word == 0xf1047b21 ? ptzd : listener), golden.begin() + static_cast<ptrdiff_t>(at));
    }
    return golden;
}

TEST_F(BusTest, SurvivesRandomInput)
{
    RawClient owner = connect();
    const uint32_t ptzd = owner.addObject("ptzd", oneMethod("moveTo", "x_coord"));
    const std::vector<VectorRecord> golden = readVectorFile("bus.txt");
    std::mt19937 random(20240607);
    const auto below = [&](size_t limit) { return random() % limit; };
    for (int round = 0; round < 400; ++round) {
        RawClient client = connect();
        const uint32_t listener = client.addAnonymous();
        Bytes stream;
        for (int i = 0; i < 8; ++i) {
            Bytes piece = withIds(golden[below(golden.size())].bytes("hex"), ptzd, listener);
            const bool keepRoot = below(8) != 0; // else it mostly ends the connection
            for (size_t flips = below(4); flips > 0; --flips) {
                const size_t at = below(piece.size());
                if (!keepRoot || at < 8 || at >= 12)
                    piece[at] = static_cast<uint8_t>(random());
            }
            stream = stream + piece;
        }
        for (size_t tail = below(200); round % 3 == 0 && tail > 0; --tail)
            stream.push_back(static_cast<uint8_t>(random()));
        sendAndDrain(client, stream);
    }
    RawClient witness = connect();
    EXPECT_TRUE(witness.nothingWaits());
    EXPECT_EQ(witness.ask(message(LOOKUP, 1, 0, attr(A_OBJPATH, text("ptzd")))).data.size(), 1u);
}

} // namespace
