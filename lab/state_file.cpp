#include "lab/state_file.h"

#include "lab/clock.h"

#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

LabState* mapLabState(const char* folder)
{
    char path[PATH_MAX];
    const int length = snprintf(path, sizeof(path), "%s/state", folder);
    if (length < 0 || length >= PATH_MAX) {
        errno = ENAMETOOLONG;
        return nullptr;
    }
    const int fd = open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    struct stat info {};
    const bool complete = fstat(fd, &info) == 0 && info.st_size == sizeof(LabState);
    void* memory = complete ? mmap(nullptr, sizeof(LabState), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) : MAP_FAILED;
    const int problem = complete ? errno : EPROTO;
    close(fd);
    if (memory == MAP_FAILED) {
        errno = problem;
        return nullptr;
    }
    auto* state = static_cast<LabState*>(memory);
    if (state->magic == LAB_STATE_MAGIC && state->version == LAB_STATE_VERSION)
        return state;
    munmap(memory, sizeof(LabState));
    errno = EPROTO;
    return nullptr;
}

int initLabState(LabState& state)
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    const int result = pthread_mutex_init(&state.lock, &attributes);
    pthread_mutexattr_destroy(&attributes);
    state.magic = LAB_STATE_MAGIC;
    state.version = LAB_STATE_VERSION;
    state.startNs = monotonicNs();
    LabClockSlot& clock = state.clock[state.clockChanges.load() & 1];
    clock.realNs.store(state.startNs);
    clock.labNs.store(0);
    clock.speedMilli.store(CLOCK_SPEED_ONE);
    clock.wallIsReal.store(1);
    return result;
}

LabLock::LabLock(LabState& state) : state_(state)
{
    if (pthread_mutex_lock(&state_.lock) == EOWNERDEAD)
        pthread_mutex_consistent(&state_.lock);
}

LabLock::~LabLock()
{
    pthread_mutex_unlock(&state_.lock);
}

LabAxisEdit::LabAxisEdit(LabState& state, LabAxisId id)
    : record_(state.axes[id]), realNs_(monotonicNs()), labNs_(labTimeAt(readClock(state), realNs_)),
      axis_(record_.slots[record_.current.load() & 1])
{
    settleAxis(axis_, labNs_);
}

void LabAxisEdit::commit()
{
    const uint32_t next = record_.current.load() + 1;
    record_.slots[next & 1] = axis_;
    record_.current.store(next);
    bumpAndWake(record_.wake);
}
