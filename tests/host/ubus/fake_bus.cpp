#include "fake_bus.h"

#include <cstdlib>
#include <filesystem>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

FakeBus::FakeBus(Script script)
{
    char name[] = "/tmp/fake-bus-XXXXXX";
    directory_ = mkdtemp(name);
    path_ = directory_ + "/ubus.sock";
    const sockaddr_un address = addressOf(path_);
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(listen(listener_, 10), 0);
    thread_ = std::thread([this, run = std::move(script)] { run(*this); });
}

FakeBus::~FakeBus()
{
    thread_.join();
    ::close(listener_);
    std::filesystem::remove_all(directory_);
}

void FakeBus::accept()
{
    close(); // what a client that is to connect again waits for
    pollfd waited{listener_, POLLIN, 0};
    const bool came = poll(&waited, 1, static_cast<int>(std::chrono::milliseconds(DEADLINE).count())) == 1;
    client_ = WireEnd(came ? accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC) : -1);
    EXPECT_GE(client_.fd(), 0) << "no client came";
}

void FakeBus::greet(uint32_t clientId)
{
    accept();
    send(message(HELLO, 0, clientId, {}));
}

void FakeBus::expect(const Bytes& bytes)
{
    const Bytes received = receive();
    EXPECT_EQ(hexFromBytes(received.data(), received.size()), hexFromBytes(bytes.data(), bytes.size()));
}

void FakeBus::expectEnd()
{
    EXPECT_TRUE(receive().empty());
}

void collectJson(ubus_request* req, int type, blob_attr* msg)
{
    EXPECT_EQ(type, UBUS_MSG_DATA);
    *static_cast<std::string*>(req->priv) += jsonOf(msg);
}

bool handleUntil(ubus_context* ctx, const std::function<bool()>& condition)
{
    return waitUntil([&] {
        ubus_handle_event(ctx);
        return condition();
    });
}
