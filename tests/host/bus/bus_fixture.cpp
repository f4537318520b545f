#include "bus_fixture.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include <sys/socket.h>
#include <unistd.h>

namespace {

pid_t serverOf(int fd)
{
    ucred peer{};
    socklen_t length = sizeof peer;
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 ? peer.pid : 0;
}

} // namespace

void BusTest::SetUp()
{
    std::string name = (std::filesystem::temp_directory_path() / "bus_test_XXXXXX").string();
    ASSERT_TRUE(mkdtemp(name.data()));
    folder_ = name;
    daemon = startDaemon();
}

void BusTest::TearDown()
{
    if (daemon) {
        daemon->signal(SIGTERM);
        EXPECT_EQ(daemon->wait(), 0);
        EXPECT_EQ(daemon->out + daemon->err, "");
    }
    std::filesystem::remove_all(folder_);
}

pid_t BusTest::listenerAtSocket() const
{
    const sockaddr_un address = addressOf(socketPath());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool connected = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    const pid_t listener = connected ? serverOf(fd) : 0;
    close(fd);
    return listener;
}

std::unique_ptr<Process> BusTest::startDaemon() const
{
    auto process = std::make_unique<Process>(std::vector<std::string>{UBUSD_PROGRAM, "-s", socketPath()});
    EXPECT_TRUE(waitUntil([&] { return listenerAtSocket() == process->pid(); }));
    return process;
}

long BusTest::daemonTicks() const
{
    std::ifstream file("/proc/" + std::to_string(daemon->pid()) + "/stat");
    std::string word;
    long user = 0;
    long system = 0;
    for (int field = 1; field <= 13; ++field)
        file >> word;
    file >> user >> system;
    return user + system;
}

long BusTest::ticksWhileIdle() const
{
    const long before = daemonTicks();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    return daemonTicks() - before;
}

Bytes oneMethod(std::string_view method, std::string_view argument)
{
    return tableField(method, numberField(argument, 3));
}
