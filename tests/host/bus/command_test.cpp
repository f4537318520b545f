// The command `ubus` at the prompt: what it prints, and with which status it exits.

#include "bus_test.h"

#include <future>

namespace {

class CommandTest : public BusTest {
protected:
    Strings command(const Strings& arguments) const
    {
        return Strings{UBUS_PROGRAM, "-s", socketPath} + arguments;
    }

    void expect(const Strings& arguments, const Result& expected) const
    {
        EXPECT_EQ(run(command(arguments)), expected) << testing::PrintToString(arguments);
    }

    // A command that calls a method of the owner's, which answers with these replies and this status. Gives the call as
    // the owner got it.
    Bytes expectCall(const Strings& arguments, const Messages& replies, uint32_t status, const Result& expected) const
    {
        const auto ended = std::async(std::launch::async, [&] { expect(arguments, expected); });
        const Bytes request = owner.receive();
        const Bytes id = attr(A_OBJID, find(request, A_OBJID));
        const auto seq = static_cast<uint16_t>(u32At(request, 0));
        for (const Bytes& fields : replies)
            owner.send(message(DATA, seq, u32At(request, 4), id + attr(A_DATA, fields)));
        owner.send(message(STATUS, seq, u32At(request, 4), attr(A_STATUS, u32(status)) + id));
        return request;
    }

    const RawClient owner = connect();
};

TEST_F(CommandTest, ListsNamesAndMethodsWithTheTypesOfTheirArguments)
{
    expect({"list"}, {});
    expect({"list", "x*"}, {4, "", "Command failed: Not found\n"});
    Bytes arguments;
    for (uint32_t type = 1; type <= 8; ++type)
        arguments = arguments + numberField("t" + std::to_string(type), type);
    const uint32_t id = owner.addObject("ptzd", tableField("moveTo", arguments) + tableField("stop", {}));
    expect({"list", "-v", "ptzd"}, {0,
                                    "'ptzd' @" + hex(u32(id)) +
                                        "\n\t\"moveTo\":{\"t1\":\"Array\",\"t2\":\"Table\",\"t3\":\"String\","
                                        "\"t4\":\"(unknown)\",\"t5\":\"Integer\",\"t6\":\"(unknown)\","
                                        "\"t7\":\"Boolean\",\"t8\":\"(unknown)\"}\n\t\"stop\":{}\n",
                                    ""});
    for (const char* name : {"CET", "pt"})
        owner.addObject(name);
    expect({"list", "pt*"}, {0, "pt\nptzd\n", ""});
    expect({"-S", "list", "p"}, {4, "", ""});
}

TEST_F(CommandTest, PrintsTheRepliesOfACallOrWhyItFailed)
{
    owner.addObject("ptzd", tableField("moveTo", {}));
    const Bytes reply = numberField("error_code", 0xffffffff);
    const Bytes request = expectCall({"call", "ptzd", "moveTo", R"({"x_coord":"30"})"}, {reply}, 0,
                                     {0, "{\n\t\"error_code\": -1\n}\n", ""});
    EXPECT_EQ(findText(request, A_METHOD), "moveTo");
    EXPECT_EQ(find(request, A_DATA), stringField("x_coord", "30"));
    const Strings call{"call", "ptzd", "m"};
    expectCall({"-S", "call", "ptzd", "m"}, {reply}, 0, {0, "{\"error_code\":-1}\n", ""});
    expectCall(call, {{}, field(1, "e", {}) + numberField("n", 5)}, 0,
               {0, "{\n\t\n}\n{\n\t\"e\": [\n\t\t\n\t],\n\t\"n\": 5\n}\n", ""});
    expectCall(call, {}, 3, {3, "", "Command failed: Method not found\n"});
    expectCall({"-S", "call", "ptzd", "m"}, {}, 3, {3, "", ""});
    expect({"-t", "1", "call", "ptzd", "m"}, {7, "", "Command failed: Request timed out\n"});
    expect({"call", "ptzd", "m", "{x"}, {12, "", "Command failed: Parsing message data failed\n"});
    expect({"call", "nosuch", "stop"}, {4, "", "Command failed: Not found\n"});
    // Where nobody watches, the command comes with the reason.
    const Strings unwatched{"sh", "-c", "exec \"$0\" \"$@\" 2>&1"};
    EXPECT_EQ(run(unwatched + command({"call", "ptzd", "m", "{x"})),
              (Result{244, "Command failed: ubus call ptzd m {x (Parsing message data failed)\n", ""}));
}

TEST_F(CommandTest, SendsEventsAndPrintsEachAtOnce)
{
    Background all(command({"listen"})), some(command({"listen", "motor*", "motor", "probe", "*.object.add"}));
    const auto both = {&all, &some};
    for (const Background* listener : both)
        EXPECT_TRUE(waitUntil([&] {
            owner.ask(eventCall(1, "probe", {}));
            return listener->output().ends_with("{ \"probe\": {} }\n");
        }));
    expect({"send", "other"}, {});
    expect({"send", "motor", R"({"action":"start","n":1})"}, {});
    const std::string motor = "\n{ \"motor\": {\"action\":\"start\",\"n\":1} }\n";
    for (const Background* listener : both)
        EXPECT_TRUE(waitUntil([&] { return listener->output().ends_with(motor); }));
    EXPECT_TRUE(all.output().ends_with("{ \"other\": {} }" + motor));
    const uint32_t id = owner.addObject("ptzd");
    EXPECT_TRUE(waitUntil([&] { return all.output().ends_with(",\"path\":\"ptzd\"} }\n"); }));
    EXPECT_TRUE(some.output().ends_with("probe\": {} }" + motor)) << "once, and a star in front is no pattern";
    EXPECT_EQ(all.end(SIGINT), 0);
    const Background subscriber(command({"subscribe", "ptzd"}));
    EXPECT_EQ(owner.receive()[1], NOTIFY);
    owner.send(unanswered(NOTIFY, id, "motion", stringField("x", "1")) + unanswered(NOTIFY, id, "empty", {}));
    EXPECT_TRUE(waitUntil([&] { return subscriber.output() == "{ \"motion\": {\"x\":\"1\"} }\n{ \"empty\": {} }\n"; }));
    expect({"-t", "1", "listen", "nothing"}, {});
    expect({"send", "ubus.motor"}, {6, "", "Command failed: Permission denied\n"});
    expect({"send", "motor", "[]"}, {12, "", "Command failed: Parsing message data failed\n"});
}

TEST_F(CommandTest, SaysThatThereIsNoBusOrHowToUseIt)
{
    expect({"-s", folder.path / "none", "list"}, {255, "", "Failed to connect to ubus\n"});
    owner.addObject("ptzd");
    expect({"subscribe", "ptzd", "x"}, {255, "", "Error while registering for event 'ptzd': Not found\n"});
    expect({"subscribe"}, {255, "", "You need to specify an object to subscribe to\n"});
    const std::pair<int, Strings> wrong[] = {
        {1, {}}, {254, {"nonsense"}}, {254, {"list", "a", "b"}}, {254, {"call", "a"}}, {254, {"send"}}};
    for (const auto& [status, arguments] : wrong) {
        const Result result = run(command(arguments));
        EXPECT_EQ(result.status, status) << testing::PrintToString(arguments);
        EXPECT_TRUE(result.out.empty() && result.err.starts_with("Usage: "));
    }
}

} // namespace
