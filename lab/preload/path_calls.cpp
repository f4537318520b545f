// File calls by path, each with the path's place in the lab. Outside a lab they are the C library's own.

#include "context.h"
#include "paths.h"

#include <dirent.h>
#include <fcntl.h>
#include <glob.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#pragma GCC visibility push(default)

// Not every C library declares these, but a program calls them where they are.
extern "C" {
struct statx;
int statx(int at, const char* path, int flags, unsigned mask, struct statx* info) C_NOEXCEPT;
int renameat2(int fromAt, const char* from, int toAt, const char* to, unsigned flags) C_NOEXCEPT;
}

#ifdef __GLIBC__
// What glibc's headers turn open, realpath and readlink into when a program asks for checked calls.
extern "C" {
int __open_2(const char* path, int flags);
int __open64_2(const char* path, int flags);
int __openat_2(int folder, const char* path, int flags);
int __openat64_2(int folder, const char* path, int flags);
char* __realpath_chk(const char* path, char* resolved, size_t size);
ssize_t __readlink_chk(const char* path, char* text, size_t length, size_t size);
}
#endif

namespace {

bool takesMode(int flags)
{
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

/// A device is neither created nor emptied by opening it, and a console only ever goes on.
int flagsFor(const LabPath& path, int flags)
{
    return path.isDevice() ? (flags & ~(O_CREAT | O_EXCL | O_TRUNC)) | O_APPEND : flags;
}

/// The same for a stream: "w" becomes "a" for a device.
struct StreamMode {
    StreamMode(const LabPath& path, const char* mode)
    {
        snprintf(text, sizeof(text), "%s", mode);
        if (path.isDevice() && text[0] == 'w')
            text[0] = 'a';
    }
    char text[32];
};

mode_t modeArgument(int flags, va_list arguments)
{
    return takesMode(flags) ? static_cast<mode_t>(va_arg(arguments, unsigned)) : 0;
}

/// mkstemp and its kin write the name that they found into the template, which must stay as long as it was.
class Template {
public:
    Template(char* text, int suffixLength) : text_(text), suffix_(suffixLength), path_(text)
    {
    }
    char* get()
    {
        return const_cast<char*>(path_.get());
    }
    int finish(int fd)
    {
        const size_t tail = 6 + static_cast<size_t>(suffix_ > 0 ? suffix_ : 0);
        if (fd >= 0 && path_.moved())
            memcpy(text_ + strlen(text_) - tail, path_.get() + strlen(path_.get()) - tail, tail);
        return fd;
    }

private:
    char* text_;
    int suffix_;
    LabPath path_;
};

template <typename Call, typename Result>
int globInLab(Call next, const char* pattern, int flags, int (*onError)(const char*, int), Result* found)
{
    const LabPath path(pattern);
    if (!path.moved())
        return next(pattern, flags, onError, found);
    char whole[2 * PATH_MAX];
    const char* rest = path.get() + strlen(labFolder());
    if ((flags & GLOB_NOESCAPE) != 0)
        snprintf(whole, sizeof(whole), "%s", labFolder());
    else if (!escapeForGlob(labFolder(), whole, sizeof(whole)))
        return GLOB_NOSPACE;
    const size_t used = strlen(whole);
    if (snprintf(whole + used, sizeof(whole) - used, "%s", rest) >= static_cast<int>(sizeof(whole) - used))
        return GLOB_NOSPACE;
    const int result = next(whole, flags, onError, found);
    for (size_t i = 0; result == 0 && i < found->gl_pathc; ++i)
        restorePath(found->gl_pathv[found->gl_offs * ((flags & GLOB_DOOFFS) != 0) + i]);
    return result;
}

} // namespace

extern "C" {

#define OPEN_CALL(name)                                                                                                \
    int name(const char* file, int flags, ...)                                                                         \
    {                                                                                                                  \
        va_list arguments;                                                                                             \
        va_start(arguments, flags);                                                                                    \
        const mode_t mode = modeArgument(flags, arguments);                                                            \
        va_end(arguments);                                                                                             \
        const LabPath path(file);                                                                                      \
        return NEXT(name)(path.get(), flagsFor(path, flags), mode);                                                    \
    }
OPEN_CALL(open)

#define OPENAT_CALL(name)                                                                                              \
    int name(int folder, const char* file, int flags, ...)                                                             \
    {                                                                                                                  \
        va_list arguments;                                                                                             \
        va_start(arguments, flags);                                                                                    \
        const mode_t mode = modeArgument(flags, arguments);                                                            \
        va_end(arguments);                                                                                             \
        const LabPath path(file);                                                                                      \
        return NEXT(name)(folder, path.get(), flagsFor(path, flags), mode);                                            \
    }
OPENAT_CALL(openat)

// A call that hands one path on: its parameters, and its arguments with the path as `path`.
#define PATH_CALL(result, name, parameters, arguments, ...)                                                            \
    result name parameters __VA_ARGS__                                                                                 \
    {                                                                                                                  \
        const LabPath mapped(file);                                                                                    \
        const char* path = mapped.get();                                                                               \
        return NEXT(name) arguments;                                                                                   \
    }

PATH_CALL(int, creat, (const char* file, mode_t mode), (path, mode))
PATH_CALL(int, access, (const char* file, int type), (path, type), C_NOEXCEPT)
PATH_CALL(int, faccessat, (int at, const char* file, int type, int flags), (at, path, type, flags), C_NOEXCEPT)
PATH_CALL(int, mkdir, (const char* file, mode_t mode), (path, mode), C_NOEXCEPT)
PATH_CALL(int, mkdirat, (int at, const char* file, mode_t mode), (at, path, mode), C_NOEXCEPT)
PATH_CALL(int, chmod, (const char* file, mode_t mode), (path, mode), C_NOEXCEPT)
PATH_CALL(int, fchmodat, (int at, const char* file, mode_t mode, int flags), (at, path, mode, flags), C_NOEXCEPT)
PATH_CALL(int, chown, (const char* file, uid_t user, gid_t group), (path, user, group), C_NOEXCEPT)
PATH_CALL(int, lchown, (const char* file, uid_t user, gid_t group), (path, user, group), C_NOEXCEPT)
PATH_CALL(int, fchownat, (int at, const char* file, uid_t user, gid_t group, int flags), (at, path, user, group, flags),
          C_NOEXCEPT)
PATH_CALL(int, utimensat, (int at, const char* file, const timespec times[2], int flags), (at, path, times, flags),
          C_NOEXCEPT)
PATH_CALL(int, chdir, (const char* file), (path), C_NOEXCEPT)
PATH_CALL(int, unlink, (const char* file), (path), C_NOEXCEPT)
PATH_CALL(int, unlinkat, (int at, const char* file, int flags), (at, path, flags), C_NOEXCEPT)
PATH_CALL(int, remove, (const char* file), (path), C_NOEXCEPT)
PATH_CALL(int, rmdir, (const char* file), (path), C_NOEXCEPT)
PATH_CALL(int, truncate, (const char* file, off_t size), (path, size), C_NOEXCEPT)
PATH_CALL(ssize_t, readlink, (const char* file, char* text, size_t size), (path, text, size), C_NOEXCEPT)
PATH_CALL(ssize_t, readlinkat, (int at, const char* file, char* text, size_t size), (at, path, text, size), C_NOEXCEPT)
PATH_CALL(char*, realpath, (const char* file, char* resolved), (path, resolved), C_NOEXCEPT)

PATH_CALL(int, stat, (const char* file, struct stat* info), (path, info), C_NOEXCEPT)
PATH_CALL(int, lstat, (const char* file, struct stat* info), (path, info), C_NOEXCEPT)
PATH_CALL(int, fstatat, (int at, const char* file, struct stat* info, int flags), (at, path, info, flags), C_NOEXCEPT)
PATH_CALL(int, statx, (int at, const char* file, int flags, unsigned mask, struct statx* info),
          (at, path, flags, mask, info), C_NOEXCEPT)

PATH_CALL(DIR*, opendir, (const char* file), (path))
PATH_CALL(int, scandir,
          (const char* file, dirent*** list, int (*filter)(const dirent*),
           int (*compare)(const dirent**, const dirent**)),
          (path, list, filter, compare))

FILE* fopen(const char* file, const char* mode)
{
    const LabPath path(file);
    return NEXT(fopen)(path.get(), StreamMode(path, mode).text);
}

int rename(const char* from, const char* to) C_NOEXCEPT
{
    return NEXT(rename)(LabPath(from).get(), LabPath(to).get());
}

int renameat(int fromAt, const char* from, int toAt, const char* to) C_NOEXCEPT
{
    return NEXT(renameat)(fromAt, LabPath(from).get(), toAt, LabPath(to).get());
}

int renameat2(int fromAt, const char* from, int toAt, const char* to, unsigned flags) C_NOEXCEPT
{
    return NEXT(renameat2)(fromAt, LabPath(from).get(), toAt, LabPath(to).get(), flags);
}

int link(const char* from, const char* to) C_NOEXCEPT
{
    return NEXT(link)(LabPath(from).get(), LabPath(to).get());
}

// The link's text is mapped too, since the kernel, not we, will follow it.
int symlink(const char* text, const char* file) C_NOEXCEPT
{
    return NEXT(symlink)(LabPath(text).get(), LabPath(file).get());
}

int mkstemp(char* text)
{
    Template name(text, 0);
    return name.finish(NEXT(mkstemp)(name.get()));
}

int mkostemp(char* text, int flags)
{
    Template name(text, 0);
    return name.finish(NEXT(mkostemp)(name.get(), flags));
}

int mkstemps(char* text, int suffixLength)
{
    Template name(text, suffixLength);
    return name.finish(NEXT(mkstemps)(name.get(), suffixLength));
}

int glob(const char* pattern, int flags, int (*onError)(const char*, int), glob_t* found) C_NOEXCEPT
{
    return globInLab(NEXT(glob), pattern, flags, onError, found);
}

#ifdef __GLIBC__ // its further names: for large files, and for calls with checks

OPEN_CALL(open64)
OPENAT_CALL(openat64)

#define CHECKED_OPEN_CALL(name)                                                                                        \
    int name(const char* file, int flags)                                                                              \
    {                                                                                                                  \
        const LabPath path(file);                                                                                      \
        return NEXT(name)(path.get(), flagsFor(path, flags));                                                          \
    }
CHECKED_OPEN_CALL(__open_2)
CHECKED_OPEN_CALL(__open64_2)

#define CHECKED_OPENAT_CALL(name)                                                                                      \
    int name(int folder, const char* file, int flags)                                                                  \
    {                                                                                                                  \
        const LabPath path(file);                                                                                      \
        return NEXT(name)(folder, path.get(), flagsFor(path, flags));                                                  \
    }
CHECKED_OPENAT_CALL(__openat_2)
CHECKED_OPENAT_CALL(__openat64_2)

PATH_CALL(int, creat64, (const char* file, mode_t mode), (path, mode))
PATH_CALL(int, truncate64, (const char* file, off64_t size), (path, size), C_NOEXCEPT)
PATH_CALL(ssize_t, __readlink_chk, (const char* file, char* text, size_t length, size_t size),
          (path, text, length, size))
PATH_CALL(char*, __realpath_chk, (const char* file, char* resolved, size_t size), (path, resolved, size))
PATH_CALL(int, stat64, (const char* file, struct stat64* info), (path, info), C_NOEXCEPT)
PATH_CALL(int, lstat64, (const char* file, struct stat64* info), (path, info), C_NOEXCEPT)
PATH_CALL(int, fstatat64, (int at, const char* file, struct stat64* info, int flags), (at, path, info, flags),
          C_NOEXCEPT)
PATH_CALL(int, scandir64,
          (const char* file, dirent64*** list, int (*filter)(const dirent64*),
           int (*compare)(const dirent64**, const dirent64**)),
          (path, list, filter, compare))

FILE* fopen64(const char* file, const char* mode)
{
    const LabPath path(file);
    return NEXT(fopen64)(path.get(), StreamMode(path, mode).text);
}

int mkstemp64(char* text)
{
    Template name(text, 0);
    return name.finish(NEXT(mkstemp64)(name.get()));
}

int mkostemp64(char* text, int flags)
{
    Template name(text, 0);
    return name.finish(NEXT(mkostemp64)(name.get(), flags));
}

int glob64(const char* pattern, int flags, int (*onError)(const char*, int), glob64_t* found) C_NOEXCEPT
{
    return globInLab(NEXT(glob64), pattern, flags, onError, found);
}

#endif

} // extern "C"

#pragma GCC visibility pop
