// The program must neither lose a number to the journal's descriptor nor ever get the lab's text into a file of its
// own. So the descriptor has a number that programs hardly come to, and calls that could close it or put something else
// in its place keep off while a line is written, or go around it. What gets past them (a call straight to the kernel)
// is found before the next line.

#include "journal_descriptor.h"

#include "context.h"
#include "lab/journal.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

// Not every C library declares these, but a program calls them where they are.
extern "C" {
int close_range(unsigned first, unsigned last, int flags) C_NOEXCEPT;
void closefrom(int first) C_NOEXCEPT;
}

namespace {

/// Beyond what a program uses, and within what the kernel's second smallest table of descriptors holds.
constexpr int LOWEST = 200;

// Changed with LabState::lock held. A child of fork inherits both together with the descriptor.
constinit std::atomic<int> gJournal{-1};
constinit struct {
    dev_t device;
    ino_t inode;
} gFile{};

bool isJournal(const struct stat& info)
{
    return info.st_dev == gFile.device && info.st_ino == gFile.inode;
}

int openAnew()
{
    const int first = openJournal(labFolder());
    if (first < 0)
        return -1;
    struct stat info {};
    const int moved = fcntl(first, F_DUPFD_CLOEXEC, LOWEST);
    if (moved >= 0)
        NEXT(close)(first);
    const int journal = moved >= 0 ? moved : first; // where so few descriptors are allowed
    if (fstat(journal, &info) == 0)
        gFile = {info.st_dev, info.st_ino};
    return journal;
}

} // namespace

int journalDescriptor()
{
    struct stat info {};
    const int journal = gJournal.load(std::memory_order_relaxed);
    const bool ours = journal >= 0 && fstat(journal, &info) == 0 && isJournal(info);
    if (ours && info.st_nlink > 0)
        return journal;
    if (ours)
        NEXT(close)(journal); // of a file that was deleted
    const int anew = openAnew();
    gJournal.store(anew);
    return anew;
}

#pragma GCC visibility push(default)
extern "C" {

/// The program has not opened the journal, so for it there is nothing to close.
int close(int fd)
{
    if (fd < 0 || fd != gJournal.load(std::memory_order_relaxed))
        return NEXT(close)(fd);
    errno = EBADF;
    return -1;
}

// Whoever wants the very number gets it; the next line finds another. All numbers wait, because a journal that is just
// being opened has a number that nobody knows yet.
#define DUPLICATE_CALL(name, parameters, arguments)                                                                    \
    int name parameters C_NOEXCEPT                                                                                     \
    {                                                                                                                  \
        LabState* state = labState();                                                                                  \
        if (!state)                                                                                                    \
            return NEXT(name) arguments;                                                                               \
        const LabLock hold(*state);                                                                                    \
        return NEXT(name) arguments;                                                                                   \
    }
DUPLICATE_CALL(dup2, (int from, int to), (from, to))
DUPLICATE_CALL(dup3, (int from, int to, int flags), (from, to, flags))

int close_range(unsigned first, unsigned last, int flags) C_NOEXCEPT
{
    LabState* state = labState();
    if (!state)
        return NEXT(close_range)(first, last, flags);
    const LabLock hold(*state);
    const int journal = gJournal.load();
    const auto gap = static_cast<unsigned>(journal);
    if (journal < 0 || gap < first || gap > last)
        return NEXT(close_range)(first, last, flags);
    if (gap > first && NEXT(close_range)(first, gap - 1, flags) != 0)
        return -1;
    return gap == last ? 0 : NEXT(close_range)(gap + 1, last, flags);
}

void closefrom(int first) C_NOEXCEPT
{
    LabState* state = labState();
    if (!state)
        return NEXT(closefrom)(first);
    const LabLock hold(*state);
    const int journal = gJournal.load();
    for (int fd = first < 0 ? 0 : first; fd < journal; ++fd)
        NEXT(close)(fd);
    NEXT(closefrom)(first <= journal ? journal + 1 : first);
}

} // extern "C"
#pragma GCC visibility pop
