/// The adapter to the file system: locked files, whole reads, and replacing a file so that a crash cannot tear it.
///
/// Calls with a path are open, stat, mkdir, mkostemp, rename, unlink, realpath and opendir, so that a preloaded library
/// can map the paths.
#pragma once

#include "internal.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace ucilib {

/// A descriptor that is closed at the end; closing also gives up its lock.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd)
    {
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd();

    [[nodiscard]] int get() const
    {
        return fd_;
    }
    [[nodiscard]] bool isOpen() const
    {
        return fd_ >= 0;
    }
    void reset(int fd);

private:
    int fd_ = -1;
};

/// Opens a regular file and locks it, waiting as long as it takes; what is locked then is the file that the path names,
/// also when it was replaced during the wait.
/// @param flags  for open(2); with O_CREAT a file that is made gets exactly `mode`
/// @param lock   LOCK_SH or LOCK_EX
/// @return UCI_OK; UCI_ERR_NOTFOUND when it is missing or no regular file; UCI_ERR_IO
[[nodiscard]] int openLocked(Fd& fd, const char* path, int flags, mode_t mode, int lock);

/// Appends all that a file holds from its beginning. UCI_ERR_IO, UCI_ERR_MEM.
[[nodiscard]] int readAll(int fd, Text& text);

/// Writes at the descriptor's position; false when not all of it could be written.
[[nodiscard]] bool writeAll(int fd, std::string_view text);

/// A new file beside another one, meant to take its place.
///
/// A file left behind by a process that died is recognised by its lock: each is locked as long as its maker
/// lives.
class Replacement {
public:
    /// @param target   the file to be replaced, no symbolic link
    /// @param package  goes into the new file's name, .PACKAGE.uci-XXXXXX
    Replacement(const char* target, const char* package) : target_(target), package_(package)
    {
    }
    Replacement(const Replacement&) = delete;
    Replacement& operator=(const Replacement&) = delete;
    ~Replacement();

    /// Removes what dead processes left, makes the new file with this mode, the writer its owner, and writes it to the
    /// disk. UCI_ERR_IO when it cannot be.
    [[nodiscard]] int prepare(std::string_view text, mode_t mode);

    /// Puts it in the target's place, and waits until the directory is on the disk too. UCI_ERR_IO; then `done` says
    /// whether the target was replaced.
    [[nodiscard]] int install();

    [[nodiscard]] bool done() const
    {
        return done_;
    }

private:
    const char* target_;
    const char* package_;
    OwnedText path_; // null unless the new file is there under its own name
    Fd fd_;
    bool done_ = false;

    void removeLeftovers(const char* dir) const;
};

/// The directory of a path, "." for a bare name; null when memory is short.
[[nodiscard]] OwnedText directoryOf(const char* path);

} // namespace ucilib
