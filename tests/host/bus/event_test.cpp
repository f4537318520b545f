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

    EXPECT_EQ(client.ask(message(REMOVE_OBJECT, 1, 0, attr(A_OBJID, u32(object)))).status, OK);
    EXPECT_EQ(sender.ask(eventCall(2, "motor", fields)).status, OK);
    EXPECT_EQ(sender.ask(eventCall(2, "motor2", fields)).status, OK);
    EXPECT_EQ(client.receive(), delivery(3, second));
    EXPECT_TRUE(client.nothingWaits()) << "the patterns of a removed object are forgotten";
}

TEST_F(BusTest, RefusesRequestsThatLackSomethingOrConcernOthers)
{
    RawClient client = connect();
    RawClient other = connect();
    const uint32_t own = client.addAnonymous();
    const uint32_t foreign = other.addAnonymous();
    const Bytes pattern = stringField("pattern", "x");
    const auto registering = [&](uint32_t object) { return numberField("object", object) + pattern; };
    const Bytes name = stringField("id", "x");
    // A field of the wrong type counts as absent, and the right one behind it is found.
    const Bytes twice = numberField("other", 1) + stringField("object", "7") + numberField("object", own) +
                        numberField("object", foreign);
    const struct {
        const char* method;
        Bytes fields;
        uint32_t status;
    } cases[] = {
        {"register", pattern, INVALID_ARGUMENT},
        {"register", numberField("object", own), INVALID_ARGUMENT},
        {"register", stringField("object", "7") + pattern, INVALID_ARGUMENT},
        {"register", registering(own ^ 1), NOT_FOUND},
        {"register", registering(foreign), PERMISSION_DENIED},
        {"register", registering(1023), PERMISSION_DENIED},
        {"register", registering(1024), NOT_FOUND},
        {"register", numberField("object", own) + stringField("pattern", ""), PERMISSION_DENIED},
        {"register", twice + pattern, OK},
        {"send", tableField("data", {}), INVALID_ARGUMENT},
        {"send", name, INVALID_ARGUMENT},
        {"send", stringField("other", "x") + name + stringField("data", "y"), INVALID_ARGUMENT},
        {"send", stringField("id", "ubus.object.add") + tableField("data", {}), PERMISSION_DENIED},
        {"send", stringField("id", "ubus") + tableField("data", {}), OK},
    };
    for (const auto& [method, fields, status] : cases)
        EXPECT_EQ(client.ask(call(1, 1, method, fields)).status, status) << testing::PrintToString(fields);
    EXPECT_EQ(client.ask(message(INVOKE, 1, 1, attr(A_OBJID, u32(1)) + attr(A_METHOD, text("send")))).status,
              INVALID_ARGUMENT);
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
