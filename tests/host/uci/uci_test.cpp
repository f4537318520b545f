// The library and the command, beyond what the golden data show.
#include "sandbox.h"

#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

TEST(Commit, KeepsModeAndLink)
{
    const Sandbox box("config t 's'\n\toption a '1'\n");
    const fs::path target = box.root.path / "target";
    fs::rename(box.file, target);
    fs::create_symlink(target, box.file);
    chmod(target.c_str(), 0640);
    EXPECT_EQ(box.run({"set", "p.s.a=2"}).status + box.run({"commit"}).status, 0);
    EXPECT_TRUE(fs::is_symlink(box.file));
    EXPECT_EQ(readFile(target), "\nconfig t 's'\n\toption a '2'\n\n");
    EXPECT_EQ(status(target).permissions(), fs::perms(0640));
}

TEST(Commit, MergesWhatOthersDidMeanwhile)
{
    const Sandbox box("config t 's'\n\toption a '1'\n");
    const UciContext ctx = box.context();
    uci_package* p = load(ctx);
    EXPECT_EQ(edit(ctx, uci_set, "p.s.mine=1"), UCI_OK);
    writeFile(box.file, "config t 's'\n\toption a '7'\n\nconfig t 'new'\n");
    EXPECT_EQ(box.run({"set", "p.new.theirs=1"}).status, 0);
    EXPECT_EQ(uci_commit(ctx.get(), &p, false), UCI_OK);
    EXPECT_EQ(readFile(box.file), "\nconfig t 's'\n\toption a '7'\n\toption mine '1'\n\nconfig t 'new'\n"
                                  "\toption theirs '1'\n\n");

    // What does not apply is skipped, and touches nothing.
    const std::string bad = "q.s.b='another package'\np.nosec.c='1'\np.s.d-e='1'\n-p.nosec\np\n";
    for (const auto& [changes, after] :
         {std::pair<std::string, std::string>{bad, "config t 's' # untouched\n"},
          {"p.s.a='1'\n" + bad + "p.s.g=unquoted;lost\n+p.cfg0292bd='rule'\np.cfg0292bd.h='l1\nl2'\n",
           "\nconfig t 's'\n\toption a '1'\n\toption g 'unquoted'\n\nconfig rule\n\toption h 'l1\nl2'\n\n"}}) {
        writeFile(box.file, "config t 's' # untouched\n");
        writeFile(box.changeFile, changes);
        EXPECT_EQ(uci_commit(ctx.get(), &p, false), UCI_OK);
        EXPECT_EQ(readFile(box.file), after);
    }
    EXPECT_EQ(readFile(box.changeFile), "");
}

TEST(Command, PrintsWhatIsAskedForAndSaysWhatIsWrong)
{
    const Sandbox box("config preset 'preset_1'\n\toption name 'it'\\''s me'\n\tlist l 'x'\n\tlist l 'b c'\n"
                      "\nconfig rule\n\toption v '9'\n");
    writeFile(box.configDir / "q", "bogus\n");
    const std::string name = UCI_PROGRAM ": ";
    const std::pair<Strings, Result> cases[] = {
        {{"get", "p.preset_1"}, {0, "preset\n", ""}},
        {{"get", "p.preset_1.name"}, {0, "it's me\n", ""}},
        {{"get", "p.preset_1.l"}, {0, "x 'b c'\n", ""}},
        {{"get", "p.@rule[-1].v"}, {0, "9\n", ""}},
        {{"show", "p.@rule[0]"}, {0, "p.cfg0292bd=rule\np.cfg0292bd.v='9'\n", ""}},
        {{"show", "p.preset_1.l"}, {0, "p.preset_1.l='x' 'b c'\n", ""}},
        {{"get", "p.preset_1.nope"}, {1, "", name + "Entry not found\n"}},
        {{"commit", "nope"}, {1, "", name + "Entry not found\n"}},
        {{"set", "p.nosec.x=1"}, {1, "", name + "Invalid argument\n"}},
        {{"set", "p.preset_1.name=\x01"}, {1, "", name + "Parse error\n"}},
        {{"-q", "get", "p.nope"}, {1, "", ""}},
        {{"add", "nope", "rule"}, {3, "", name + "Entry not found\n"}},
        {{"-q", "add", "q", "rule"}, {5, "", ""}},
        {{"add", "p", "rule"}, {0, "cfg0392bd\n", ""}},
        {{"changes", "p"}, {0, "p.cfg0392bd='rule'\n", ""}},
        {{"set", "p.@rule[0]=t"}, {}},
        {{"-q", "commit"}, {1, "", ""}}, // goes on behind the other package
        {{"changes", "p"}, {}},
        {{"-q", "show"},
         {1,
          "p.preset_1=preset\np.preset_1.name='it'\\''s me'\np.preset_1.l='x' 'b c'\n"
          "p.cfg0292bd=t\np.cfg0292bd.v='9'\np.@rule[0]=rule\n",
          ""}},
    };
    for (const auto& [arguments, result] : cases)
        EXPECT_EQ(box.run(arguments), result) << testing::PrintToString(arguments);
    for (const Strings& arguments : {Strings{"frobnicate"}, {"set"}, {"get", "a", "b"}, {"add", "p"}}) {
        const Result result = box.run(arguments);
        EXPECT_EQ(result.status, 255) << arguments[0];
        EXPECT_NE(result.err.find("Usage: "), result.err.npos);
    }
}

} // namespace
