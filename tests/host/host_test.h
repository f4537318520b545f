// What the tests of the host share: programs, golden data, and the bus protocol's bytes.
#pragma once

#include "lab/core/files.h"
#include "lab/core/process.h"
#include "lab/lab.h"

#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <json-c/json.h>

#include <pty.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

constexpr auto DEADLINE = std::chrono::seconds(30); // generous: reached in failing tests only

// True as soon as the condition holds; false when it does not within DEADLINE.
template <class Condition>
bool waitUntil(Condition condition)
{
    return waitUntil(condition, DEADLINE);
}

// A temporary folder, which goes with the object.
struct Folder {
    Folder() : path(mkdtemp((std::filesystem::temp_directory_path() / "host_test_XXXXXX").string().data()))
    {
    }
    ~Folder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    const std::filesystem::path path;
};

// ---- programs ----

using Strings = std::vector<std::string>;

template <class Element>
std::vector<Element> operator+(std::vector<Element> left, const std::vector<Element>& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

struct Result {
    int status = 0; // of the exit; -1 when a signal ended it
    std::string out, err;
    bool operator==(const Result&) const = default;
};

inline void PrintTo(const Result& result, std::ostream* out)
{
    *out << result.status << '\n' << result.out << "--\n" << result.err << "--\n";
}

// Runs a command to its end. Its standard error is a terminal.
inline Result run(const Strings& command)
{
    int master = -1, slave = -1;
    termios raw{};
    cfmakeraw(&raw); // line feeds shall come out as they go in
    EXPECT_EQ(openpty(&master, &slave, nullptr, &raw, nullptr), 0);
    Result result;
    result.status =
        runCommand(Strings{"sh", "-c", "exec 2>\"$0\"; exec \"$@\"", ttyname(slave)} + command, {}, result.out);
    close(slave);
    char screen[4096];
    const ssize_t shown = read(master, screen, sizeof screen);
    close(master);
    result.err.assign(screen, shown > 0 ? static_cast<size_t>(shown) : 0);
    return result;
}

// A program beside the test; killed with the object if it still runs.
class Background {
public:
    explicit Background(const Strings& command)
    {
        std::string error;
        pid_ = startProcess({command, {}, folder_.path / "log", folder_.path / "pid", true}, error);
        EXPECT_GT(pid_, 0) << error;
    }
    ~Background()
    {
        if (pid_ > 0)
            end(SIGKILL);
    }
    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;

    pid_t pid() const
    {
        return pid_;
    }
    // Sends a signal, and waits for the program's end: its exit status, -1 when the signal ended it.
    int end(int signal)
    {
        sendSignal(pid_, signal);
        const auto status = awaitEnd(pid_, folder_.path, DEADLINE);
        EXPECT_TRUE(status) << "it does not end";
        pid_ = status ? 0 : pid_;
        return status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
    }
    // What it has printed, errors too.
    std::string output() const
    {
        return readFile(folder_.path / "log");
    }

private:
    Folder folder_;
    pid_t pid_;
};

// ---- golden data (tests/vectors, whose README explains them) ----

using Bytes = std::vector<uint8_t>;

inline Bytes bytesFromHex(const std::string& hex)
{
    Bytes bytes;
    for (size_t at = 0; at + 2 <= hex.size(); at += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoi(hex.substr(at, 2), nullptr, 16)));
    return bytes;
}

inline std::string hex(std::span<const uint8_t> bytes)
{
    std::string hex;
    for (const uint8_t byte : bytes)
        (hex += "0123456789abcdef"[byte >> 4]) += "0123456789abcdef"[byte & 15];
    return hex;
}

// The lines "key: value" between two empty lines. Values may be hexadecimal digits, or JSON strings.
using VectorRecord = std::map<std::string, std::string>;

inline std::vector<VectorRecord> readVectorFile(const std::string& fileName)
{
    std::ifstream file(PTZD_VECTORS "/" + fileName);
    EXPECT_TRUE(file) << fileName;
    std::vector<VectorRecord> records(1);
    for (std::string line; std::getline(file, line);) {
        const size_t colon = line.find(": ");
        if (line.empty() && !records.back().empty())
            records.emplace_back();
        else if (!line.starts_with('#') && colon != line.npos)
            records.back()[line.substr(0, colon)] = line.substr(colon + 2);
    }
    if (records.back().empty())
        records.pop_back();
    return records;
}

inline std::string jsonText(const std::string& literal)
{
    json_object* const value = json_tokener_parse(literal.c_str());
    const std::string text(json_object_get_string(value), static_cast<size_t>(json_object_get_string_len(value)));
    json_object_put(value);
    return text;
}

// ---- the bus protocol ----

enum : uint8_t { HELLO, STATUS, DATA, PING, LOOKUP, INVOKE, ADD_OBJECT, REMOVE_OBJECT, SUBSCRIBE, UNSUBSCRIBE, NOTIFY };
enum : uint8_t { A_STATUS = 1, A_OBJPATH, A_OBJID, A_METHOD, A_OBJTYPE, A_SIGNATURE, A_DATA };
enum : uint8_t { A_TARGET = 8, A_ACTIVE, A_NO_REPLY, A_SUBSCRIBERS, A_USER, A_GROUP };
constexpr size_t FRAME = 12; // the header and the root's word

inline Bytes part(const Bytes& bytes, size_t from, size_t to)
{
    return {bytes.begin() + static_cast<ptrdiff_t>(from), bytes.begin() + static_cast<ptrdiff_t>(to)};
}

