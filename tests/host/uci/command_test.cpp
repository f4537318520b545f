// The command: outputs, messages and exit statuses that the golden data do not show.
#include "sandbox.h"

#include <gtest/gtest.h>

namespace {

const char* const FILE_TEXT = "config preset 'preset_1'\n\toption name 'it'\\''s me'\n\tlist l 'x'\n\tlist l 'b c'\n"
                              "\nconfig rule\n\toption v '9'\n";

TEST(Command, PrintsWhatIsAskedForAndSaysWhatIsWrong)
{
    Sandbox box(FILE_TEXT);
    const struct {
        std::vector<std::string> arguments;
        std::string out, err;
        int status;
    } cases[] = {
        {{"get", "p.preset_1"}, "preset\n", "", 0},
        {{"get", "p.preset_1.name"}, "it's me\n", "", 0},
        {{"get", "p.preset_1.l"}, "x 'b c'\n", "", 0},
        {{"get", "p.@rule[-1].v"}, "9\n", "", 0},
        {{"get", "p"}, "", "", 0},
        {{"show", "p.@rule[0]"}, "p.cfg0292bd=rule\np.cfg0292bd.v='9'\n", "", 0},
        {{"show", "p.preset_1.l"}, "p.preset_1.l='x' 'b c'\n", "", 0},
        {{"get", "p.preset_1.nope"}, "", "uci: Entry not found\n", 1},
        {{"show", "nope"}, "", "uci: Entry not found\n", 1},
        {{"commit", "nope"}, "", "uci: Entry not found\n", 1},
        {{"delete", "p.nope"}, "", "uci: Entry not found\n", 1},
        {{"set", "p.nosec.x=1"}, "", "uci: Invalid argument\n", 1},
        {{"set", "p.preset_1.name=\x01"}, "", "uci: Parse error\n", 1},
        {{"-q", "get", "p.nope"}, "", "", 1},
        {{"changes"}, "", "", 0},
        {{"set", "p.@rule[9]=t"}, "", "", 0},
        {{"changes"}, "", "", 0},
        {{"set", "p.nosec.x="}, "", "uci: Invalid argument\n", 1},
        {{"add", "nope", "rule"}, "", "uci: Entry not found\n", 3},
        {{"add", "p", "rule"}, "cfg0392bd\n", "", 0},
        {{"changes"}, "p.cfg0392bd='rule'\n", "", 0},
        {{"set", "p.@rule[0]=t"}, "", "", 0},
        {{"add", "p", "bad type"}, "cfg0469ce\n", "", 0}, // of which nothing comes
        {{"commit", "p"}, "", "", 0},
    };
    for (const auto& [arguments, out, err, status] : cases) {
        const CommandResult result = box.run(arguments);
        EXPECT_EQ(result.status, status) << arguments.back();
        EXPECT_EQ(result.out, out);
        EXPECT_EQ(result.err, err);
    }
}

TEST(Command, ExplainsItselfWhenUsedWrongly)
{
    Sandbox box(FILE_TEXT);
    EXPECT_EQ(box.run({}).status, 0);
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"frobnicate"}, {"set"}, {"get", "a", "b"}, {"add", "p"}}) {
        const CommandResult result = box.run(arguments);
        EXPECT_EQ(result.status, 255) << arguments[0];
        EXPECT_TRUE(result.err.find("Usage: uci") != result.err.npos);
    }
}

TEST(Command, CommitsEveryPackage)
{
    Sandbox box(FILE_TEXT);
    const std::filesystem::path q = box.configDir / "q";
    writeFile(q, "bogus\n");
    EXPECT_EQ(box.run({"add", "q", "rule"}).status, UCI_ERR_PARSE);
    writeFile(q, "config t 's'\n");
    EXPECT_EQ(box.run({"set", "p.preset_1.name=new"}).status + box.run({"set", "q.s.a=1"}).status, 0);
    EXPECT_EQ(box.run({"commit"}).status, 0);
    EXPECT_EQ(box.run({"changes"}).out, "");
    EXPECT_EQ(box.run({"get", "p.preset_1.name"}).out, "new\n");
    EXPECT_EQ(readFile(q), "\nconfig t 's'\n\toption a '1'\n\n");
}

} // namespace
