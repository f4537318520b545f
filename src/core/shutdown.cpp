#include "core/shutdown.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>

namespace {

constinit std::atomic<bool> requested{false};
int wakePipe[2] = {-1, -1};

void onSignal(int number)
{
    if (requested.exchange(true))
        _exit(128 + number);
    const int savedErrno = errno;
    const char byte = 0;
    // The pipe is empty before the first signal, so the write cannot fail or block.
    [[maybe_unused]] const ssize_t written = write(wakePipe[1], &byte, 1);
    errno = savedErrno;
}

void takeOver(int number)
{
    struct sigaction before {};
    if (sigaction(number, nullptr, &before) == 0 && before.sa_handler == SIG_IGN)
        return;
    struct sigaction action {};
    action.sa_handler = onSignal;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    (void)sigaction(number, &action, nullptr); // both numbers are valid
}

} // namespace

int32_t shutdownInit()
{
    if (pipe2(wakePipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return -1;
    takeOver(SIGINT);
    takeOver(SIGTERM);
    return 0;
}

bool shutdownRequested()
{
    return requested.load();
}

int shutdownDescriptor()
{
    return wakePipe[0];
}

bool shutdownSleep(int32_t ms)
{
    pollfd wake{wakePipe[0], POLLIN, 0};
    (void)poll(&wake, 1, ms);
    return shutdownRequested();
}