inline Bytes u32(uint32_t value)
{
    return {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 8),
            static_cast<uint8_t>(value)};
}

inline uint32_t u32At(const Bytes& bytes, size_t at)
{
    uint32_t value = 0;
    for (size_t i = at; i < at + 4; ++i)
        value = value << 8 | bytes.at(i);
    return value;
}

// With its NUL.
inline Bytes text(std::string_view value)
{
    return Bytes(value.begin(), value.end()) + Bytes{0};
}

inline Bytes padded(Bytes bytes)
{
    bytes.resize((bytes.size() + 3) & ~size_t{3});
    return bytes;
}

inline Bytes attr(uint8_t id, const Bytes& payload)
{
    return padded(u32(uint32_t{id} << 24 | static_cast<uint32_t>(4 + payload.size())) + payload);
}

// The attributes with a name that DATA is made of.
inline Bytes field(uint8_t type, std::string_view name, const Bytes& value)
{
    return attr(type | 0x80, padded(Bytes{0, static_cast<uint8_t>(name.size())} + text(name)) + value);
}

inline Bytes tableField(std::string_view name, const Bytes& fields)
{
    return field(2, name, fields);
}

inline Bytes stringField(std::string_view name, std::string_view value)
{
    return field(3, name, text(value));
}

inline Bytes numberField(std::string_view name, uint32_t value)
{
    return field(5, name, u32(value));
}

inline Bytes message(uint8_t type, uint16_t seq, uint32_t peer, const Bytes& attributes)
{
    return Bytes{0, type, static_cast<uint8_t>(seq >> 8), static_cast<uint8_t>(seq)} + u32(peer) +
           u32(static_cast<uint32_t>(4 + attributes.size())) + attributes;
}

// As the library writes it.
inline Bytes call(uint16_t seq, uint32_t object, std::string_view method, const Bytes& fields)
{
    return message(INVOKE, seq, object,
                   attr(A_OBJID, u32(object)) + attr(A_METHOD, text(method)) + attr(A_DATA, fields));
}

inline Bytes eventCall(uint16_t seq, std::string_view event, const Bytes& fields)
{
    return call(seq, 1, "send", stringField("id", event) + tableField("data", fields));
}

// A notification, or what a subscriber gets of it, that nobody is to answer.
inline Bytes unanswered(uint8_t type, uint32_t object, std::string_view name, const Bytes& fields)
{
    return message(type, 1, object,
                   attr(A_OBJID, u32(object)) + attr(A_METHOD, text(name)) + attr(A_DATA, fields) +
                       attr(A_NO_REPLY, {1}));
}

inline Bytes subscription(uint8_t change, uint32_t object, uint32_t target)
{
    return message(change, 1, 0, attr(A_OBJID, u32(object)) + attr(A_TARGET, u32(target)));
}

inline Bytes statusMessage(uint16_t seq, uint32_t peer, uint32_t status)
{
    return message(STATUS, seq, peer, attr(A_STATUS, u32(status)));
}

// Payload of the last attribute with that id; empty when there is none.
inline Bytes find(const Bytes& message, uint8_t id)
{
    Bytes found;
    for (size_t at = FRAME, length = 0; at + 4 <= message.size(); at += (length + 3) & ~size_t{3}) {
        length = u32At(message, at) & 0xffffff;
        if (length < 4 || at + length > message.size())
            break;
        if (message[at] == id)
            found = part(message, at + 4, at + length);
    }
    return found;
}

inline std::string findText(const Bytes& message, uint8_t id)
{
    const Bytes payload = find(message, id);
    return payload.empty() ? "" : std::string(payload.begin(), payload.end() - 1);
}

// A socket that `call`, connect or bind, has given the address of a path; -1 when that failed.
inline int socketAt(const std::string& path, int (*call)(int, const sockaddr*, socklen_t))
{
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (call(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        return fd;
    close(fd);
    return -1;
}

// One end of a connection, which it closes. What it waits for must come within DEADLINE.
class Peer {
public:
    explicit Peer(int fd = -1) : fd_(fd)
    {
        const timeval longest{std::chrono::seconds(DEADLINE).count(), 0};
        for (const int which : {SO_RCVTIMEO, SO_SNDTIMEO})
            setsockopt(fd_, SOL_SOCKET, which, &longest, sizeof longest);
    }
    ~Peer()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    Peer(Peer&& other) noexcept : fd_(std::exchange(other.fd_, -1))
    {
    }
    Peer& operator=(Peer&& other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }

    int fd() const
    {
        return fd_;
    }
    void send(const Bytes& bytes) const
    {
        for (size_t sent = 0; sent < bytes.size();) {
            const ssize_t count = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            ASSERT_GT(count, 0) << strerror(errno);
            sent += static_cast<size_t>(count);
        }
    }
    // The next whole message; empty at the end of the stream, and, as a test failure, when none comes.
    Bytes receive() const
    {
        Bytes message(FRAME);
        for (size_t got = 0; got < message.size();) {
            const ssize_t count = recv(fd_, message.data() + got, message.size() - got, 0);
            EXPECT_TRUE(count >= 0 || errno == ECONNRESET) << "no message: " << strerror(errno);
            if (count <= 0)
                return {};
            got += static_cast<size_t>(count);
            if (got == FRAME)
                message.resize(FRAME - 4 + (u32At(message, FRAME - 4) & 0xffffff));
        }
        return message;
    }

private:
    int fd_;
};
