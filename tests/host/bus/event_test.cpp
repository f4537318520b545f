// Events: who gets which, in what form, and what the daemon announces itself.

#include "bus_fixture.h"

namespace {

enum : uint32_t { OK = 0, INVALID_ARGUMENT = 2, NOT_FOUND = 4, PERMISSION_DENIED = 6 };

Bytes registration(uint16_t seq, uint32_t object, std::string_view pattern)
{
    return call(seq, 1, "register", numberField("object", object) + stringField("pattern", pattern));
}

// Names of the events that wait for a client.
std::vector<std::string> eventsFor(RawClient& client)
{
    std::vector<std::string> names;
    for (const Bytes& data : client.ask(message(PING, 1, 0x55555555, {})).data) {
        if (data[1] == INVOKE)
            names.push_back(findText(data, A_METHOD));
    }
    return names;
}

TEST_F(BusTest, DeliversEventsByNameAndByPrefix)
{
    struct {
        std::string pattern;
        std::vector<std::string> events;
    } const cases[] = {
        {"*", {"a", "motor", "motor.start", "motor_x", "moto*"}},
        {"motor", {"motor"}},
        {"motor*", {"motor", "motor.start", "motor_x"}},
        {"motor.*", {"motor.start"}},
        {"motor.start*", {"motor.start"}},
        {"mot*r", {}}, // a star is one only at the end
        {"moto*", {"motor", "motor.start", "motor_x", "moto*"}},
        {"moto**", {"moto*"}},
        {"n*", {}},
        {"motor.stop*", {}},
    };
    std::vector<RawClient> listeners;
    for (const auto& entry : cases) {
        listeners.push_back(connect());
        listeners.back().listenTo(entry.pattern);
    }
    RawClient sender = connect();
    for (const char* event : {"a", "motor", "motor.start", "motor_x", "moto*"})
        EXPECT_EQ(sender.ask(eventCall(1, event, {})).status, OK);
    for (size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(eventsFor(listeners[i]), cases[i].events) << cases[i].pattern;
}

TEST_F(BusTest, DeliversAnEventOnceToAnObjectAndNeverToItsSender)
{
    RawClient client = connect();
    RawClient sender = connect();
    sender.listenTo("*");
    const uint32_t object = client.listenTo("motor");
    for (const char* pattern : {"mo*", "*", "motor", "mo*"})
        EXPECT_EQ(client.ask(registration(1, object, pattern)).status, OK);
    const uint32_t second = client.listenTo("motor");

    const Bytes fields = stringField("action", "start");
    EXPECT_EQ(sender.ask(eventCall(2, "motor", fields)).status, OK);
    const auto delivery = [&](uint16_t seq, uint32_t to) {
        return message(INVOKE, seq, 0, attr(A_OBJID, u32(to)) + attr(A_METHOD, text("motor")) + attr(A_DATA, fields));
    };
    // Which of the two comes first is open; the daemon counts its deliveries.
    const Bytes one = client.receive();
    const uint32_t firstObject = u32At(find(one, A_OBJID), 0);
    EXPECT_EQ(one, delivery(1, firstObject));
    EXPECT_TRUE(firstObject == object || firstObject == second);
    EXPECT_EQ(client.receive(), delivery(2, firstObject == object ? second : object));
    EXPECT_TRUE(client.nothingWaits());
    EXPECT_TRUE(sender.nothingWaits());
}

TEST_F(BusTest, ForgetsThePatternsOfARemovedObject)
{
    RawClient client = connect();
    RawClient sender = connect();
    const uint32_t gone = client.listenTo("motor*");
    client.listenTo("motor");
    EXPECT_EQ(client.ask(message(REMOVE_OBJECT, 1, 0, attr(A_OBJID, u32(gone)))).status, OK);
    EXPECT_EQ(sender.ask(eventCall(1, "motor", {})).status, OK);
    EXPECT_EQ(sender.ask(eventCall(2, "motor2", {})).status, OK);
    EXPECT_EQ(eventsFor(client), std::vector<std::string>{"motor"});
}

TEST_F(BusTest, RefusesRegistrationsThatLackSomethingOrConcernOthers)
{
    RawClient client = connect();
    RawClient other = connect();
    const uint32_t own = client.addAnonymous();
    const uint32_t foreign = other.addAnonymous();
    const Bytes pattern = stringField("pattern", "x");
    EXPECT_EQ(client.ask(call(1, 1, "register", pattern)).status, INVALID_ARGUMENT);
    EXPECT_EQ(client.ask(call(2, 1, "register", numberField("object", own))).status, INVALID_ARGUMENT);
    EXPECT_EQ(client.ask(call(3, 1, "register", stringField("object", "7") + pattern)).status, INVALID_ARGUMENT);
    EXPECT_EQ(client.ask(registration(4, own ^ 1, "x")).status, NOT_FOUND);
    EXPECT_EQ(client.ask(registration(5, foreign, "x")).status, PERMISSION_DENIED);
    EXPECT_EQ(client.ask(registration(6, 1023, "x")).status, PERMISSION_DENIED);
    EXPECT_EQ(client.ask(registration(7, 1024, "x")).status, NOT_FOUND);
    EXPECT_EQ(client.ask(registration(8, own, "")).status, PERMISSION_DENIED);
    // A field of the wrong type counts as absent, and the right one behind it is found.
    const Bytes twice = stringField("object", "7") + numberField("object", own) + numberField("object", foreign);
    EXPECT_EQ(client.ask(call(9, 1, "register", twice + pattern)).status, OK);
}

TEST_F(BusTest, RefusesEventsThatLackSomethingOrBearTheDaemonsName)
{
    RawClient client = connect();
    const Bytes data = tableField("data", {});
    EXPECT_EQ(client.ask(message(INVOKE, 1, 1, attr(A_OBJID, u32(1)) + attr(A_METHOD, text("send")))).status,
              INVALID_ARGUMENT);
    EXPECT_EQ(client.ask(call(2, 1, "send", data)).status, INVALID_ARGUMENT);
    EXPECT_EQ(client.ask(call(3, 1, "send", stringField("id", "x"))).status, INVALID_ARGUMENT);
    EXPECT_EQ(client.ask(call(4, 1, "send", stringField("id", "x") + stringField("data", "y"))).status,
              INVALID_ARGUMENT);
    EXPECT_EQ(client.ask(eventCall(5, "ubus.object.add", {})).status, PERMISSION_DENIED);
    EXPECT_EQ(client.ask(eventCall(6, "ubus", {})).status, OK);
}

TEST_F(BusTest, AnnouncesTheObjectsOfALostClientInReverseOrder)
{
    RawClient witness = connect();
    witness.listenTo("ubus.object.*");
    {
        RawClient owner = connect();
        for (const char* name : {"b", "c", "a"})
            owner.addObject(name);
        owner.addAnonymous(); // of which nobody is told
    }
    std::vector<std::string> seen;
    while (seen.size() < 6) {
        const Bytes event = witness.receive();
        ASSERT_FALSE(event.empty());
        const Bytes data = find(event, A_DATA);
        const std::string path(1, static_cast<char>(data.at(28))); // behind the number, 16 bytes, and word and name, 12
        seen.push_back(findText(event, A_METHOD).substr(12) + " " + path);
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"add b", "add c", "add a", "remove a", "remove c", "remove b"}));
    EXPECT_TRUE(witness.nothingWaits());
}

} // namespace
