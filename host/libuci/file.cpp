#include "file.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <unistd.h>

namespace ucilib {

Fd::~Fd()
{
    reset(-1);
}

void Fd::reset(int fd)
{
    if (fd_ >= 0)
        close(fd_);
    fd_ = fd;
}

namespace {

constexpr std::string_view TEMP_SUFFIX = ".uci-";
constexpr std::string_view TEMP_PATTERN = "XXXXXX"; // filled in by mkostemp

bool lockFile(int fd, int lock)
{
    while (flock(fd, lock) != 0) {
        if (errno != EINTR)
            return false;
    }
    return true;
}

bool syncDirectory(const char* dir)
{
    Fd fd(open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // Some file systems cannot sync a directory (EINVAL), and then have nothing to wait for.
    return fd.isOpen() && (fsync(fd.get()) == 0 || errno == EINVAL);
}

} // namespace

int openLocked(Fd& fd, const char* path, int flags, mode_t mode, int lock)
{
    for (;;) {
        struct stat named;
        if (stat(path, &named) == 0 && !S_ISREG(named.st_mode))
            return UCI_ERR_NOTFOUND; // and opening a pipe would block
        fd.reset(open(path, flags | O_CLOEXEC, mode));
        if (!fd.isOpen())
            return errno == ENOENT || errno == ENOTDIR ? UCI_ERR_NOTFOUND : UCI_ERR_IO;
        struct stat opened;
        if (!lockFile(fd.get(), lock) || fstat(fd.get(), &opened) != 0)
            return UCI_ERR_IO;
        if (stat(path, &named) == 0 && named.st_ino == opened.st_ino && named.st_dev == opened.st_dev)
            return UCI_OK;
    }
}

int readAll(int fd, Text& text)
{
    constexpr size_t CHUNK = 8192;
    for (;;) {
        char* to = text.room(CHUNK);
        if (!to)
            return UCI_ERR_MEM;
        const ssize_t count = read(fd, to, CHUNK);
        if (count < 0 && errno != EINTR)
            return UCI_ERR_IO;
        if (count >= 0)
            text.grow(static_cast<size_t>(count));
        if (count == 0)
            return UCI_OK;
    }
}

bool writeAll(int fd, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t count = write(fd, text.data(), text.size());
        if (count < 0 && errno != EINTR)
            return false;
        if (count > 0)
            text.remove_prefix(static_cast<size_t>(count));
    }
    return true;
}

OwnedText directoryOf(const char* path)
{
    const char* slash = strrchr(path, '/');
    if (!slash)
        return OwnedText(strdup("."));
    return OwnedText(slash == path ? strdup("/") : strndup(path, static_cast<size_t>(slash - path)));
}

Replacement::~Replacement()
{
    if (path_)
        unlink(path_.get());
}

void Replacement::removeLeftovers(const char* dir) const
{
    Text prefix;
    prefix << '.' << package_ << TEMP_SUFFIX;
    DIR* listing = opendir(dir);
    while (const dirent* entry = listing ? readdir(listing) : nullptr) {
        const std::string_view name = entry->d_name;
        if (!beginsWith(name, prefix.view()) || name.size() != prefix.view().size() + TEMP_PATTERN.size())
            continue;
        const OwnedText path = joinPath(dir, entry->d_name);
        if (!path)
            continue;
        const Fd fd(open(path.get(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
        if (fd.isOpen() && flock(fd.get(), LOCK_EX | LOCK_NB) == 0)
            unlink(path.get());
    }
    if (listing)
        closedir(listing);
}

int Replacement::prepare(std::string_view text, mode_t mode)
{
    const OwnedText dir = directoryOf(target_);
    if (!dir)
        return UCI_ERR_MEM;
    removeLeftovers(dir.get());

    Text name;
    name << '.' << package_ << TEMP_SUFFIX << TEMP_PATTERN;
    OwnedText path = name.failed() ? nullptr : joinPath(dir.get(), name.view().data());
    if (!path)
        return UCI_ERR_MEM;
    fd_.reset(mkostemp(path.get(), O_CLOEXEC)); // at once: another thread may be about to start a program
    if (!fd_.isOpen())
        return UCI_ERR_IO;
    path_ = std::move(path);

    // The lock also goes on when the file has become the target: other committers wait until we are through.
    if (!lockFile(fd_.get(), LOCK_EX) || !writeAll(fd_.get(), text))
        return UCI_ERR_IO;
    return fchmod(fd_.get(), mode) == 0 && fsync(fd_.get()) == 0 ? UCI_OK : UCI_ERR_IO;
}

int Replacement::install()
{
    const OwnedText dir = directoryOf(target_);
    if (!dir)
        return UCI_ERR_MEM;
    if (rename(path_.get(), target_) != 0)
        return UCI_ERR_IO;
    path_.reset();
    done_ = true;
    return syncDirectory(dir.get()) ? UCI_OK : UCI_ERR_IO;
}

} // namespace ucilib
