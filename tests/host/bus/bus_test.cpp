#include "bus_test.h"

#include <csignal>
#include <fstream>

#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr uint16_t OWN_SEQ = 0xf000; // well away from the tests'

// The process that takes connections there; 0 when nobody does.
pid_t listenerAt(const std::string& path)
{
    const sockaddr_un address = addressOf(path);
    const Peer end(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ucred peer{};
    socklen_t length = sizeof peer;
    const bool connected = ::connect(end.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    return connected && getsockopt(end.fd(), SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 ? peer.pid : 0;
}

} // namespace

BusTest::BusTest() : daemon(startDaemon())
{
}

void BusTest::TearDown()
{
    EXPECT_EQ(daemon->end(SIGTERM), 0);
    EXPECT_EQ(daemon->output(), "");
}

std::unique_ptr<Background> BusTest::startDaemon() const
{
    auto started = std::make_unique<Background>(Strings{UBUSD_PROGRAM, "-s", socketPath});
    EXPECT_TRUE(waitUntil([&] { return listenerAt(socketPath) == started->pid(); }));
    return started;
}

bool BusTest::daemonSleeps() const
{
    const auto ticks = [&] { // of 10 ms
        std::ifstream file("/proc/" + std::to_string(daemon->pid()) + "/stat");
        std::string word;
        for (int field = 1; field <= 13; ++field)
            file >> word;
        long user = 0, system = 0;
        file >> user >> system;
        return user + system;
    };
    const long before = ticks();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    return ticks() - before <= 10;
}

Bytes oneMethod(std::string_view method, std::string_view argument)
{
    return tableField(method, numberField(argument, 3));
}

RawClient::RawClient(const std::string& path, bool greeted) : Peer(path)
{
    if (greeted)
        awaitGreeting();
}

void RawClient::awaitGreeting()
{
    const Bytes greeting = receive();
    ASSERT_EQ(greeting.size(), 12u);
    id_ = u32At(greeting, 4);
    EXPECT_EQ(greeting, message(HELLO, 0, id_, {}));
}

bool RawClient::closedByDaemon()
{
    while (!receive().empty()) {
    }
    return hasInput({}); // its end, that is
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
    const Answer answer = ask(message(PING, OWN_SEQ, 0, {}));
    return answer.status == 0 && answer.data == Messages{message(DATA, OWN_SEQ, 0, {})};
}

uint32_t RawClient::addObject(std::string_view name, const Bytes& signature)
{
    const Bytes attributes = attr(A_OBJPATH, text(name)) + attr(A_SIGNATURE, signature);
    return u32At(find(ask(message(ADD_OBJECT, OWN_SEQ, 0, attributes)).data.at(0), A_OBJID), 0);
}

uint32_t RawClient::addAnonymous()
{
    return u32At(find(ask(message(ADD_OBJECT, OWN_SEQ, 0, {})).data.at(0), A_OBJID), 0);
}

uint32_t RawClient::listenTo(std::string_view pattern)
{
    const uint32_t object = addAnonymous();
    const Bytes fields = numberField("object", object) + stringField("pattern", pattern);
    EXPECT_EQ(ask(call(OWN_SEQ, 1, "register", fields)).status, 0u);
    return object;
}
