#include "server.h"

#include <cerrno>
#include <csignal>
#include <cstring>

#include <array>

#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

// In the place of a client's id, which is never that small.
constexpr uint64_t LISTENER_TAG = 1;
constexpr uint64_t SIGNAL_TAG = 2;

constexpr auto ACCEPT_PAUSE = 200ms;
constexpr int ACCEPTS_A_TURN = 64;
constexpr mode_t SOCKET_UMASK = 0111; // mode 0666: who may use the bus is not decided here

void closeIfOpen(int fd)
{
    if (fd >= 0)
        close(fd);
}

// The socket's address; false when the path is too long for one.
bool toAddress(const std::string& path, sockaddr_un& address)
{
    address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

} // namespace

Server::~Server()
{
    // The path may be another daemon's by now.
    struct stat there {};
    if (socketInode_ != 0 && stat(path_.c_str(), &there) == 0 && there.st_dev == socketDevice_ &&
        there.st_ino == socketInode_)
        unlink(path_.c_str());
    closeIfOpen(listenFd_);
    closeIfOpen(signalFd_);
    closeIfOpen(epollFd_);
}

bool Server::open()
{
    epollFd_ = epoll_create1(EPOLL_CLOEXEC);
    return epollFd_ >= 0 && watchSignals();
}

bool Server::listenAt(const std::string& path)
{
    path_ = path;
    sockaddr_un address;
    if (!toAddress(path, address))
        return false;
    unlink(path.c_str());
    listenFd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listenFd_ < 0)
        return false;
    const mode_t before = umask(SOCKET_UMASK);
    const int bound = bind(listenFd_, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    umask(before);
    struct stat there {};
    if (bound != 0 || stat(path.c_str(), &there) != 0)
        return false;
    socketDevice_ = there.st_dev;
    socketInode_ = there.st_ino;
    return listen(listenFd_, SOMAXCONN) == 0 && watch(listenFd_, LISTENER_TAG, EPOLLIN, EPOLL_CTL_ADD);
}

bool Server::watch(int fd, uint64_t tag, uint32_t events, int operation)
{
    epoll_event event{.events = events, .data = {.u64 = tag}};
    return epoll_ctl(epollFd_, operation, fd, &event) == 0;
}

bool Server::watchSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM}) {
        struct sigaction present {};
        sigaction(number, nullptr, &present);
        if (present.sa_handler != SIG_IGN)
            sigaddset(&signals, number);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGHUP, SIG_IGN); // asks for access rights to be read again, and there are none
    signalFd_ = signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
    return signalFd_ >= 0 && watch(signalFd_, SIGNAL_TAG, EPOLLIN, EPOLL_CTL_ADD);
}

bool Server::run()
{
    std::array<epoll_event, 64> events;
    while (!stopping_) {
        const int count = epoll_wait(epollFd_, events.data(), static_cast<int>(events.size()), waitingTime());
        if (count < 0 && errno != EINTR)
            return false;
        if (acceptPaused_ && Clock::now() >= acceptAgainAt_)
            resumeAccepting();
        for (int i = 0; i < count; ++i) {
            const uint64_t tag = events[static_cast<size_t>(i)].data.u64;
            if (tag == SIGNAL_TAG)
                stopping_ = true;
            else if (tag == LISTENER_TAG)
                acceptClients();
            else if (Client* client = bus_.find(static_cast<uint32_t>(tag)))
                serve(*client, events[static_cast<size_t>(i)].events);
        }
    }
    return true;
}

// Without a free descriptor the waiting connections would wake the loop for ever: they are left alone until somebody
// disconnects, or for a while, since descriptors can become free outside this process, too.
void Server::acceptClients()
{
    for (int i = 0; i < ACCEPTS_A_TURN; ++i) {
        const int fd = accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd >= 0)
            bus_.connect(fd, epollFd_);
        else if (errno == EAGAIN)
            return;
        else if (errno != EINTR && errno != ECONNABORTED)
            return pauseAccepting();
    }
}

void Server::pauseAccepting()
{
    if (watch(listenFd_, LISTENER_TAG, 0, EPOLL_CTL_MOD)) {
        acceptPaused_ = true;
        acceptAgainAt_ = Clock::now() + ACCEPT_PAUSE;
    }
}

void Server::resumeAccepting()
{
    if (watch(listenFd_, LISTENER_TAG, EPOLLIN, EPOLL_CTL_MOD))
        acceptPaused_ = false;
}

// Milliseconds for epoll_wait, rounded up so that a short rest is not spent spinning.
int Server::waitingTime() const
{
    if (!acceptPaused_)
        return -1;
    const auto rest = std::chrono::ceil<std::chrono::milliseconds>(acceptAgainAt_ - Clock::now());
    return static_cast<int>(std::max(rest, 0ms).count());
}

void Server::serve(Client& client, uint32_t events)
{
    if (events & (EPOLLHUP | EPOLLERR))
        client.mute();
    client.flush();
    bool good = bus_.work(client);
    if (good && client.wantsInput() && (events & (EPOLLIN | EPOLLHUP | EPOLLERR))) {
        client.receive();
        good = bus_.work(client);
    }
    if (good && !client.finished()) {
        client.watch();
        return;
    }
    bus_.disconnect(client);
    if (acceptPaused_)
        resumeAccepting();
}
