// Objects, their types, lookups, calls and their answers.

#include "bus_fixture.h"

#include <algorithm>
#include <set>

namespace {

using Texts = std::vector<std::string>;

enum : uint32_t { OK = 0, INVALID_COMMAND = 1, INVALID_ARGUMENT = 2, NOT_FOUND = 4, PERMISSION_DENIED = 6 };

Bytes lookup(uint16_t seq, std::string_view path)
{
    return message(LOOKUP, seq, 0, attr(A_OBJPATH, text(path)));
}

Bytes removal(uint16_t seq, uint32_t object)
{
    return message(REMOVE_OBJECT, seq, 0, attr(A_OBJID, u32(object)));
}

Texts namesIn(const Answer& answer)
{
    Texts names;
    for (const Bytes& data : answer.data)
        names.push_back(findText(data, A_OBJPATH));
    return names;
}

TEST_F(BusTest, FindsNamesExactlyByPrefixAndInByteOrder)
{
    RawClient asker = connect();
    EXPECT_EQ(asker.ask(lookup(1, "*")).status, NOT_FOUND);
    EXPECT_EQ(asker.ask(message(LOOKUP, 1, 0, {})).status, OK);
    RawClient owner = connect();
    for (const char* name : {"b", "a\xff", "", "a*", "a b\n", "ab", "B", "a"})
        owner.addObject(name, oneMethod("run", "how"));

    EXPECT_EQ(namesIn(asker.ask(lookup(2, "a"))), Texts{"a"});
    EXPECT_EQ(namesIn(asker.ask(lookup(3, "a*"))), (Texts{"a", "a b\n", "a*", "ab", "a\xff"}));
    const Texts all{"", "B", "a", "a b\n", "a*", "ab", "a\xff", "b"};
    EXPECT_EQ(namesIn(asker.ask(lookup(4, "*"))), all);
    EXPECT_EQ(namesIn(asker.ask(message(LOOKUP, 5, 9, {}))), all) << "without a path, and with a peer to be repeated";
    EXPECT_EQ(asker.ask(lookup(6, "c*")).status, NOT_FOUND);
    EXPECT_EQ(asker.ask(lookup(7, "c")).status, NOT_FOUND);
    EXPECT_EQ(asker.ask(lookup(8, "")).status, INVALID_ARGUMENT);
}

TEST_F(BusTest, HidesAnObjectWithoutAGoodSignatureButForwardsItsCalls)
{
    RawClient owner = connect();
    RawClient caller = connect();
    const Bytes methodCutShort = part(oneMethod("run", "how"), 0, 24);
    for (const Bytes& signature : {Bytes(), attr(A_SIGNATURE, methodCutShort), attr(A_SIGNATURE, numberField("n", 1)),
                                   attr(A_SIGNATURE, tableField("", {})), attr(A_OBJTYPE, u32(77777))}) {
        const Answer added = owner.ask(message(ADD_OBJECT, 1, 0, attr(A_OBJPATH, text("shy")) + signature));
        ASSERT_EQ(added.status, OK);
        EXPECT_EQ(added.data.at(0).size(), 20u) << "the id alone, no type";
        const uint32_t object = u32At(find(added.data[0], A_OBJID), 0);
        const Answer found = caller.ask(lookup(1, "shy"));
        EXPECT_TRUE(found.status == OK && found.data.empty());
        caller.send(call(2, object, "run", {}));
        EXPECT_EQ(findText(owner.receive(), A_METHOD), "run");
        EXPECT_EQ(owner.ask(removal(2, object)).status, OK);
    }
}

TEST_F(BusTest, SharesATypeUntilItsLastObjectGoes)
{
    RawClient owner = connect();
    const Bytes signature = oneMethod("run", "how");
    const Bytes pathTwo = attr(A_OBJPATH, text("two"));
    const Bytes first =
        owner.ask(message(ADD_OBJECT, 1, 0, attr(A_OBJPATH, text("one")) + attr(A_SIGNATURE, signature))).data.at(0);
    const Bytes type = attr(A_OBJTYPE, find(first, A_OBJTYPE));
    const Bytes second = owner.ask(message(ADD_OBJECT, 2, 0, pathTwo + type)).data.at(0);
    EXPECT_TRUE(find(second, A_OBJTYPE).empty()) << "told only to who brought the signature";

    const Bytes one = attr(A_OBJID, find(first, A_OBJID));
    const Bytes two = attr(A_OBJID, find(second, A_OBJID));
    EXPECT_EQ(owner.ask(message(REMOVE_OBJECT, 3, 0, one)).data, Messages{message(DATA, 3, 0, one)});
    EXPECT_EQ(owner.ask(lookup(4, "two")).data,
              Messages{message(DATA, 4, 0, pathTwo + two + type + attr(A_SIGNATURE, signature))});
    EXPECT_EQ(owner.ask(message(REMOVE_OBJECT, 5, 0, two)).data, Messages{message(DATA, 5, 0, two + type)});
}

TEST_F(BusTest, ForwardsACallAsANewMessage)
{
    RawClient owner = connect();
    RawClient caller = connect();
    const uint32_t object = owner.addObject("ptzd");
    constexpr uint8_t NO_REPLY = 10;
    const Bytes method = attr(A_METHOD, text("stop"));
    // In another order, with attributes that are not for the owner, an earlier id that counts for nothing, no DATA.
    caller.send(message(INVOKE, 7, 0x12345,
                        attr(NO_REPLY, {1}) + method + attr(A_USER, text("mallory")) + attr(A_OBJID, u32(1)) +
                            attr(A_OBJID, u32(object)) + attr(A_OBJID, {1, 2, 3})));
    const Bytes received = owner.receive();
    const Bytes names = attr(A_USER, find(received, A_USER)) + attr(A_GROUP, find(received, A_GROUP));
    EXPECT_EQ(received, message(INVOKE, 7, caller.id(), attr(A_OBJID, u32(object)) + method + names));
    EXPECT_NE(findText(received, A_USER), "mallory");
    EXPECT_TRUE(caller.nothingWaits()) << "the owner answers, not the daemon";
}

TEST_F(BusTest, ForwardsAnswersButForTheHeaderByteForByteAndOnlyThoseOfTheOwner)
{
    RawClient owner = connect();
    RawClient caller = connect();
    RawClient stranger = connect();
    const uint32_t object = owner.addObject("ptzd");
    // A version, an order, an unknown attribute and a root length that the library would not write.
    Bytes answer = message(DATA, 9, caller.id(), attr(99, {1}) + attr(A_DATA, {}) + attr(A_OBJID, u32(object)));
    answer[0] = 3;
    answer[8] = 0x85;
    answer = answer + Bytes{7, 7};
    answer[11] = static_cast<uint8_t>(answer[11] + 2);
    stranger.send(answer);
    stranger.send(message(STATUS, 9, caller.id(), attr(A_STATUS, u32(0)) + attr(A_OBJID, u32(object))));
    EXPECT_TRUE(stranger.nothingWaits()) << "dropped without a word";
    EXPECT_TRUE(caller.nothingWaits());

    owner.send(message(STATUS, 9, 4711, attr(A_STATUS, u32(0)) + attr(A_OBJID, u32(object)))); // to nobody
    owner.send(message(STATUS, 9, caller.id(), attr(A_STATUS, u32(0))));                       // for no object
    owner.send(answer);
    answer[0] = 0; // any other, and the caller's library would give up its connection
    std::ranges::copy(u32(object), answer.begin() + 4);
    EXPECT_EQ(caller.receive(), answer);
    EXPECT_TRUE(owner.nothingWaits());
    EXPECT_TRUE(caller.nothingWaits());
}

TEST_F(BusTest, RefusesWhatCannotBeCarriedOut)
{
    RawClient client = connect();
    RawClient other = connect();
    const Bytes method = attr(A_METHOD, text("x"));
    const Bytes mine = attr(A_OBJPATH, text("mine"));
    const uint32_t object = client.addObject("mine");
    const std::pair<Bytes, uint32_t> cases[] = {
        {message(INVOKE, 1, 5, attr(A_OBJID, u32(5555)) + method), NOT_FOUND},
        {message(INVOKE, 2, 5, method), INVALID_ARGUMENT},
        {message(INVOKE, 3, 5, attr(A_OBJID, u32(5555))), INVALID_ARGUMENT},
        {message(INVOKE, 4, 1, attr(A_OBJID, u32(1)) + method), INVALID_COMMAND},
        {message(HELLO, 5, 6, {}), INVALID_COMMAND},
        {message(11, 5, 6, {}), INVALID_COMMAND},
        {message(255, 5, 6, {}), INVALID_COMMAND},
        {message(ADD_OBJECT, 6, 0, mine), INVALID_ARGUMENT},
        {removal(6, object), PERMISSION_DENIED},
        {message(REMOVE_OBJECT, 6, 0, {}), INVALID_ARGUMENT},
    };
    for (const auto& [request, status] : cases)
        EXPECT_EQ(other.ask(request).status, status) << testing::PrintToString(request);
    EXPECT_EQ(client.ask(removal(3, object)).status, OK);
    EXPECT_EQ(client.ask(removal(4, object)).status, NOT_FOUND);
    EXPECT_EQ(other.ask(message(ADD_OBJECT, 5, 0, mine)).status, OK) << "the name is free";
}

TEST_F(BusTest, TellsTheCallerNothingWhenTheOwnerDiesAndTheOwnerNothingWhenTheCallerDies)
{
    auto owner = std::make_unique<RawClient>(connect());
    auto caller = std::make_unique<RawClient>(connect());
    RawClient witness = connect();
    const uint32_t object = owner->addObject("ptzd");
    const uint32_t listener = witness.listenTo("ubus.object.*");

    caller->send(call(1, object, "stop", {}));
    const Bytes received = owner->receive();
    const uint32_t callerId = caller->id();
    caller.reset();
    owner->send(message(DATA, 1, callerId, attr(A_OBJID, u32(object)) + attr(A_DATA, {})));
    EXPECT_TRUE(owner->nothingWaits());

    RawClient second = connect();
    second.send(call(1, object, "stop", {}));
    EXPECT_EQ(findText(owner->receive(), A_METHOD), "stop");
    owner.reset();
    const Bytes gone = numberField("id", object) + stringField("path", "ptzd");
    EXPECT_EQ(witness.receive(),
              message(INVOKE, 1, 0,
                      attr(A_OBJID, u32(listener)) + attr(A_METHOD, text("ubus.object.remove")) + attr(A_DATA, gone)));
    EXPECT_TRUE(second.nothingWaits());
    EXPECT_EQ(second.ask(call(2, object, "stop", {})).status, NOT_FOUND);
}

} // namespace
