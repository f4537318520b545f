// The bus protocol's bytes, as this side of the tests writes and reads them: the pieces that messages are made of.
#pragma once

#include "process.h"
#include "vector_file.h"

#include <string>
#include <string_view>

#include <sys/un.h>

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
Bytes statusMessage(uint16_t seq, uint32_t peer, uint32_t status);
Bytes eventCall(uint16_t seq, std::string_view event, const Bytes& fields);

// Payload of the last attribute with that id; empty when there is none.
Bytes find(const Bytes& message, uint8_t id);
std::string findText(const Bytes& message, uint8_t id);

// One end of a connection, which it closes. What it waits for must come within DEADLINE.
class WireEnd {
public:
    explicit WireEnd(int fd = -1) : fd_(fd)
    {
    }
    ~WireEnd();
    WireEnd(WireEnd&& other) noexcept;
    WireEnd& operator=(WireEnd&& other) noexcept;

    int fd() const
    {
        return fd_;
    }
    void send(const Bytes& bytes) const;
    void endWriting() const;

    // The next whole message; empty at the end of the stream, and, as a test failure, when none comes.
    Bytes receive();
    bool hasInput(std::chrono::milliseconds wait = {}) const;

private:
    int fd_;
    Bytes input_;
};

// An address that all paths of the tests fit into.
sockaddr_un addressOf(const std::string& path);
