#include "raw_client.h"

#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr size_t HEADER = 8;
constexpr uint8_t EXTENDED = 0x80;

void pad(Bytes& bytes)
{
    while (bytes.size() % 4 != 0)
        bytes.push_back(0);
}

Bytes field(uint8_t type, std::string_view name, const Bytes& value)
{
    Bytes payload{static_cast<uint8_t>(name.size() >> 8), static_cast<uint8_t>(name.size())};
    payload = payload + text(name);
    pad(payload);
    return attr(type | EXTENDED, payload + value);
}

bool waitFor(int fd, short events, std::chrono::milliseconds wait)
{
    pollfd entry{.fd = fd, .events = events, .revents = 0};
    return poll(&entry, 1, static_cast<int>(wait.count())) > 0;
}

} // namespace

Bytes operator+(Bytes left, const Bytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Bytes part(const Bytes& bytes, size_t from, size_t to)
{
    return {bytes.begin() + static_cast<ptrdiff_t>(from), bytes.begin() + static_cast<ptrdiff_t>(to)};
}

Bytes u32(uint32_t value)
{
    return {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 8),
            static_cast<uint8_t>(value)};
}

Bytes text(std::string_view value)
{
    Bytes bytes(value.begin(), value.end());
    bytes.push_back(0);
    return bytes;
}

uint32_t u32At(const Bytes& bytes, size_t at)
{
    uint32_t value = 0;
    for (size_t i = at; i < at + 4; ++i)
        value = value << 8 | bytes.at(i);
    return value;
}

Bytes attr(uint8_t id, const Bytes& payload)
{
    Bytes bytes = u32(uint32_t{id} << 24 | static_cast<uint32_t>(4 + payload.size())) + payload;
    pad(bytes);
    return bytes;
}

Bytes stringField(std::string_view name, std::string_view value)
{
    return field(3, name, text(value));
}

Bytes numberField(std::string_view name, uint32_t value)
{
    return field(5, name, u32(value));
}

Bytes tableField(std::string_view name, const Bytes& fields)
{
    return field(2, name, fields);
}

Bytes message(uint8_t type, uint16_t seq, uint32_t peer, const Bytes& attributes)
{
    return Bytes{0, type, static_cast<uint8_t>(seq >> 8), static_cast<uint8_t>(seq)} + u32(peer) +
           u32(static_cast<uint32_t>(4 + attributes.size())) + attributes;
}

Bytes call(uint16_t seq, uint32_t object, std::string_view method, const Bytes& fields)
{
    return message(INVOKE, seq, object,
                   attr(A_OBJID, u32(object)) + attr(A_METHOD, text(method)) + attr(A_DATA, fields));
}

Bytes eventCall(uint16_t seq, std::string_view event, const Bytes& fields)
{
    return call(seq, 1, "send", stringField("id", event) + tableField("data", fields));
}

Bytes find(const Bytes& message, uint8_t id)
{
    Bytes found;
    for (size_t at = HEADER + 4; at + 4 <= message.size();) {
        const size_t length = u32At(message, at) & 0xffffff;
        if (length < 4 || at + length > message.size())
            break;
        if (message[at] == id)
            found = part(message, at + 4, at + length);
        at += (length + 3) & ~size_t{3};
    }
    return found;
}

std::string findText(const Bytes& message, uint8_t id)
{
    const Bytes payload = find(message, id);
    return payload.empty() ? "" : std::string(payload.begin(), payload.end() - 1);
}

RawClient::RawClient(const std::string& path, bool greeted) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        ADD_FAILURE() << "connect: " << strerror(errno);
    else if (greeted)
        awaitGreeting();
}

RawClient::~RawClient()
{
    if (fd_ >= 0)
        close(fd_);
}

RawClient::RawClient(RawClient&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), id_(other.id_), seq_(other.seq_), input_(std::move(other.input_))
{
}

void RawClient::awaitGreeting()
{
    const Bytes greeting = receive();
    ASSERT_EQ(greeting.size(), 12u);
    id_ = u32At(greeting, 4);
    EXPECT_EQ(greeting, message(HELLO, 0, id_, {}));
}

void RawClient::send(const Bytes& bytes) const
{
    for (size_t sent = 0; sent < bytes.size();) {
        ASSERT_TRUE(waitFor(fd_, POLLOUT, DEADLINE)) << "the daemon does not read";
        const ssize_t count = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        ASSERT_TRUE(count > 0 || errno == EAGAIN) << strerror(errno);
        sent += count > 0 ? static_cast<size_t>(count) : 0;
    }
}

void RawClient::endWriting() const
{
    shutdown(fd_, SHUT_WR);
}

Bytes RawClient::receive()
{
    for (;;) {
        if (input_.size() >= HEADER + 4) {
            const size_t size = HEADER + (u32At(input_, HEADER) & 0xffffff);
            if (input_.size() >= size) {
                const Bytes message = part(input_, 0, size);
                input_.erase(input_.begin(), input_.begin() + static_cast<ptrdiff_t>(size));
                return message;
            }
        }
        uint8_t bytes[16384];
        const ssize_t count = waitFor(fd_, POLLIN, DEADLINE) ? recv(fd_, bytes, sizeof bytes, MSG_DONTWAIT) : -1;
        if (count <= 0) {
            ADD_FAILURE() << "no message, but " << (count == 0 ? "the end of the stream" : strerror(errno));
            return {};
        }
        input_.insert(input_.end(), bytes, bytes + count);
    }
}

bool RawClient::hasInput(std::chrono::milliseconds wait) const
{
    return !input_.empty() || waitFor(fd_, POLLIN, wait);
}

bool RawClient::closedByDaemon()
{
    while (waitFor(fd_, POLLIN, DEADLINE)) {
        uint8_t bytes[16384];
        if (recv(fd_, bytes, sizeof bytes, MSG_DONTWAIT) <= 0)
            return true;
    }
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
