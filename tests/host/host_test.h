// What the tests of the host share: programs, golden data, and the bus protocol's bytes.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <sys/types.h>
#include <sys/un.h>

constexpr auto DEADLINE = std::chrono::seconds(30); // generous: reached in failing tests only

// True as soon as the condition holds; false when it does not within DEADLINE.
template <class Condition>
bool waitUntil(Condition condition)
{
    const auto end = std::chrono::steady_clock::now() + DEADLINE;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// A temporary folder, which goes with the object.
struct Folder {
    Folder();
    ~Folder();
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    const std::filesystem::path path;
};

// ---- programs ----

using Strings = std::vector<std::string>;

struct Result {
    int status = 0; // of the exit; -1 when a signal ended it
    std::string out, err;
    bool operator==(const Result&) const = default;
};
void PrintTo(const Result& result, std::ostream* out);

// Runs a command to its end. Its standard error is a file, or a terminal.
Result run(const Strings& command, bool terminal = false);

// A program beside the test; killed with the object if it still runs.
class Background {
public:
    explicit Background(const Strings& command);
    ~Background();
    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;

    pid_t pid() const
    {
        return pid_;
    }
    // Sends a signal, and waits for the program's end: its exit status, -1 when the signal ended it.
    int end(int signal);
    // What it has printed, errors too.
    std::string output() const;

private:
    Folder folder_;
    pid_t pid_;
};

// ---- golden data (tests/vectors, whose README explains them) ----

using Bytes = std::vector<uint8_t>;
Bytes bytesFromHex(std::string_view hex);
std::string hex(const void* data, size_t size);
inline std::string hex(const Bytes& bytes)
{
    return hex(bytes.data(), bytes.size());
}

// The lines "key: value" between two empty lines. Values may be hexadecimal digits, or JSON strings.
using VectorRecord = std::map<std::string, std::string>;
std::vector<VectorRecord> readVectorFile(const std::string& fileName);
std::string jsonText(const std::string& literal);

// ---- the bus protocol ----

enum : uint8_t { HELLO, STATUS, DATA, PING, LOOKUP, INVOKE, ADD_OBJECT, REMOVE_OBJECT };
enum : uint8_t { A_STATUS = 1, A_OBJPATH, A_OBJID, A_METHOD, A_OBJTYPE, A_SIGNATURE, A_DATA, A_USER = 12, A_GROUP };

Bytes operator+(Bytes left, const Bytes& right);
Bytes part(const Bytes& bytes, size_t from, size_t to);
Bytes u32(uint32_t value);
uint32_t u32At(const Bytes& bytes, size_t at);
Bytes text(std::string_view value); // with its NUL

// An attribute, padded, and the extended ones of DATA.
Bytes attr(uint8_t id, const Bytes& payload);
Bytes stringField(std::string_view name, std::string_view value);
Bytes numberField(std::string_view name, uint32_t value);
Bytes tableField(std::string_view name, const Bytes& fields);

Bytes message(uint8_t type, uint16_t seq, uint32_t peer, const Bytes& attributes);
Bytes call(uint16_t seq, uint32_t object, std::string_view method, const Bytes& fields); // as the library writes it
Bytes eventCall(uint16_t seq, std::string_view event, const Bytes& fields);
Bytes statusMessage(uint16_t seq, uint32_t peer, uint32_t status);

// Payload of the last attribute with that id; empty when there is none.
Bytes find(const Bytes& message, uint8_t id);
std::string findText(const Bytes& message, uint8_t id);

// One end of a connection, which it closes. What it waits for must come within DEADLINE.
class Peer {
public:
    explicit Peer(int fd = -1);
    explicit Peer(const std::string& path); // connects
    ~Peer();
    Peer(Peer&& other) noexcept;
    Peer& operator=(Peer&& other) noexcept;

    int fd() const
    {
        return fd_;
    }
    void send(const Bytes& bytes) const;
    // The next whole message; empty at the end of the stream, and, as a test failure, when none comes.
    Bytes receive() const;
    bool hasInput(std::chrono::milliseconds wait) const;

private:
    int fd_;
};

// An address that all paths of the tests fit into.
sockaddr_un addressOf(const std::string& path);
