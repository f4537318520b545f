// Committing: the file that is replaced, its surroundings, and failures.
#include "fault_calls.h"
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
}

TEST_F(Commit, OfAFileThatIsGoneMakesAnEmptyOne)
{
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

TEST_F(Commit, WithoutASaveDirectoryKeepsTheChangeUnsaved)
{
    EXPECT_EQ(edit(ctx, uci_set, "p.s.a=2"), UCI_OK);
    writeFile(box.saveDir, "in the way");
    uci_package* const before = p;
    EXPECT_EQ(uci_save(ctx.get(), p), UCI_ERR_IO);
    EXPECT_EQ(commit(), UCI_ERR_IO);
    EXPECT_EQ(p, before);
    fs::remove(box.saveDir);
    EXPECT_EQ(commit(), UCI_OK);
    EXPECT_EQ(box.fileText(), "\nconfig t 's'\n\toption a '2'\n\n");
}

TEST_F(Commit, GivesUpWithoutHarmWhereTheDirectoryCannotBeWritten)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can become somebody who may not";
    EXPECT_EQ(box.run({"set", "p.s.a=2"}).status, 0);
    chmod(box.root.c_str(), 0755);
    chmod(box.file.c_str(), 0666);
    chmod(box.changeFile.c_str(), 0666);
    ASSERT_EQ(seteuid(65534), 0);
    const int writableFile = commit();
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(writableFile, UCI_ERR_IO);
    EXPECT_EQ(box.changes(), "p.s.a='2'\n");

    chmod(box.file.c_str(), 0600);
    ASSERT_EQ(seteuid(65534), 0);
    const int unreadable = uci_load(box.context().get(), "p", nullptr);
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(unreadable, UCI_ERR_IO);
    EXPECT_EQ(commit(), UCI_OK);
}

// Each file call of a commit fails once, from the first to the last: the file is the old or the new one, the handle is
// good, and the next commit brings everything in order.
TEST(CommitFailure, OfAnyCallHarmsNothing)
{
    const std::string before = "config t 's'\n\tlist l 'x'\n", after = "\nconfig t 's'\n\tlist l 'x'\n\tlist l 'y'\n\n";
    int failures = 0;
    for (int nth = 1;; ++nth) {
        SCOPED_TRACE(nth);
        Sandbox box(before);
        const Context ctx = box.context();
        uci_package* p = load(ctx);
        ASSERT_EQ(edit(ctx, uci_add_list, "p.s.l=y"), UCI_OK);
        uci_package* const old = p;
        plan(Fault::Fail, nth);
        const int code = uci_commit(ctx.get(), &p, false);
        if (!planMet()) {
            EXPECT_EQ(code, UCI_OK);
            break;
        }
        failures += code != UCI_OK;
        EXPECT_TRUE(code == UCI_OK || code == UCI_ERR_IO);
        EXPECT_EQ(p == old, code != UCI_OK);
        EXPECT_TRUE(box.fileText() == before || box.fileText() == after) << box.fileText();
        EXPECT_EQ(values(ctx, "p.s.l"), (std::vector<std::string>{"x", "y"}));
        EXPECT_EQ(std::distance(fs::directory_iterator(box.configDir), {}), 1) << "a temporary file stays";

        const Context reader = box.context();
        load(reader);
        EXPECT_LE(values(reader, "p.s.l").size(), 2u);
        EXPECT_EQ(uci_commit(ctx.get(), &p, false), UCI_OK);
        EXPECT_EQ(box.fileText(), after);
        EXPECT_EQ(box.changes(), "");
    }
    EXPECT_GE(failures, 8);
}

} // namespace
