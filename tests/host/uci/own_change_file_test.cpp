// The change file of our library: what becomes of it when its writers or a commit die.
#include "sandbox.h"

#include <gtest/gtest.h>

#include <cinttypes>

namespace {

// The line that a commit writes ahead of its rename: the 64-bit FNV-1a hash of the new file's text.
std::string commitMark(const std::string& text)
{
    uint64_t hash = 14695981039346656037u;
    for (const char c : text) {
        hash ^= static_cast<unsigned char>(c);
        hash *= 1099511628211u;
    }
    char line[40];
    snprintf(line, sizeof(line), "#committed %016" PRIx64 "\n", hash);
    return line;
}

TEST(ChangeFile, DoesNotTrustALineWhoseWriterDied)
{
    // Of "-p.preset_1.name", and of a value over two lines with quotes in it.
    for (const char* torn : {"-p.preset_1", "p.preset_1.id='l1\nit'\\''s", "p.preset_1.id='1'"}) {
        Sandbox box("config preset 'preset_1'\n\toption name 'n'\n");
        box.setChanges(std::string("p.preset_1.a='1'\n") + torn);
        const Context ctx = box.context();
        uci_package* p = load(ctx);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(exported(ctx, p), "\nconfig preset 'preset_1'\n\toption name 'n'\n\toption a '1'\n\n") << torn;
        EXPECT_EQ(edit(ctx, uci_set, "p.preset_1.b=it's"), UCI_OK);
        EXPECT_EQ(uci_save(ctx.get(), p), UCI_OK);
        EXPECT_EQ(box.changes(), "p.preset_1.a='1'\np.preset_1.b='it'\\''s'\n") << torn;
    }
}

TEST(ChangeFile, KeepsWhatIsSavedBehindAQuoteThatNobodyCloses)
{
    // The value that is saved holds quotes, one of which would close the open one.
    for (const std::string open : {"p.s.a='x\n", "p.s.a=\"x\n", "-p.s='\n@p.s=\"\n"}) {
        Sandbox box("config t 's'\n");
        box.setChanges(open + "p.s.b='good'\n");
        const Context ctx = box.context();
        uci_package* p = load(ctx);
        const std::string value = "it's \"quoted\" 'so'";
        const std::string quoted = R"('it'\''s "quoted" '\''so'\''')";
        EXPECT_EQ(edit(ctx, uci_set, "p.s.c=" + value), UCI_OK);
        EXPECT_EQ(uci_save(ctx.get(), p), UCI_OK);
        EXPECT_EQ(edit(ctx, uci_set, "p.s.d=" + value), UCI_OK);
        EXPECT_EQ(uci_commit(ctx.get(), &p, false), UCI_OK);
        EXPECT_EQ(box.fileText(),
                  "\nconfig t 's'\n\toption b 'good'\n\toption c " + quoted + "\n\toption d " + quoted + "\n\n")
            << open;
    }
}

TEST(ChangeFile, IsNotAppliedAgainToTheFileThatHoldsItsChanges)
{
    const std::string committed = "\nconfig t 's'\n\tlist l 'x'\n\nconfig rule\n\n";
    const std::string done = "|p.s.l='x'\n+p.cfg0292bd='rule'\n-p.gone\n" + commitMark(committed);
    const struct {
        std::string file, more, changes, after;
    } cases[] = {
        // The process died between the rename and the emptying; somebody saved more since.
        {committed, "|p.s.l='y'\n", "p.s.l+='y'\n", "\nconfig t 's'\n\tlist l 'x'\n\tlist l 'y'\n\nconfig rule\n\n"},
        // Nothing is left to do but to empty it.
        {committed, "", "", committed},
        // It died ahead of the rename.
        {"config t 's'\n\nconfig t 'gone'\n", "", "p.s.l+='x'\np.cfg0292bd='rule'\n-p.gone\n", committed},
    };
    for (const auto& [file, more, changes, after] : cases) {
        Sandbox box(file);
        box.setChanges(done + more);
        EXPECT_EQ(box.run({"changes"}).out, changes);
        EXPECT_EQ(box.run({"commit"}).status, 0);
        EXPECT_EQ(box.fileText(), after);
        EXPECT_EQ(box.changes(), "");
    }
}

} // namespace
