#pragma once
// A client of the bus that writes and reads the bytes itself, and the pieces that its messages are made of.

#include "vector_file.h"

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

constexpr auto DEADLINE = std::chrono::seconds(30); // generous: reached in failing tests only

enum : uint8_t { HELLO, STATUS, DATA, PING, LOOKUP, INVOKE, ADD_OBJECT, REMOVE_OBJECT };
enum : uint8_t { A_STATUS = 1, A_OBJPATH, A_OBJID, A_METHOD, A_OBJTYPE, A_SIGNATURE, A_DATA, A_USER = 12, A_GROUP };

Bytes operator+(Bytes left, const Bytes& right);
Bytes part(const Bytes& bytes, size_t from, size_t to);
Bytes u32(uint32_t value);
Bytes text(std::string_view value); // with its NUL
uint32_t u32At(const Bytes& bytes, size_t at);

// An attribute, padded; `id` may have bit 7 set for an extended one.
Bytes attr(uint8_t id, const Bytes& payload);

// A field of DATA, padded.
Bytes stringField(std::string_view name, std::string_view value);
Bytes numberField(std::string_view name, uint32_t value);
Bytes tableField(std::string_view name, const Bytes& fields);

Bytes message(uint8_t type, uint16_t seq, uint32_t peer, const Bytes& attributes);

// INVOKE as the client library writes it.
Bytes call(uint16_t seq, uint32_t object, std::string_view method, const Bytes& fields);
Bytes eventCall(uint16_t seq, std::string_view event, const Bytes& fields);

// Payload of the last attribute with that id; empty when there is none.
Bytes find(const Bytes& message, uint8_t id);
std::string findText(const Bytes& message, uint8_t id);

using Messages = std::vector<Bytes>;

// What came for a request: everything up to the status, and the status.
struct Answer {
    Messages data;
    uint32_t status = ~0u;
};

class RawClient {
public:
    // Connects. Without `greeted` the greeting is left to be received.
    explicit RawClient(const std::string& path, bool greeted = true);
    ~RawClient();
    RawClient(RawClient&& other) noexcept;
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    uint32_t id() const
    {
        return id_;
    }
    void awaitGreeting();
    void send(const Bytes& bytes) const;

    void endWriting() const;

    // The next message; empty, and a test failure, when none comes in time.
    Bytes receive();
    bool hasInput(std::chrono::milliseconds wait = {}) const;

    // Reads and forgets until the daemon has closed the connection; false when it does not.
    bool closedByDaemon();

    // Sends a request of the daemon and receives up to its status.
    Answer ask(const Bytes& request);

    // Nothing was sent to this client that it has not received: the next thing is the answer to a ping.
    bool nothingWaits();

    // Registers an object and gives its id.
    uint32_t addObject(std::string_view name, const Bytes& signature = {});
    uint32_t addAnonymous();
    uint32_t listenTo(std::string_view pattern);

private:
    uint32_t add(const Bytes& attributes);

    int fd_;
    uint32_t id_ = 0;
    uint16_t seq_ = 0xf000; // own requests: well away from the tests'
    Bytes input_;
};
