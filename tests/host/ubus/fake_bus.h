// A scripted bus daemon on a thread of its own: it says and expects exactly what the test writes down.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "ubox/ubox_test.h"
#include "wire.h"

extern "C" {
#include <libubus.h>
}

class FakeBus {
public:
    using Script = std::function<void(FakeBus&)>;

    // Listens on a socket in a directory of its own and starts the script.
    explicit FakeBus(Script script);
    // Waits for the script's end.
    ~FakeBus();
    FakeBus(const FakeBus&) = delete;
    FakeBus& operator=(const FakeBus&) = delete;

    const char* path() const
    {
        return path_.c_str();
    }

    // For the script: takes the next client in the place of the last, and greets it.
    void accept();
    void greet(uint32_t clientId = 0xa617c13a);
    void send(const Bytes& bytes) const
    {
        client_.send(bytes);
    }
    // The next whole message of the client, empty at its end.
    Bytes receive()
    {
        return client_.receive();
    }
    void expect(const Bytes& bytes);
    void expectEnd();
    void close()
    {
        client_ = WireEnd();
    }
    void closeHalf() const
    {
        client_.endWriting();
    }

private:
    std::string directory_;
    std::string path_;
    int listener_ = -1;
    WireEnd client_;
    std::thread thread_;
};

struct FreeContext {
    void operator()(ubus_context* ctx) const
    {
        ubus_free(ctx);
    }
};
using Context = std::unique_ptr<ubus_context, FreeContext>;

inline Context connectTo(const FakeBus& bus)
{
    return Context(ubus_connect(bus.path()));
}

// Lets a data callback collect the replies as JSON, one after the other, in the std::string that is the request's priv.
void collectJson(ubus_request* req, int type, blob_attr* msg);

// Handles what arrives at a context outside the loop until the condition holds; false when it does not in time.
bool handleUntil(ubus_context* ctx, const std::function<bool()>& condition);
