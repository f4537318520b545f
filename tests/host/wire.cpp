#include "wire.h"

#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
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

Bytes statusMessage(uint16_t seq, uint32_t peer, uint32_t status)
{
    return message(STATUS, seq, peer, attr(A_STATUS, u32(status)));
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

WireEnd::~WireEnd()
{
    if (fd_ >= 0)
        close(fd_);
}

WireEnd::WireEnd(WireEnd&& other) noexcept : fd_(std::exchange(other.fd_, -1)), input_(std::move(other.input_))
{
}

WireEnd& WireEnd::operator=(WireEnd&& other) noexcept
{
    std::swap(fd_, other.fd_);
    std::swap(input_, other.input_);
    return *this;
}

void WireEnd::send(const Bytes& bytes) const
{
    for (size_t sent = 0; sent < bytes.size();) {
        ASSERT_TRUE(waitFor(fd_, POLLOUT, DEADLINE)) << "the other side does not read";
        const ssize_t count = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        ASSERT_TRUE(count > 0 || errno == EAGAIN) << strerror(errno);
        sent += count > 0 ? static_cast<size_t>(count) : 0;
    }
}

void WireEnd::endWriting() const
{
    shutdown(fd_, SHUT_WR);
}

Bytes WireEnd::receive()
{
    for (;;) {
        const size_t size = input_.size() < HEADER + 4 ? SIZE_MAX : HEADER + (u32At(input_, HEADER) & 0xffffff);
        if (input_.size() >= size) {
            const Bytes message = part(input_, 0, size);
            input_.erase(input_.begin(), input_.begin() + static_cast<ptrdiff_t>(size));
            return message;
        }
        uint8_t bytes[16384];
        const bool came = waitFor(fd_, POLLIN, DEADLINE);
        EXPECT_TRUE(came) << "no message";
        const ssize_t count = came ? recv(fd_, bytes, sizeof bytes, MSG_DONTWAIT) : 0;
        if (count <= 0)
            return {};
        input_.insert(input_.end(), bytes, bytes + count);
    }
}

bool WireEnd::hasInput(std::chrono::milliseconds wait) const
{
    return !input_.empty() || waitFor(fd_, POLLIN, wait);
}

sockaddr_un addressOf(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}
