// A scripted bus daemon on a thread of its own: it says and expects exactly what the test writes down.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "vector_file.h"

extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubus.h>
}
#undef fallthrough

class FakeBus {
public:
    using Script = std::function<void(FakeBus&)>;

    // Listens on a socket in a directory of its own and starts the script. What the script waits for must come within
    // ten seconds.
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
    void send(const std::string& hex);
    // The next whole message of the client, empty at its end.
    Bytes receive();
    void expect(const std::string& hex);
    void expectEnd();
    void close();
    void closeHalf();

private:
    std::string directory_;
    std::string path_;
    int listener_ = -1;
    int client_ = -1;
    std::thread thread_;
};

// A message, its attributes given in hexadecimal.
std::string message(int type, unsigned seq, uint32_t peer, const std::string& attributes);
std::string statusMessage(unsigned seq, uint32_t peer, uint32_t status);

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

// A head with the members of a JSON object.
class JsonMessage {
public:
    explicit JsonMessage(const char* json);
    ~JsonMessage();
    JsonMessage(const JsonMessage&) = delete;
    JsonMessage& operator=(const JsonMessage&) = delete;
    blob_attr* get()
    {
        return buf_.head;
    }

private:
    blob_buf buf_{};
};

std::string jsonOf(blob_attr* msg);

// Lets a data callback collect the replies as JSON, one after the other, in the std::string that is the request's priv.
void collectJson(ubus_request* req, int type, blob_attr* msg);

// Handles what arrives at a context outside the loop until the condition holds, at most ten seconds.
bool handleUntil(ubus_context* ctx, const std::function<bool()>& condition);

// User and system time of the process so far, in milliseconds.
long processorMs();
