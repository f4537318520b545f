#include "bus_test.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
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

RawClient::RawClient(const std::string& path, bool greeted) : WireEnd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    const sockaddr_un address = addressOf(path);
    if (connect(fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        ADD_FAILURE() << "connect: " << strerror(errno);
    else if (greeted)
        awaitGreeting();
}

void RawClient::awaitGreeting()
{
    const Bytes greeting = receive();
    ASSERT_EQ(greeting.size(), 12u);
    id_ = u32At(greeting, 4);
    EXPECT_EQ(greeting, message(HELLO, 0, id_, {}));
}

Bytes RawClient::receive()
{
    const Bytes received = WireEnd::receive();
    EXPECT_FALSE(received.empty()) << "the end of the stream";
    return received;
}

bool RawClient::closedByDaemon()
{
    while (hasInput(DEADLINE))
        if (WireEnd::receive().empty())
            return true;
    return false;
}

Answer RawClient::ask(const Bytes& request)
{
    send(request);
    Answer answer;
    for (;;) {
        const Bytes received = receive();
        if (received.empty())
            return answer;
        // The daemon repeats the request's sequence number and peer.
        if (received[1] == STATUS && std::equal(request.begin() + 2, request.begin() + 8, received.begin() + 2)) {
            answer.status = u32At(find(received, A_STATUS), 0);
            return answer;
        }
        answer.data.push_back(received);
    }
}

bool RawClient::nothingWaits()
{
    const Bytes ping = message(PING, ++seq_, 0, {});
    const Answer answer = ask(ping);
    return answer.status == 0 && answer.data == Messages{message(DATA, seq_, 0, {})};
}

uint32_t RawClient::add(const Bytes& attributes)
{
    const Answer answer = ask(message(ADD_OBJECT, ++seq_, 0, attributes));
    EXPECT_EQ(answer.status, 0u);
    return answer.data.empty() ? 0 : u32At(find(answer.data.back(), A_OBJID), 0);
}

uint32_t RawClient::addObject(std::string_view name, const Bytes& signature)
{
    return add(attr(A_OBJPATH, text(name)) + attr(A_SIGNATURE, signature));
}

uint32_t RawClient::addAnonymous()
{
    return add({});
}

uint32_t RawClient::listenTo(std::string_view pattern)
{
    const uint32_t object = addAnonymous();
    const Bytes fields = numberField("object", object) + stringField("pattern", pattern);
    EXPECT_EQ(ask(call(++seq_, 1, "register", fields)).status, 0u);
    return object;
}
