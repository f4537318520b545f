#pragma once
// The listening socket, in the process's event loop.

#include "dispatch.h"

#include <string>

class Server : uloop_fd {
public:
    /// Listens at `path`, in the place of whatever lies there. False with errno set when that fails.
    [[nodiscard]] bool listenAt(const std::string& path);

    Server();
    ~Server(); // removes the socket
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

private:
    void acceptClients();
    void pauseAccepting();

    Bus bus_;
    std::string path_;
    uint64_t socketDevice_ = 0;
    uint64_t socketInode_ = 0;
    struct : uloop_timeout {
        Server* server;
    } acceptAgain_{};
};
