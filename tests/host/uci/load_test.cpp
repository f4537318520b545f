// Loading and looking up: what is refused, and what the grammar allows.
#include "sandbox.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace {

TEST(Load, TellsWhatIsWrong)
{
    Sandbox box("config t 's'\n");
    std::filesystem::create_directory(box.configDir / "folder");
    mkfifo((box.configDir / "pipe").c_str(), 0600);
    writeFile(box.configDir / "escaped", "config t s\n\tl\\ist l 1\n");
    const Context ctx = box.context();
    uci_package* const untouched = reinterpret_cast<uci_package*>(&box);
    uci_package* p = untouched;
    EXPECT_EQ(uci_load(ctx.get(), "escaped", &p), UCI_ERR_PARSE);
    for (const char* name : {"missing", "folder", "pipe"})
        EXPECT_EQ(uci_load(ctx.get(), name, &p), UCI_ERR_NOTFOUND) << name;
    for (const char* name : {"", "a b"})
        EXPECT_EQ(uci_load(ctx.get(), name, &p), UCI_ERR_INVAL) << name;
    uci_package* loaded = nullptr;
    ASSERT_EQ(uci_load(ctx.get(), "p", &loaded), UCI_OK);
    EXPECT_EQ(uci_load(ctx.get(), "p", &p), UCI_ERR_DUPLICATE);
    EXPECT_EQ(p, untouched);
    EXPECT_EQ(uci_lookup_package(ctx.get(), "p"), loaded);
    EXPECT_EQ(uci_unload(ctx.get(), nullptr), UCI_ERR_INVAL);
}

TEST(Load, ReadsWhatTheGrammarAllows)
{
    const struct {
        const char* file;
        const char* meaning;
    } cases[] = {
        {"package a-b\nconfig t s ; lost\noption a 1; option b 2\n", "\nconfig t 's'\n\toption a '1'\n\n"},
        {"config t s\noption a \\\n x\n", "\nconfig t 's'\n\toption a 'x'\n\n"},
        {"config t ''\n\toption a \"it's\"", "\nconfig t\n\toption a 'it'\\''s'\n\n"},
        {"config t s\n\tlist l ''\n\toption a x\n\toption a ''\n\toption a\n",
         "\nconfig t 's'\n\tlist l ''\n\toption a 'x'\n\n"},
        {"config t s # a 'quote\n # it's\n\toption 0a 1#'\n", "\nconfig t 's'\n\toption 0a '1'\n\n"},
        {"\n \t\n", "\n"},
    };
    for (const auto& [file, meaning] : cases) {
        Sandbox box(file);
        const Context ctx = box.context();
        uci_package* p = load(ctx);
        ASSERT_NE(p, nullptr) << file;
        EXPECT_EQ(exported(ctx, p), meaning) << file;
    }
}

TEST(Lookup, FindsByStoredNameOnly)
{
    Sandbox box("config t 's'\n\toption a '1'\n\tlist l 'x'\n\nconfig t\n");
    const Context ctx = box.context();
    uci_package* p = load(ctx);
    uci_section* s = uci_lookup_section(ctx.get(), p, "s");
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(uci_lookup_option_string(ctx.get(), s, "a"), "1");
    EXPECT_EQ(uci_lookup_option_string(ctx.get(), s, "l"), nullptr);
    EXPECT_EQ(uci_lookup_option(ctx.get(), s, "nope"), nullptr);
    EXPECT_EQ(ctx->err, UCI_ERR_NOTFOUND);
    EXPECT_NE(uci_lookup_section(ctx.get(), p, "cfg02b619"), nullptr);
    EXPECT_EQ(uci_lookup_section(ctx.get(), p, "@t[1]"), nullptr);
}

} // namespace
