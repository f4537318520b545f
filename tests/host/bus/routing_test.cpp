// Objects, lookups, calls, answers and events, beyond what the golden conversation shows.

#include "bus_test.h"

#include <algorithm>

namespace {

using Texts = std::vector<std::string>;

enum : uint32_t { OK = 0, INVALID_COMMAND = 1, INVALID_ARGUMENT = 2, NOT_FOUND = 4, PERMISSION_DENIED = 6 };

Bytes lookup(std::string_view path)
{
    return message(LOOKUP, 1, 0, attr(A_OBJPATH, text(path)));
}

Bytes removal(const Bytes& idAttribute)
{
    return message(REMOVE_OBJECT, 2, 0, idAttribute);
}

Texts namesIn(const Answer& answer)
{
    Texts names;
    for (const Bytes& data : answer.data)
        names.push_back(findText(data, A_OBJPATH));
    return names;
}

// Names of the events that wait for a client.
Texts eventsFor(RawClient& client)
{
    Texts names;
    for (const Bytes& data : client.ask(message(PING, 1, 0x55555555, {})).data) {
        if (data[1] == INVOKE)
            names.push_back(findText(data, A_METHOD));
    }
    return names;
}

TEST_F(BusTest, FindsNamesExactlyByPrefixAndInByteOrder)
{
    RawClient asker = connect();
    EXPECT_EQ(asker.ask(lookup("*")).status, NOT_FOUND);
    EXPECT_EQ(asker.ask(message(LOOKUP, 1, 0, {})).status, OK) << "whoever asks for all may find none";
    RawClient owner = connect();
    for (const char* name : {"b", "a\xff", "", "a*", "a b\n", "ab", "B", "a"})
        owner.addObject(name, oneMethod("run", "how"));
    const struct {
        std::string path;
        Texts found;
    } cases[] = {
        {"a", {"a"}},
        {"a*", {"a", "a b\n", "a*", "ab", "a\xff"}},
        {"*", {"", "B", "a", "a b\n", "a*", "ab", "a\xff", "b"}},
    };
    for (const auto& [path, found] : cases)
        EXPECT_EQ(namesIn(asker.ask(lookup(path))), found) << path;
    EXPECT_EQ(namesIn(asker.ask(message(LOOKUP, 5, 9, {}))), cases[2].found) << "with a peer to be repeated";
    for (const char* path : {"c*", "c"})
        EXPECT_EQ(asker.ask(lookup(path)).status, NOT_FOUND);
    EXPECT_EQ(asker.ask(lookup("")).status, INVALID_ARGUMENT);
}

TEST_F(BusTest, HidesAnObjectWithoutAGoodSignatureButForwardsItsCalls)
{
    RawClient owner = connect();
    RawClient caller = connect();
    for (const Bytes& signature : {Bytes(), attr(A_SIGNATURE, numberField("n", 1)), attr(A_OBJTYPE, u32(77777))}) {
        const Answer added = owner.ask(message(ADD_OBJECT, 1, 0, attr(A_OBJPATH, text("shy")) + signature));
        ASSERT_EQ(added.status, OK);
        EXPECT_EQ(added.data.at(0).size(), 20u) << "the id alone, no type";
        const Bytes id = attr(A_OBJID, find(added.data[0], A_OBJID));
        const Answer found = caller.ask(lookup("shy"));
        EXPECT_TRUE(found.status == OK && found.data.empty());
        // In another order, with attributes that are not for the owner, an earlier id that counts for nothing, no DATA.
        const Bytes method = attr(A_METHOD, text("run"));
        caller.send(message(INVOKE, 7, 0x12345,
                            attr(10, {1}) + method + attr(A_USER, text("mallory")) + attr(A_OBJID, u32(1)) + id +
                                attr(A_OBJID, {1, 2, 3})));
        const Bytes received = owner.receive();
        const Bytes names = attr(A_USER, find(received, A_USER)) + attr(A_GROUP, find(received, A_GROUP));
        EXPECT_EQ(received, message(INVOKE, 7, caller.id(), id + method + names));
        EXPECT_NE(findText(received, A_USER), "mallory");
        EXPECT_EQ(owner.ask(removal(id)).status, OK);
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
    EXPECT_TRUE(find(second, A_OBJTYPE).empty()) << "named only to the client that sent the signature";
    const Bytes one = attr(A_OBJID, find(first, A_OBJID));
    const Bytes two = attr(A_OBJID, find(second, A_OBJID));
    EXPECT_EQ(owner.ask(removal(one)).data, Messages{message(DATA, 2, 0, one)});
    EXPECT_EQ(owner.ask(lookup("two")).data,
              Messages{message(DATA, 1, 0, pathTwo + two + type + attr(A_SIGNATURE, signature))});
    EXPECT_EQ(owner.ask(removal(two)).data, Messages{message(DATA, 2, 0, two + type)});
}

TEST_F(BusTest, ForwardsAnswersButForThePeerByteForByteAndOnlyThoseOfTheOwner)
{
    RawClient owner = connect();
    RawClient caller = connect();
    RawClient stranger = connect();
    const Bytes id = u32(owner.addObject("ptzd"));
    // An order and an unknown attribute that the library would not write.
    Bytes answer = message(DATA, 9, caller.id(), attr(99, {1}) + attr(A_DATA, {}) + attr(A_OBJID, id));
    stranger.send(answer);
    owner.send(message(STATUS, 9, 4711, attr(A_STATUS, u32(0)) + attr(A_OBJID, id))); // to nobody
    owner.send(message(STATUS, 9, caller.id(), attr(A_STATUS, u32(0))));              // for no object
    EXPECT_TRUE(stranger.nothingWaits() && owner.nothingWaits()) << "dropped without a word";
    owner.send(answer);
    std::ranges::copy(id, answer.begin() + 4);
    EXPECT_EQ(caller.receive(), answer);
    EXPECT_TRUE(caller.nothingWaits());
}

TEST_F(BusTest, RefusesWhatCannotBeCarriedOut)
{
    RawClient client = connect();
    RawClient other = connect();
    const uint32_t own = client.addAnonymous();
    const uint32_t foreign = other.addObject("foreign", oneMethod("run", "how"));
    const Bytes method = attr(A_METHOD, text("x"));
    const Bytes wordOnly = u32(0x02000009); // a path of 5 bytes that are not there
    const Bytes unterminated = attr(A_OBJPATH, {'n', 'o'});
    const Bytes path = attr(A_OBJPATH, text("foreign"));
    const auto registering = [&](const Bytes& object) {
        return call(1, 1, "register", object + stringField("pattern", "x"));
    };
    const Bytes name = stringField("id", "x");
    const Bytes table = tableField("data", {});
    const auto sending = [&](const Bytes& fields) { return call(1, 1, "send", fields); };
    // A field of the wrong type counts as absent, and the right one behind it is found.
    const Bytes twice = numberField("other", 1) + stringField("object", "7") + numberField("object", own) +
                        numberField("object", foreign);
    Bytes shortNumber = numberField("n", 1);
    shortNumber[3] = 11;
    const struct {
        Bytes request;
        uint32_t status;
        size_t data = 0;
    } cases[] = {
        {message(INVOKE, 1, 5, attr(A_OBJID, u32(5555)) + method), NOT_FOUND},
        {message(INVOKE, 2, 5, method), INVALID_ARGUMENT},
        {message(INVOKE, 3, 5, attr(A_OBJID, u32(5555))), INVALID_ARGUMENT},
        {message(INVOKE, 4, 1, attr(A_OBJID, u32(1)) + method), INVALID_COMMAND},
        {message(HELLO, 5, 6, {}), INVALID_COMMAND},
        {message(11, 5, 6, {}), INVALID_COMMAND},
        {message(ADD_OBJECT, 6, 0, path), INVALID_ARGUMENT},
        {removal(attr(A_OBJID, u32(foreign))), PERMISSION_DENIED},
        {removal(attr(A_OBJID, u32(own ^ 1))), NOT_FOUND},
        {removal({}), INVALID_ARGUMENT},
        {removal(attr(A_OBJID, {0, 0, 1})), INVALID_ARGUMENT},
        // A broken path counts as none, so that all is found; of two the last good one counts.
        {message(LOOKUP, 1, 0, wordOnly), OK, 1},
        {message(LOOKUP, 1, 0, unterminated), OK, 1},
        {message(LOOKUP, 1, 0, attr(A_OBJPATH, text("no")) + path + unterminated), OK, 1},
        {registering({}), INVALID_ARGUMENT},
        {call(1, 1, "register", numberField("object", own)), INVALID_ARGUMENT},
        {registering(stringField("object", "7")), INVALID_ARGUMENT},
        {registering(numberField("object", own ^ 1)), NOT_FOUND},
        {registering(numberField("object", foreign)), PERMISSION_DENIED},
        {registering(numberField("object", 1023)), PERMISSION_DENIED},
        {registering(numberField("object", 1024)), NOT_FOUND},
        {call(1, 1, "register", numberField("object", own) + stringField("pattern", "")), PERMISSION_DENIED},
        {registering(twice), OK},
        {sending(table), INVALID_ARGUMENT},
        {sending(name), INVALID_ARGUMENT},
        {sending(name + stringField("data", "y")), INVALID_ARGUMENT},
        {sending(name + shortNumber + table), INVALID_ARGUMENT}, // a broken field ends the walk
        {sending(name + table + shortNumber), OK},
        {sending(stringField("id", "ubus.object.add") + table), PERMISSION_DENIED},
        {sending(stringField("id", "ubus") + table), OK},
    };
    for (const auto& [request, status, data] : cases) {
        const Answer answer = client.ask(request);
        EXPECT_EQ(answer.status, status) << testing::PrintToString(request);
        EXPECT_EQ(answer.data.size(), data) << testing::PrintToString(request);
    }
    EXPECT_EQ(other.ask(removal(attr(A_OBJID, u32(foreign)))).status, OK);
    EXPECT_EQ(client.ask(message(ADD_OBJECT, 5, 0, path)).status, OK) << "the name is free";
}

TEST_F(BusTest, DeliversEventsByNameAndByPrefix)
{
    const struct {
        std::string pattern;
        Texts events;
    } cases[] = {
        {"*", {"a", "motor", "motor.start", "motor_x", "moto*"}},
        {"motor", {"motor"}},
        {"motor*", {"motor", "motor.start", "motor_x"}},
        {"motor.start*", {"motor.start"}},
        {"mot*r", {}}, // a star is one only at the end
        {"moto**", {"moto*"}},
        {"motor.stop*", {}},
    };
    std::vector<RawClient> listeners;
    for (const auto& entry : cases) {
        listeners.push_back(connect());
        listeners.back().listenTo(entry.pattern);
    }
    RawClient sender = connect();
    sender.listenTo("*");
    for (const char* event : {"a", "motor", "motor.start", "motor_x", "moto*"})
        EXPECT_EQ(sender.ask(eventCall(1, event, {})).status, OK);
    for (size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(eventsFor(listeners[i]), cases[i].events) << cases[i].pattern;
    EXPECT_TRUE(sender.nothingWaits()) << "never to the sender itself";
}

TEST_F(BusTest, DeliversAnEventOnceToAnObjectAndAnnouncesObjectsThatComeAndGo)
{
    RawClient client = connect();
    RawClient sender = connect();
    const uint32_t object = client.listenTo("motor");
    for (const char* pattern : {"mo*", "*"})
        EXPECT_EQ(
            client.ask(call(1, 1, "register", numberField("object", object) + stringField("pattern", pattern))).status,
            OK);
    const Bytes fields = stringField("action", "start");
    EXPECT_EQ(sender.ask(eventCall(2, "motor", fields)).status, OK);
    const auto delivery = [&](uint16_t seq, const char* event, const Bytes& data) {
        return message(INVOKE, seq, 0, attr(A_OBJID, u32(object)) + attr(A_METHOD, text(event)) + attr(A_DATA, data));
    };
    EXPECT_EQ(client.receive(), delivery(1, "motor", fields));

    std::vector<std::pair<std::string, uint32_t>> objects;
    {
        RawClient owner = connect();
        for (const char* name : {"b", "a"})
            objects.emplace_back(name, owner.addObject(name));
        owner.addAnonymous(); // which is not announced
    }
    uint16_t seq = 1;
    const auto expectNext = [&](const char* event, const auto& which) {
        EXPECT_EQ(client.receive(),
                  delivery(++seq, event, numberField("id", which.second) + stringField("path", which.first)));
    };
    expectNext("ubus.object.add", objects[0]);
    expectNext("ubus.object.add", objects[1]);
    expectNext("ubus.object.remove", objects[1]); // the last registered first
    expectNext("ubus.object.remove", objects[0]);

    EXPECT_EQ(client.ask(removal(attr(A_OBJID, u32(object)))).status, OK);
    EXPECT_EQ(sender.ask(eventCall(2, "motor", fields)).status, OK);
    EXPECT_TRUE(client.nothingWaits()) << "the patterns of a removed object are forgotten";
}

} // namespace
