#include "host_test.h"

#include "lab/core/files.h"
#include "lab/core/process.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <memory>

#include <json-c/json.h>

#include <poll.h>
#include <pty.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr size_t HEADER = 8;

Bytes field(uint8_t type, std::string_view name, const Bytes& value)
{
    Bytes header = Bytes{static_cast<uint8_t>(name.size() >> 8), static_cast<uint8_t>(name.size())} + text(name);
    header.resize((header.size() + 3) & ~size_t{3});
    return attr(type | 0x80, header + value);
}

} // namespace

Folder::Folder() : path(mkdtemp((std::filesystem::temp_directory_path() / "host_test_XXXXXX").string().data()))
{
}

Folder::~Folder()
{
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

void PrintTo(const Result& result, std::ostream* out)
{
    *out << result.status << '\n' << result.out << "--\n" << result.err << "--\n";
}

Result run(const Strings& command, bool terminal)
{
    const Folder folder;
    int master = -1, slave = -1;
    termios raw{};
    cfmakeraw(&raw); // line feeds shall come out as they go in
    EXPECT_EQ(openpty(&master, &slave, nullptr, &raw, nullptr), 0);
    const std::string errors = terminal ? ttyname(slave) : folder.path / "errors";
    Strings all{"sh", "-c", "exec 2>\"$0\"; exec \"$@\"", errors};
    all.insert(all.end(), command.begin(), command.end());
    Result result;
    result.status = runCommand(all, {}, result.out);
    close(slave);
    char screen[4096];
    const ssize_t shown = terminal ? read(master, screen, sizeof screen) : 0;
    close(master);
    result.err = terminal ? std::string(screen, shown > 0 ? static_cast<size_t>(shown) : 0) : readFile(errors);
    return result;
}

Background::Background(const Strings& command)
{
    std::string error;
    pid_ = startProcess({command, {}, folder_.path / "log", folder_.path / "pid", true}, error);
    EXPECT_GT(pid_, 0) << error;
}

Background::~Background()
{
    if (pid_ > 0)
        end(SIGKILL);
}

int Background::end(int signal)
{
    sendSignal(pid_, signal);
    const auto status = awaitEnd(pid_, folder_.path, DEADLINE);
    EXPECT_TRUE(status) << "it does not end";
    pid_ = status ? 0 : pid_;
    return status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
}

std::string Background::output() const
{
    return readFile(folder_.path / "log");
}

Bytes bytesFromHex(std::string_view hex)
{
    Bytes bytes;
    for (size_t at = 0; at + 2 <= hex.size(); at += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoi(std::string(hex.substr(at, 2)), nullptr, 16)));
    return bytes;
}

std::string hex(const void* data, size_t size)
{
    static constexpr char DIGITS[] = "0123456789abcdef";
    std::string hex;
    for (const auto* byte = static_cast<const uint8_t*>(data); size > 0; ++byte, --size)
        (hex += DIGITS[*byte >> 4]) += DIGITS[*byte & 15];
    return hex;
}

std::vector<VectorRecord> readVectorFile(const std::string& fileName)
{
    std::ifstream file(std::string(PTZD_VECTORS) + "/" + fileName);
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

std::string jsonText(const std::string& literal)
{
    const std::unique_ptr<json_object, int (*)(json_object*)> value(json_tokener_parse(literal.c_str()),
                                                                    json_object_put);
    return {json_object_get_string(value.get()), static_cast<size_t>(json_object_get_string_len(value.get()))};
}

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

uint32_t u32At(const Bytes& bytes, size_t at)
{
    uint32_t value = 0;
    for (size_t i = at; i < at + 4; ++i)
        value = value << 8 | bytes.at(i);
    return value;
}

Bytes text(std::string_view value)
{
    return Bytes(value.begin(), value.end()) + Bytes{0};
}

Bytes attr(uint8_t id, const Bytes& payload)
{
    Bytes bytes = u32(uint32_t{id} << 24 | static_cast<uint32_t>(4 + payload.size())) + payload;
    bytes.resize((bytes.size() + 3) & ~size_t{3});
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

Bytes eventCall(uint16_t seq, std::string_view event, const Bytes& fields)
{
    return call(seq, 1, "send", stringField("id", event) + tableField("data", fields));
}

Bytes statusMessage(uint16_t seq, uint32_t peer, uint32_t status)
{
    return message(STATUS, seq, peer, attr(A_STATUS, u32(status)));
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

Peer::Peer(int fd) : fd_(fd)
{
    const timeval longest{std::chrono::seconds(DEADLINE).count(), 0};
    for (const int which : {SO_RCVTIMEO, SO_SNDTIMEO})
        setsockopt(fd_, SOL_SOCKET, which, &longest, sizeof longest);
}

Peer::Peer(const std::string& path) : Peer(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    const sockaddr_un address = addressOf(path);
    EXPECT_EQ(connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0) << strerror(errno);
}

Peer::~Peer()
{
    if (fd_ >= 0)
        close(fd_);
}

Peer::Peer(Peer&& other) noexcept : fd_(std::exchange(other.fd_, -1))
{
}

Peer& Peer::operator=(Peer&& other) noexcept
{
    std::swap(fd_, other.fd_);
    return *this;
}

void Peer::send(const Bytes& bytes) const
{
    for (size_t sent = 0; sent < bytes.size();) {
        const ssize_t count = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        ASSERT_GT(count, 0) << strerror(errno);
        sent += static_cast<size_t>(count);
    }
}

Bytes Peer::receive() const
{
    Bytes message(HEADER + 4);
    size_t got = 0;
    while (got < message.size()) {
        const ssize_t count = recv(fd_, message.data() + got, message.size() - got, 0);
        EXPECT_TRUE(count >= 0 || errno == ECONNRESET) << "no message: " << strerror(errno);
        if (count <= 0)
            return {};
        got += static_cast<size_t>(count);
        if (got == HEADER + 4)
            message.resize(HEADER + (u32At(message, HEADER) & 0xffffff));
    }
    return message;
}

bool Peer::hasInput(std::chrono::milliseconds wait) const
{
    pollfd entry{.fd = fd_, .events = POLLIN, .revents = 0};
    return poll(&entry, 1, static_cast<int>(wait.count())) > 0;
}

sockaddr_un addressOf(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}
