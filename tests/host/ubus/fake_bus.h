// A scripted bus daemon on a thread of its own: it says and expects exactly what the test writes down.
#pragma once

#include "ubox/ubox_test.h"

#include <functional>
#include <memory>

extern "C" {
#include <libubus.h>
}

class FakeBus {
public:
    explicit FakeBus(std::function<void(FakeBus&)> script)
    {
        EXPECT_EQ(listen(listener_.fd(), 10), 0);
        thread_ = std::thread([this, run = std::move(script)] { run(*this); });
    }
    ~FakeBus()
    {
        thread_.join();
    }
    FakeBus(const FakeBus&) = delete;
    FakeBus& operator=(const FakeBus&) = delete;

    // For the script: takes the next client in the place of the last, and greets it.
    void accept()
    {
        client = Peer(); // what a client that is to connect again waits for
        client = Peer(accept4(listener_.fd(), nullptr, nullptr, SOCK_CLOEXEC));
        EXPECT_GE(client.fd(), 0) << "no client came";
    }
    void greet()
    {
        accept();
        client.send(message(HELLO, 0, 0xa617c13a, {}));
    }
    void expect(const Bytes& bytes) const
    {
        EXPECT_EQ(hex(client.receive()), hex(bytes));
    }

    const Folder folder;
    const std::string path = folder.path / "ubus.sock";
    Peer client;

private:
    const Peer listener_{socketAt(path, bind)};
    std::thread thread_;
};

using Context = std::unique_ptr<ubus_context, void (*)(ubus_context*)>;

inline Context connectTo(const FakeBus& bus)
{
    return {ubus_connect(bus.path.c_str()), ubus_free};
}

// Lets a data callback collect the replies as JSON, one after the other, in the std::string that is the request's priv.
inline void collectJson(ubus_request* req, int, blob_attr* msg)
{
    *static_cast<std::string*>(req->priv) += jsonOf(msg);
}
