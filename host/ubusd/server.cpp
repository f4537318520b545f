#include "server.h"

#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int ACCEPT_PAUSE_MS = 200;
constexpr int ACCEPTS_A_TURN = 64;
constexpr mode_t SOCKET_UMASK = 0111; // mode 0666: who may use the bus is not decided here

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

Server::Server() : uloop_fd{}
{
    fd = -1;
    cb = [](uloop_fd* self, unsigned) { static_cast<Server*>(self)->acceptClients(); };
    acceptAgain_.server = this;
    acceptAgain_.cb = [](uloop_timeout* self) {
        uloop_fd_add(static_cast<decltype(acceptAgain_)*>(self)->server, ULOOP_READ);
    };
}

Server::~Server()
{
    // The path may be another daemon's by now.
    struct stat there {};
    if (socketInode_ != 0 && stat(path_.c_str(), &there) == 0 && there.st_dev == socketDevice_ &&
        there.st_ino == socketInode_)
        unlink(path_.c_str());
    if (fd >= 0)
        close(fd);
}

bool Server::listenAt(const std::string& path)
{
    path_ = path;
    sockaddr_un address;
    if (!toAddress(path, address))
        return false;
    unlink(path.c_str());
    fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return false;
    const mode_t before = umask(SOCKET_UMASK);
    const int bound = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    umask(before);
    struct stat there {};
    if (bound != 0 || stat(path.c_str(), &there) != 0)
        return false;
    socketDevice_ = there.st_dev;
    socketInode_ = there.st_ino;
    return listen(fd, SOMAXCONN) == 0 && uloop_fd_add(this, ULOOP_READ) == 0;
}

// Without a free descriptor the waiting connections would wake the loop for ever: they are left alone for a while.
void Server::acceptClients()
{
    for (int i = 0; i < ACCEPTS_A_TURN; ++i) {
        const int client = accept4(fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (client >= 0)
            bus_.connect(client);
        else if (errno == EAGAIN)
            return;
        else if (errno != EINTR && errno != ECONNABORTED)
            return pauseAccepting();
    }
}

void Server::pauseAccepting()
{
    uloop_fd_delete(this);
    uloop_timeout_set(&acceptAgain_, ACCEPT_PAUSE_MS);
}
