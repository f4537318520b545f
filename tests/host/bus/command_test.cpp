// The command at the prompt: what it prints, and with which status it exits.

#include "bus_test.h"

#include <csignal>
#include <optional>

namespace {

using Strings = std::vector<std::string>;

// Where standard error goes, for the commands that mind.
constexpr auto PIPE = Process::Stderr::Pipe;
constexpr auto TERMINAL = Process::Stderr::Terminal;

struct Expected {
    std::string out = {};
    std::string err = {};
    int exitStatus = 0;
};

void expectEnd(Process& command, const Expected& expected)
{
    EXPECT_EQ(command.wait(), expected.exitStatus);
    EXPECT_EQ(command.out, expected.out);
    EXPECT_EQ(command.err, expected.err);
}

class CommandTest : public BusTest {
protected:
    void SetUp() override
    {
        BusTest::SetUp();
        owner.emplace(socketPath());
    }

    std::unique_ptr<Process> start(const Strings& arguments, Process::Stderr standardError = PIPE) const
    {
        Strings command{UBUS_PROGRAM, "-s", socketPath()};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return std::make_unique<Process>(command, standardError);
    }

    // Runs a command with which nobody else has to do.
    void expect(const Strings& arguments, const Expected& expected, Process::Stderr standardError = PIPE) const
    {
        SCOPED_TRACE(testing::PrintToString(arguments));
        expectEnd(*start(arguments, standardError), expected);
    }

    // Runs a command that calls a method of the owner's, which answers with these replies and this status.
    // Gives the call as the owner got it.
    Bytes expectCall(const Strings& arguments, const std::vector<Bytes>& replies, uint32_t status,
                     const Expected& expected, Process::Stderr standardError = PIPE)
    {
        SCOPED_TRACE(testing::PrintToString(arguments));
        const auto command = start(arguments, standardError);
        const Bytes request = owner->receive();
        if (request.empty())
            return request;
        const Bytes id = attr(A_OBJID, find(request, A_OBJID));
        const auto seq = static_cast<uint16_t>(u32At(request, 0));
        for (const Bytes& fields : replies)
            owner->send(message(DATA, seq, u32At(request, 4), id + attr(A_DATA, fields)));
        owner->send(message(STATUS, seq, u32At(request, 4), attr(A_STATUS, u32(status)) + id));
        expectEnd(*command, expected);
        return request;
    }

    // Starts a command that listens, "probe" among other things, and returns once it does.
    std::unique_ptr<Process> startListening(const Strings& arguments)
    {
        auto command = start(arguments);
        EXPECT_TRUE(waitUntil([&] {
            owner->ask(eventCall(1, "probe", {}));
            return command->hasLine();
        }));
        return command;
    }

    // The next line that is not about a probe.
    static std::string nextEvent(Process& command)
    {
        std::string line;
        do
            line = command.readLine();
        while (line == R"({ "probe": {} })");
        return line;
    }

