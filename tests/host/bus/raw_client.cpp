#include "raw_client.h"

#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>

#include <sys/socket.h>

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
