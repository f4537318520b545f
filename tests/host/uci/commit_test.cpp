// Committing: the file that is replaced, and its surroundings.
#include "sandbox.h"

#include <gtest/gtest.h>

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

TEST_F(Commit, KeepsModeAndLinkAndMakesTheWriterTheOwner)
{
    const fs::path real = box.root / "real";
    fs::create_directory(real);
    fs::rename(box.file, real / "target");
    fs::create_symlink(real / "target", box.file);
    chmod((real / "target").c_str(), 0640);
    if (geteuid() == 0) {
        ASSERT_EQ(chown((real / "target").c_str(), 1234, 2345), 0);
    }
    EXPECT_EQ(edit(ctx, uci_set, "p.s.a=2"), UCI_OK);
    EXPECT_EQ(commit(), UCI_OK);
    EXPECT_TRUE(fs::is_symlink(box.file));
    EXPECT_EQ(readFile(real / "target"), "\nconfig t 's'\n\toption a '2'\n\n");
    struct stat info;
    ASSERT_EQ(stat((real / "target").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0640u);
    EXPECT_EQ(info.st_uid, geteuid());
}

TEST_F(Commit, MergesWhatOthersDidMeanwhile)
{
    chmod(box.file.c_str(), 0600);
    chmod(box.configDir.c_str(), 0700);
    EXPECT_EQ(edit(ctx, uci_set, "p.s.mine=1"), UCI_OK);
    box.setFile("config t 's'\n\toption a '7'\n\nconfig t 'new'\n");
    EXPECT_EQ(box.run({"set", "p.new.theirs=1"}).status, 0);
    EXPECT_EQ(status(box.changeFile).permissions(), fs::perms(0600)) << "as the file's";
    EXPECT_EQ(status(box.saveDir).permissions(), fs::perms(0700)) << "as its directory's";
    EXPECT_EQ(commit(), UCI_OK);
    EXPECT_EQ(box.fileText(), "\nconfig t 's'\n\toption a '7'\n\toption mine '1'\n\nconfig t 'new'\n"
                              "\toption theirs '1'\n\n");
    EXPECT_EQ(edit(ctx, uci_set, "p.s.a=2"), UCI_OK);
    fs::remove(box.file);
    EXPECT_EQ(commit(), UCI_OK);
    EXPECT_EQ(box.fileText(), "");
    EXPECT_EQ(status(box.file).permissions(), fs::perms(0600));
    EXPECT_EQ(exported(ctx, p), "\n");
}

TEST_F(Commit, SkipsChangesThatDoNotApply)
{
    const std::string bad = "q.s.b='another package'\np.nosec.c='1'\np.s.d-e='1'\n-p.nosec\np\n";
    box.setFile("config t 's' # untouched\n");
    box.setChanges(bad);
    EXPECT_EQ(commit(), UCI_OK);
    EXPECT_EQ(box.fileText(), "config t 's' # untouched\n");
    box.setChanges("p.s.a='1'\n" + bad + "p.s.g=unquoted;lost\n+p.cfg0292bd='rule'\np.cfg0292bd.h='l1\nl2'\n");
    EXPECT_EQ(commit(), UCI_OK);
    EXPECT_EQ(box.fileText(), "\nconfig t 's'\n\toption a '1'\n\toption g 'unquoted'\n"
                              "\nconfig rule\n\toption h 'l1\nl2'\n\n");
    EXPECT_EQ(box.changes(), "");
}

} // namespace