    std::optional<RawClient> owner;
};

TEST_F(CommandTest, ListsNamesAndMethodsWithTheTypesOfTheirArguments)
{
    expect({"list", "x*"}, {.err = "Command failed: Not found\n", .exitStatus = 4}, TERMINAL);
    Bytes arguments;
    for (uint32_t type = 0; type <= 8; ++type)
        arguments = arguments + numberField("t" + std::to_string(type), type);
    const uint32_t id = owner->addObject("ptzd", tableField("moveTo", arguments) + tableField("stop", {}));
    char line[32];
    snprintf(line, sizeof line, "'ptzd' @%08x\n", id);
    const Expected methods{.out = line + std::string(R"x(	"moveTo":{"t0":"(unknown)","t1":"Array","t2":"Table",)x"
                                                     R"x("t3":"String","t4":"(unknown)","t5":"Integer",)x"
                                                     R"x("t6":"(unknown)","t7":"Boolean","t8":"(unknown)"})x"
                                                     "\n\t\"stop\":{}\n")};
    for (const Strings& command : {Strings{"-v", "list"}, Strings{"list", "-v", "ptzd"}})
        expect(command, methods);
    expect({"-S", "-v", "list"}, {.out = "ptzd\n"});
    for (const char* name : {"CET", "pt"})
        owner->addObject(name, oneMethod("stop", "why"));
    expect({"list"}, {.out = "CET\npt\nptzd\n"});
    expect({"list", "pt*"}, {.out = "pt\nptzd\n"});
    expect({"list", "p"}, {.err = "Command failed: Not found\n", .exitStatus = 4});
    expect({"list", ""}, {.err = "Command failed: Invalid argument\n", .exitStatus = 2});
    expect({"-S", "list", "p"}, {.exitStatus = 4});
}

TEST_F(CommandTest, PrintsTheRepliesOfACall)
{
    owner->addObject("ptzd", oneMethod("moveTo", "x_coord"));
    const Bytes reply = numberField("error_code", 0xffffffff);
    const Strings moveTo{"call", "ptzd", "moveTo"};
    const Bytes request = expectCall({"call", "ptzd", "moveTo", R"({"x_coord":"30"})"}, {reply}, 0,
                                     {.out = "{\n\t\"error_code\": -1\n}\n"});
    EXPECT_EQ(findText(request, A_METHOD), "moveTo");
    EXPECT_EQ(find(request, A_DATA), stringField("x_coord", "30"));
    expectCall({"-S", "call", "ptzd", "moveTo"}, {reply}, 0, {.out = "{\"error_code\":-1}\n"});
    expectCall(moveTo, {}, 0, {});
    expectCall(moveTo, {{}, reply}, 0, {.out = "{\n\t\n}\n{\n\t\"error_code\": -1\n}\n"});
    Bytes emptyArray = tableField("e", {});
    emptyArray[0] = 0x81;
    expectCall(moveTo, {emptyArray + numberField("n", 5)}, 0, {.out = "{\n\t\"e\": [\n\t\t\n\t],\n\t\"n\": 5\n}\n"});
}

TEST_F(CommandTest, ReportsAFailedCallInOneOfTwoForms)
{
    owner->addObject("ptzd", oneMethod("moveTo", "x_coord"));
    const Strings call{"call", "ptzd", "nosuch"};
    expectCall(call, {}, 3, {.err = "Command failed: ubus call ptzd nosuch (Method not found)\n", .exitStatus = 253});
    expectCall(call, {}, 3, {.err = "Command failed: Method not found\n", .exitStatus = 3}, TERMINAL);
    expectCall({"-S", "call", "ptzd", "nosuch"}, {}, 3, {.exitStatus = 3});
    expectCall({"call", "ptzd", "stop", R"({"a": 1})"}, {}, 5,
               {.err = "Command failed: ubus call ptzd stop {\"a\": 1} (No response)\n", .exitStatus = 251});
    expect({"-t", "1", "call", "ptzd", "moveTo"},
           {.err = "Command failed: ubus call ptzd moveTo (Request timed out)\n", .exitStatus = 249});
    const Strings badJson{"call", "ptzd", "stop", "{bad"};
    const std::string text = "Parsing message data failed";
    expect(badJson, {.err = "Command failed: ubus call ptzd stop {bad (" + text + ")\n", .exitStatus = 244});
    expect(badJson, {.err = "Command failed: " + text + "\n", .exitStatus = 12}, TERMINAL);
    for (const auto standardError : {PIPE, TERMINAL})
        expect({"call", "nosuch", "stop"}, {.err = "Command failed: Not found\n", .exitStatus = 4}, standardError);
}

TEST_F(CommandTest, SendsEventsAndPrintsEachAtOnce)
{
    const auto all = startListening({"listen"});
    const auto some = startListening({"listen", "motor*", "probe", "*.object.add"});
    expect({"send", "other"}, {});
    EXPECT_EQ(nextEvent(*all), R"({ "other": {} })");
    expect({"send", "motor", R"({"action":"start","n":1})"}, {});
    for (const auto& command : {all.get(), some.get()})
        EXPECT_EQ(nextEvent(*command), R"({ "motor": {"action":"start","n":1} })");
    const auto id = static_cast<int32_t>(owner->addObject("ptzd"));
    EXPECT_EQ(nextEvent(*all), R"({ "ubus.object.add": {"id":)" + std::to_string(id) + R"(,"path":"ptzd"} })");
    all->signal(SIGINT);
    some->signal(SIGTERM);
    EXPECT_EQ(all->wait() + some->wait(), 0);
    EXPECT_EQ(all->err + some->err, "");
    EXPECT_EQ(some->out.find("ubus.object.add"), std::string::npos) << "a star in front is no pattern";
    expect({"-t", "1", "listen", "nothing"}, {});
    expect({"send", "ubus.motor"}, {.err = "Command failed: Permission denied\n", .exitStatus = 6});
    expect({"send", "motor", "[]"}, {.err = "Command failed: Parsing message data failed\n", .exitStatus = 12});
}

TEST_F(CommandTest, SaysThatThereIsNoBusOrHowToUseIt)
{
    const std::string noBus = folder() + "/none";
    expect({"-s", noBus, "list"}, {.err = "Failed to connect to ubus\n", .exitStatus = 255});
    expect({"-S", "-s", noBus, "list"}, {.exitStatus = 255});
    const std::pair<int, std::vector<Strings>> wrong[] = {
        {1, {{}, {"-S"}}},
        {254, {{"nonsense"}, {"-S", "nonsense"}, {"list", "a", "b"}, {"call", "a"}, {"send"}}},
    };
    for (const auto& [exitStatus, uses] : wrong) {
        for (const Strings& arguments : uses) {
            const auto command = start(arguments);
            EXPECT_EQ(command->wait(), exitStatus) << testing::PrintToString(arguments);
            EXPECT_EQ(command->out, "");
            EXPECT_TRUE(command->err.starts_with("Usage: "));
        }
    }
    const auto unknown = start({"-x", "list"});
    EXPECT_EQ(unknown->wait(), 1);
    EXPECT_TRUE(unknown->err.starts_with(UBUS_PROGRAM ": invalid option -- 'x'\nUsage: ")) << unknown->err;
}

} // namespace
