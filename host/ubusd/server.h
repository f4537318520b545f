#pragma once
// The listening socket and the event loop.

#include "dispatch.h"

#include <chrono>
#include <string>

class Server {
public:
    Server() = default;
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// Makes the event loop and takes SIGINT and SIGTERM over, each unless it is ignored. To be called first, so that
    /// no signal ends the process without removing the socket. False with errno set when that fails.
    [[nodiscard]] bool open();

    /// Listens at `path`, in the place of whatever lies there. False with errno set when that fails.
    [[nodiscard]] bool listenAt(const std::string& path);

    /// Serves until SIGINT or SIGTERM. False with errno set when it cannot go on.
    [[nodiscard]] bool run();

private:
    using Clock = std::chrono::steady_clock;

    bool watchSignals();
    bool watch(int fd, uint64_t tag, uint32_t events, int operation);
    void acceptClients();
    void pauseAccepting();
    void resumeAccepting();
    int waitingTime() const;
    void serve(Client& client, uint32_t events);

    Bus bus_;
    std::string path_;
    uint64_t socketDevice_ = 0;
    uint64_t socketInode_ = 0;
    int listenFd_ = -1;
    int epollFd_ = -1;
    int signalFd_ = -1;
    bool stopping_ = false;
    bool acceptPaused_ = false;
    Clock::time_point acceptAgainAt_;
};
