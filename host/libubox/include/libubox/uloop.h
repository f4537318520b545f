/* The event loop: one a process. Every call but uloop_init and uloop_end belongs to the thread that runs the loop. */
#ifndef LIBUBOX_ULOOP_H
#define LIBUBOX_ULOOP_H

#include <stdbool.h>
#include <stdint.h>
#include <sys/time.h>

#include <libubox/list.h>

struct uloop_fd;
struct uloop_timeout;

typedef void (*uloop_fd_handler)(struct uloop_fd* fd, unsigned int events);
typedef void (*uloop_timeout_handler)(struct uloop_timeout* timeout);

#define ULOOP_READ (1 << 0)
#define ULOOP_WRITE (1 << 1)
#define ULOOP_BLOCKING (1 << 3) /* leave the descriptor's blocking mode alone */
#define ULOOP_ERROR_CB (1 << 6) /* stay registered on an error or hang-up */

/* Zero it before first use. */
struct uloop_fd {
    uloop_fd_handler cb;
    int fd;
    bool eof;
    bool error;
    bool registered;
    uint8_t flags;
};

/* Zero it before first use. `time` is of the monotonic clock. */
struct uloop_timeout {
    struct list_head list;
    bool pending;
    uloop_timeout_handler cb;
    struct timeval time;
};

/* Set by uloop_end and by SIGINT and SIGTERM; cleared when the loop starts. */
extern bool uloop_cancelled;

/* Set it to false before uloop_init to keep the loop from reaping the process's children. */
extern bool uloop_handle_sigchld;

/* Creates what the loop needs and handles SIGINT, SIGTERM, SIGCHLD and SIGPIPE where their disposition is the default.
 * 0 or -1. A further call does no harm. Any thread. */
int uloop_init(void);

/* Gives SIGINT, SIGTERM and SIGCHLD back their earlier disposition, takes all descriptors out of the loop, cancels all
 * timeouts. May be called twice. */
void uloop_done(void);

/* Below 0: runs until the loop is cancelled. Else one pass: due timeouts, then at most `ms` milliseconds of waiting
 * for, and handling of, one descriptor. 0, or the number of the signal that ended it. */
int uloop_run_timeout(int ms);

static inline int uloop_run(void)
{
    return uloop_run_timeout(-1);
}

/* Private to uloop_end. */
void uloop_wakeup_(void);

/* Ends the loop after the callback that it is in, and wakes it when it sleeps. Any thread, and signal handlers. */
static inline void uloop_end(void)
{
    __atomic_store_n(&uloop_cancelled, true, __ATOMIC_SEQ_CST);
    uloop_wakeup_();
}

/* Registers the descriptor, or changes the flags of a registered one; clears `eof` and `error`. Without ULOOP_READ and
 * ULOOP_WRITE it means delete. 0, or -1 for a descriptor that cannot be waited for. */
int uloop_fd_add(struct uloop_fd* fd, unsigned int flags);

/* Takes the descriptor out of the loop. 0 also when it is not registered; -1 when it was closed before. */
int uloop_fd_delete(struct uloop_fd* fd);

/* Arms for `time`; -1 when pending. */
int uloop_timeout_add(struct uloop_timeout* timeout);

/* Arms, or arms anew, for `ms` milliseconds from now; 0 or less is due in the next pass. May fire up to 1 ms early. 0.
 */
int uloop_timeout_set(struct uloop_timeout* timeout, int ms);

/* Disarms; -1 when not pending. */
int uloop_timeout_cancel(struct uloop_timeout* timeout);

#endif
