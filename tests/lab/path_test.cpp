// Where a program's absolute paths lead in the lab.

#include "probe.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>

namespace {

namespace fs = std::filesystem;

std::string textOf(const fs::path& path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// The same with a short and with a very long path of the lab.
class LabPaths : public testing::TestWithParam<int> {
protected:
    void SetUp() override
    {
        char name[] = "/tmp/ptzd-paths-XXXXXX";
        root_ = mkdtemp(name);
        fs::path folder = root_ / "a*[b]"; // which mean nothing special
        for (int i = 0; i < GetParam(); ++i)
            folder /= "a-rather-long-name-of-a-folder";
        lab_.emplace(folder);
        LabOptions options;
        options.startBus = options.startCet = options.startPtzd = false;
        ASSERT_TRUE(lab_->up(options)) << lab_->error();
        probe_.emplace(*lab_);
    }
    void TearDown() override
    {
        probe_.reset();
        lab_.reset();
        fs::remove_all(root_);
    }
    std::string ask(const std::string& command)
    {
        return probe_->ask(command);
    }
    fs::path inLab(const std::string& path)
    {
        return fs::path(lab_->folder() + path);
    }
    fs::path root_;
    std::optional<Lab> lab_;
    std::optional<Probe> probe_;
};

TEST_P(LabPaths, FilesLieInTheLabAndNotOnTheMachine)
{
    EXPECT_EQ(ask("write /etc/config/probe hello"), "0");
    EXPECT_EQ(textOf(inLab("/etc/config/probe")), "hello");
    EXPECT_FALSE(fs::exists("/etc/config/probe"));
    EXPECT_EQ(ask("read //etc/./config///probe"), "hello");
    EXPECT_EQ(ask("stat /etc/config/probe"), "0 0 0");
    EXPECT_EQ(ask("stat /etc/configuration"), "-1 -1 -1") << "only whole names count";
    EXPECT_EQ(ask("realpath /etc/config/probe"), inLab("/etc/config/probe"));
    EXPECT_EQ(ask("read " + lab_->folder() + "/etc/config/probe"), "hello") << "a path in the lab stays as it is";
    EXPECT_EQ(ask("rename /etc/config/probe /tmp/.uci/probe"), "0");
    EXPECT_EQ(textOf(inLab("/tmp/.uci/probe")), "hello");
    EXPECT_EQ(ask("mkdir /run/deeper"), "0");
    EXPECT_TRUE(fs::is_directory(inLab("/var/run/deeper"))) << "/run and /var/run are one";
    EXPECT_EQ(ask("unlink /tmp/.uci/probe"), "0");
    EXPECT_FALSE(fs::exists(inLab("/tmp/.uci/probe")));
    EXPECT_EQ(ask("read /proc/self/comm"), "lab_probe") << "other places are the machine's";
}

TEST_P(LabPaths, NamesThatACallFindsAreThoseOfTheCamera)
{
    EXPECT_EQ(ask("glob /etc/config/t*r"), "1 /etc/config/tour");
    const std::string name = ask("mkstemp /etc/config/.tour.uci-XXXXXX");
    EXPECT_EQ(name.substr(0, 22), "/etc/config/.tour.uci-");
    EXPECT_NE(name.substr(22), "XXXXXX");
    EXPECT_TRUE(fs::exists(inLab(name)));
}

TEST_P(LabPaths, SocketsWorkUnderAnyPathAndEverybodyIsUserZero)
{
    EXPECT_EQ(ask("connect /var/run/probe.sock"), "errno 2");
    EXPECT_EQ(ask("bind /var/run/probe.sock"), "0");
    EXPECT_TRUE(fs::is_socket(inLab("/var/run/probe.sock")));
    EXPECT_EQ(ask("connect /run/probe.sock"), "user 0");
    EXPECT_EQ(ask("bind /var/run/no-such-folder/probe.sock"), "errno 2");
}

TEST_P(LabPaths, TheConsoleOnlyGrows)
{
    EXPECT_EQ(ask("write /dev/console one"), "0");
    EXPECT_EQ(ask("write /dev/console two"), "0");
    EXPECT_EQ(textOf(inLab("/dev/console")), "onetwo");
}

INSTANTIATE_TEST_SUITE_P(Depth, LabPaths, testing::Values(0, 8));

TEST(LabPaths, WithoutALabTheLibraryDoesNothing)
{
    Lab lab;
    std::vector<std::string> environment = lab.environment();
    std::erase_if(environment, [](const std::string& variable) { return variable.starts_with("PTZD_LAB="); });
    Probe probe(environment);
    EXPECT_EQ(probe.ask("open x"), "errno 2");
    EXPECT_EQ(probe.ask("stat /etc/config/ptzd"), fs::exists("/etc/config/ptzd") ? "0 0 0" : "-1 -1 -1");
    EXPECT_GE(probe.number("sleep 20"), 20'000);
}

} // namespace
