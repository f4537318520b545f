#include "ubox.h"
#include "uloop_parts.h"

#include <atomic>
#include <cerrno>

#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <unistd.h>

bool uloop_cancelled;

namespace {

// Guards creation and closing; the descriptor itself is read without it.
pthread_mutex_t initLock = PTHREAD_MUTEX_INITIALIZER;
std::atomic<int> epollFd{-1};

// What the wake-up descriptor's events point to; it has no callback.
uloop_fd wakeupMark;

bool isCancelled()
{
    return __atomic_load_n(&uloop_cancelled, __ATOMIC_SEQ_CST); // a plain bool of the interface
}

int createEpoll()
{
    int created = epoll_create1(EPOLL_CLOEXEC);
    if (created < 0)
        return -1;
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = &wakeupMark;
    int wakeup = wakeupOpen();
    if (wakeup < 0 || epoll_ctl(created, EPOLL_CTL_ADD, wakeup, &event) < 0) {
        close(created);
        return -1;
    }
    return created;
}

void dispatch(uloop_fd* fd, uint32_t arrived)
{
    unsigned events = 0;

    if (arrived & (EPOLLIN | EPOLLRDHUP))
        events |= ULOOP_READ;
    if (arrived & EPOLLOUT)
        events |= ULOOP_WRITE;
    if (arrived & EPOLLRDHUP)
        fd->eof = true;
    if (arrived & (EPOLLERR | EPOLLHUP)) {
        events |= ULOOP_READ;
        fd->eof = true;
        fd->error = true;
        if (!(fd->flags & ULOOP_ERROR_CB))
            uloop_fd_delete(fd);
    }
    if (fd->cb)
        fd->cb(fd, events); // which may free the record
}

// Waits for one event and works it off. False when there is nothing to wait with.
bool runOneEvent(int waitMs)
{
    epoll_event event{};
    const int count = epoll_wait(epollFd.load(), &event, 1, waitMs);
    if (count <= 0)
        return count == 0 || errno == EINTR;
    auto* fd = static_cast<uloop_fd*>(event.data.ptr);
    if (fd == &wakeupMark)
        wakeupClear();
    else
        dispatch(fd, event.events);
    return true;
}

} // namespace

int uloop_init()
{
    pthread_mutex_lock(&initLock);
    if (epollFd.load() < 0) {
        const int created = createEpoll();
        if (created >= 0)
            signalsInstall();
        epollFd.store(created);
    }
    const bool open = epollFd.load() >= 0;
    pthread_mutex_unlock(&initLock);
    return open ? 0 : -1;
}

void uloop_done()
{
    pthread_mutex_lock(&initLock);
    const int fd = epollFd.exchange(-1);
    if (fd >= 0) {
        signalsRestore();
        close(fd);
    }
    timeoutsCancelAll();
    pthread_mutex_unlock(&initLock);
}

void uloop_wakeup_()
{
    wakeupSend();
}

int uloop_run_timeout(int ms)
{
    __atomic_store_n(&uloop_cancelled, false, __ATOMIC_SEQ_CST);
    signalsForget();
    wakeupClear(); // of what was asked before; signals since then have left their marks
    do {
        timeoutsRunDue();
        signalsReap();
        if (isCancelled() || !runOneEvent(timeoutsWait(ms)))
            break;
    } while (ms < 0 && !isCancelled());
    return signalsEnding();
}

int uloop_fd_add(uloop_fd* fd, unsigned int flags)
{
    if (!(flags & (ULOOP_READ | ULOOP_WRITE)))
        return uloop_fd_delete(fd);

    epoll_event event{};
    if (flags & ULOOP_READ)
        event.events |= EPOLLIN | EPOLLRDHUP;
    if (flags & ULOOP_WRITE)
        event.events |= EPOLLOUT;
    event.data.ptr = fd;
    if (epoll_ctl(epollFd.load(), fd->registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, fd->fd, &event) < 0)
        return -1;
    if (!fd->registered && !(flags & ULOOP_BLOCKING))
        fcntl(fd->fd, F_SETFL, fcntl(fd->fd, F_GETFL) | O_NONBLOCK);
    fd->registered = true;
    fd->flags = static_cast<uint8_t>(flags);
    fd->eof = false;
    fd->error = false;
    return 0;
}

int uloop_fd_delete(uloop_fd* fd)
{
    if (!fd->registered)
        return 0;
    fd->registered = false;
    fd->flags = 0;
    return epoll_ctl(epollFd.load(), EPOLL_CTL_DEL, fd->fd, nullptr);
}
