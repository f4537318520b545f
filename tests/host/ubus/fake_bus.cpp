#include "fake_bus.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int PATIENCE_MS = 10000;

std::string number(uint32_t value, int digits)
{
    std::array<char, 16> text{};
    snprintf(text.data(), text.size(), "%0*x", digits, value);
    return text.data();
}

bool readable(int fd)
{
    pollfd waited{fd, POLLIN, 0};
    return poll(&waited, 1, PATIENCE_MS) == 1;
}

} // namespace

FakeBus::FakeBus(Script script)
{
    std::array<char, 32> name{"/tmp/fake-bus-XXXXXX"};
    directory_ = mkdtemp(name.data());
    path_ = directory_ + "/ubus.sock";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof(address.sun_path) - 1);
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(listen(listener_, 10), 0);
    thread_ = std::thread([this, run = std::move(script)] { run(*this); });
}

FakeBus::~FakeBus()
{
    thread_.join();
    close();
    ::close(listener_);
    std::filesystem::remove_all(directory_);
}

void FakeBus::accept()
{
    close();
    if (readable(listener_))
        client_ = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    EXPECT_GE(client_, 0) << "no client came";
}

void FakeBus::greet(uint32_t clientId)
{
    accept();
    send(message(UBUS_MSG_HELLO, 0, clientId, ""));
}

void FakeBus::send(const std::string& hex)
{
    Bytes bytes = bytesFromHex(hex);
    EXPECT_EQ(::send(client_, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
}

Bytes FakeBus::receive()
{
    Bytes bytes;
    size_t wanted = 12;
    while (bytes.size() < wanted) {
        size_t have = bytes.size();
        if (!readable(client_)) {
            ADD_FAILURE() << "the client sent nothing more than " << hexFromBytes(bytes.data(), have);
            return {};
        }
        bytes.resize(wanted);
        ssize_t count = recv(client_, bytes.data() + have, wanted - have, 0);
        bytes.resize(have + static_cast<size_t>(std::max(count, ssize_t{0})));
        if (count <= 0)
            return bytes;
        if (bytes.size() == 12)
            wanted = 8 + (static_cast<size_t>(bytes[9]) << 16 | static_cast<size_t>(bytes[10]) << 8 | bytes[11]);
    }
    return bytes;
}

void FakeBus::expect(const std::string& hex)
{
    Bytes bytes = receive();
    EXPECT_EQ(hexFromBytes(bytes.data(), bytes.size()), hex);
}

void FakeBus::expectEnd()
{
    EXPECT_TRUE(receive().empty());
}

void FakeBus::close()
{
    if (client_ >= 0)
        ::close(client_);
    client_ = -1;
}

void FakeBus::closeHalf()
{
    shutdown(client_, SHUT_WR);
}

std::string message(int type, unsigned seq, uint32_t peer, const std::string& attributes)
{
    return "00" + number(static_cast<uint32_t>(type), 2) + number(seq, 4) + number(peer, 8) +
           number(static_cast<uint32_t>(attributes.size() / 2 + 4), 8) + attributes;
}

std::string statusMessage(unsigned seq, uint32_t peer, uint32_t status)
{
    return message(UBUS_MSG_STATUS, seq, peer, "01000008" + number(status, 8));
}

JsonMessage::JsonMessage(const char* json)
{
    blob_buf_init(&buf_, 0);
    EXPECT_TRUE(blobmsg_add_json_from_string(&buf_, json));
}

JsonMessage::~JsonMessage()
{
    blob_buf_free(&buf_);
}

std::string jsonOf(blob_attr* msg)
{
    std::unique_ptr<char, decltype(&free)> text(blobmsg_format_json(msg, true), free);
    return text.get();
}

void collectJson(ubus_request* req, int type, blob_attr* msg)
{
    EXPECT_EQ(type, UBUS_MSG_DATA);
    *static_cast<std::string*>(req->priv) += jsonOf(msg);
}

bool handleUntil(ubus_context* ctx, const std::function<bool()>& condition)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(PATIENCE_MS);
    while (!condition() && std::chrono::steady_clock::now() < end) {
        pollfd waited{ctx->sock.fd, POLLIN, 0};
        poll(&waited, 1, 100);
        ubus_handle_event(ctx);
    }
    return condition();
}

long processorMs()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000 +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1000;
}
