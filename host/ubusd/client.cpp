#include "client.h"

#include <cerrno>

#include <array>

#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr size_t READ_SIZE = 32768;
constexpr uint32_t ROOT_LENGTH_MASK = 0x00ffffff;

} // namespace

void InputBuffer::append(Bytes bytes)
{
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
}

InputBuffer::Next InputBuffer::next(Bytes& message)
{
    const Bytes rest = Bytes(bytes_).subspan(taken_);
    if (rest.size() < FRAME_SIZE)
        return Next::Incomplete;
    const size_t root = readU32(&rest[HEADER_SIZE]) & ROOT_LENGTH_MASK;
    if (root < ATTR_SIZE || padded(root) > MAX_ROOT)
        return Next::Broken;
    if (rest.size() < HEADER_SIZE + root)
        return Next::Incomplete;
    message = rest.first(HEADER_SIZE + root);
    taken_ += message.size();
    return Next::Message;
}

void InputBuffer::release()
{
    if (taken_ == 0)
        return;
    // Into memory of the right size, so that one long message does not cost its length for ever.
    bytes_ = std::vector<uint8_t>(bytes_.begin() + static_cast<ptrdiff_t>(taken_), bytes_.end());
    taken_ = 0;
}

void OutputQueue::append(Bytes bytes)
{
    if (sent_ > 0 && sent_ >= bytes_.size() / 2) {
        bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<ptrdiff_t>(sent_));
        sent_ = 0;
    }
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
}

void OutputQueue::clear()
{
    bytes_ = {};
    sent_ = 0;
}

bool OutputQueue::flush(int fd)
{
    while (size() > 0) {
        const ssize_t count = send(fd, bytes_.data() + sent_, size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return errno == EAGAIN;
        sent_ += static_cast<size_t>(count);
    }
    clear();
    return true;
}

Client::Client(Bus& itsBus, int itsFd, uint32_t id, uloop_fd_handler serve) : uloop_fd{}, bus(itsBus), id_(id)
{
    fd = itsFd;
    cb = serve;
    ucred peer{};
    socklen_t length = sizeof peer;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0)
        return;
    const passwd* userEntry = getpwuid(peer.uid);
    user = userEntry ? userEntry->pw_name : std::to_string(peer.uid);
    const struct group* groupEntry = getgrgid(peer.gid);
    group = groupEntry ? groupEntry->gr_name : std::to_string(peer.gid);
}

Client::~Client()
{
    uloop_fd_delete(this);
    close(fd);
}

void Client::send(Bytes message)
{
    if (queue_.size() == 0 || queue_.size() + message.size() <= MAX_QUEUE)
        sendInAnyCase(message);
}

void Client::sendInAnyCase(Bytes message)
{
    if (muted_ || message.empty())
        return;
    const bool wasEmpty = queue_.size() == 0;
    queue_.append(message);
    if (!wasEmpty)
        return;
    flush();
    watch();
}

void Client::flush()
{
    if (queue_.flush(fd))
        return;
    // Mostly the peer is gone or has ended its reading side. Should the kernel be out of memory, the peer's stream
    // has a gap now: ended both ways it notices. What it sent before can still be read.
    if (errno != EPIPE)
        shutdown(fd, SHUT_RDWR);
    mute();
}

void Client::mute()
{
    muted_ = true;
    queue_.clear();
}

void Client::receive()
{
    std::array<uint8_t, READ_SIZE> bytes;
    const ssize_t count = recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (count > 0)
        input.append(Bytes(bytes).first(static_cast<size_t>(count)));
    else if (count == 0 || (errno != EAGAIN && errno != EINTR))
        ended_ = true;
}

bool Client::watch()
{
    constexpr unsigned ALWAYS = ULOOP_BLOCKING | ULOOP_ERROR_CB;
    const unsigned wanted = ALWAYS | (wantsInput() ? ULOOP_READ : 0) | (queue_.size() > 0 ? ULOOP_WRITE : 0);
    return wanted == flags || uloop_fd_add(this, wanted) == 0;
}
