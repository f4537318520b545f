#include "ubox.h"
#include "uloop_parts.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>

#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

bool uloop_handle_sigchld = true;

namespace {

// Stays open once it is: another thread or a signal handler may be about to write to it at any time.
std::atomic<int> wakeupFd{-1};
std::atomic<int> endingSignal{0};
std::atomic<bool> childEnded{false};

struct HandledSignal {
    int number;
    void (*handler)(int);
    bool installed;
    struct sigaction before;
};

void onEndSignal(int number)
{
    int saved = errno;
    endingSignal.store(number);
    uloop_end();
    errno = saved;
}

void onChildSignal(int)
{
    int saved = errno;
    childEnded.store(true);
    wakeupSend();
    errno = saved;
}

// Used under the lock of uloop_init.
std::array handledSignals{
    HandledSignal{SIGINT, onEndSignal, false, {}},
    HandledSignal{SIGTERM, onEndSignal, false, {}},
    HandledSignal{SIGCHLD, onChildSignal, false, {}},
};

bool hasDefault(int number, struct sigaction& current)
{
    return sigaction(number, nullptr, &current) == 0 && !(current.sa_flags & SA_SIGINFO) &&
           current.sa_handler == SIG_DFL;
}

} // namespace

int wakeupOpen()
{
    if (wakeupFd.load() < 0)
        wakeupFd.store(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    return wakeupFd.load();
}

void wakeupClear()
{
    uint64_t count = 0;
    if (read(wakeupFd.load(), &count, sizeof(count)) < 0)
        return; // it was not set
}

void wakeupSend()
{
    const uint64_t one = 1;

    int fd = wakeupFd.load();
    [[maybe_unused]] ssize_t written = fd >= 0 ? write(fd, &one, sizeof(one)) : 0; // when full, the loop wakes anyway
}

void signalsInstall()
{
    struct sigaction current {};
    for (HandledSignal& signal : handledSignals) {
        if (signal.number == SIGCHLD && !uloop_handle_sigchld)
            continue;
        if (!hasDefault(signal.number, signal.before))
            continue;
        struct sigaction ours {};
        ours.sa_handler = signal.handler;
        signal.installed = sigaction(signal.number, &ours, nullptr) == 0;
    }
    if (hasDefault(SIGPIPE, current)) {
        current.sa_handler = SIG_IGN;
        sigaction(SIGPIPE, &current, nullptr);
    }
}

void signalsRestore()
{
    for (HandledSignal& signal : handledSignals) {
        if (signal.installed)
            sigaction(signal.number, &signal.before, nullptr);
        signal.installed = false;
    }
}

void signalsReap()
{
    if (!childEnded.exchange(false))
        return;
    for (;;) {
        pid_t child = waitpid(-1, nullptr, WNOHANG);
        if (child == 0 || (child < 0 && errno != EINTR))
            return;
    }
}

int signalsEnding()
{
    return endingSignal.load();
}

void signalsForget()
{
    endingSignal.store(0);
}
