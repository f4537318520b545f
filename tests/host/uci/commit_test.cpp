// Committing: the file that is replaced, and its surroundings.
#include "sandbox.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

class Commit : public testing::Test {
protected:
    Sandbox box{"config t 's'\n\toption a '1'\n"};
    Context ctx = box.context();
    uci_package* p = load(ctx);

    int commit()
    {
        return uci_commit(ctx.get(), &p, false);
    }
};

TEST_F(Commit, KeepsOwnerModeAndLink)
{
    const fs::path real = box.root / "real";
    fs::create_directory(real);
    fs::rename(box.file, real / "target");
    fs::create_symlink(real / "target", box.file);
    chmod((real / "target").c_str(), 0640);
    const bool root = geteuid() == 0;
    if (root) {
        ASSERT_EQ(chown((real / "target").c_str(), 1234, 2345), 0);
    }

    EXPECT_EQ(edit(ctx, uci_set, "p.s.a=2"), UCI_OK);
    EXPECT_EQ(commit(), UCI_OK);
    EXPECT_TRUE(fs::is_symlink(box.file));
    EXPECT_EQ(readFile(real / "target"), "\nconfig t 's'\n\toption a '2'\n\n");
    struct stat info;
    ASSERT_EQ(stat((real / "target").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0640u);
    EXPECT_EQ(info.st_uid, root ? 1234u : geteuid());
    EXPECT_EQ(std::distance(fs::directory_iterator(real), {}), 1);
}

TEST_F(Commit, RemovesWhatACrashedOneLeftAndNothingElse)
{
    const fs::path dead = box.configDir / ".p.uci-AbCdEf", living = box.configDir / ".p.uci-GhIjKl",
                   others = box.configDir / ".q.uci-AbCdEf", longer = box.configDir / ".p.uci-AbCdEfG";
    for (const fs::path& path : {dead, living, others, longer})
        writeFile(path, "half");
    const int maker = open(living.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(flock(maker, LOCK_EX), 0);
    EXPECT_EQ(edit(ctx, uci_set, "p.s.a=2"), UCI_OK);
    EXPECT_EQ(commit(), UCI_OK);
    EXPECT_FALSE(fs::exists(dead));
    EXPECT_TRUE(fs::exists(living));
    EXPECT_TRUE(fs::exists(others));
    EXPECT_TRUE(fs::exists(longer));
    close(maker);
}

TEST_F(Commit, MergesWhatOthersDidMeanwhile)
{
    EXPECT_EQ(edit(ctx, uci_set, "p.s.mine=1"), UCI_OK);
    box.setFile("config t 's'\n\toption a '7'\n\nconfig t 'new'\n");
    EXPECT_EQ(box.run({"set", "p.new.theirs=1"}).status, 0);
    EXPECT_EQ(commit(), UCI_OK);
    EXPECT_EQ(box.fileText(), "\nconfig t 's'\n\toption a '7'\n\toption mine '1'\n\nconfig t 'new'\n"
                              "\toption theirs '1'\n\n");
    EXPECT_EQ(edit(ctx, uci_set, "p.s.a=2"), UCI_OK);
    fs::remove(box.file);
    EXPECT_EQ(commit(), UCI_OK);
    EXPECT_EQ(box.fileText(), "");
    EXPECT_EQ(status(box.file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(exported(ctx, p), "\n");
}

TEST_F(Commit, OntoABrokenFileKeepsHandleAndChanges)
{
    EXPECT_EQ(edit(ctx, uci_set, "p.s.a=2"), UCI_OK);
    box.setFile("config t 's'\n\toption b \"open\n");
    uci_package* const before = p;
    EXPECT_EQ(commit(), UCI_ERR_PARSE);
    EXPECT_EQ(p, before);
    EXPECT_EQ(uci_lookup_package(ctx.get(), "p"), before);
    EXPECT_EQ(values(ctx, "p.s.a"), std::vector<std::string>{"2"});
    EXPECT_EQ(box.changes(), "p.s.a='2'\n");

    box.setFile("config t 's'\n\toption b 'mended'\n");
    EXPECT_EQ(commit(), UCI_OK);
    EXPECT_EQ(box.fileText(), "\nconfig t 's'\n\toption b 'mended'\n\toption a '2'\n\n");
}

} // namespace
