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

/// The call writes the six letters that it found into the template, which must stay as long as it was.
int makeTemporary(char* text, int flags = 0)
{
    constexpr size_t LETTERS = 6;
    const LabPath path(text);
    const int fd = NEXT(mkostemp)(const_cast<char*>(path.get()), flags);
    if (fd >= 0 && path.moved())
        memcpy(text + strlen(text) - LETTERS, path.get() + strlen(path.get()) - LETTERS, LETTERS);
    return fd;
}

template <typename Call, typename Result>
int globInLab(Call next, const char* pattern, int flags, int (*onError)(const char*, int), Result* found)
{
    const LabPath path(pattern);
    if (!path.moved())
        return next(pattern, flags, onError, found);
    char inLab[PATH_MAX];
    snprintf(inLab, sizeof(inLab), "%s", path.get());
    for (size_t i = 0; i < strlen(labFolder()); ++i)
        if (strchr("*?[]\\{}", inLab[i]))
            inLab[i] = '?'; // which matches itself, too
    const int result = next(inLab, flags, onError, found);
    for (size_t i = 0; result == 0 && i < found->gl_pathc; ++i)
        restorePath(found->gl_pathv[found->gl_offs * ((flags & GLOB_DOOFFS) != 0) + i]);
    return result;
}

} // namespace

extern "C" {

// A call that opens `file`, perhaps at a folder `at`.
#define OPEN_CALL(name, parameters, ...)                                                                               \
    int name parameters                                                                                                \
    {                                                                                                                  \
        va_list arguments;                                                                                             \
        va_start(arguments, flags);                                                                                    \
        const mode_t mode = modeArgument(flags, arguments);                                                            \
        va_end(arguments);                                                                                             \
        const LabPath path(file);                                                                                      \
        return NEXT(name)(__VA_ARGS__ path.get(), flagsFor(path, flags), mode);                                        \
    }
OPEN_CALL(open, (const char* file, int flags, ...))
OPEN_CALL(openat, (int at, const char* file, int flags, ...), at, )

// A call that hands one path on: its parameters, and its arguments with the path as `path`.
#define PATH_CALL(result, name, parameters, arguments, ...)                                                            \
    result name parameters __VA_ARGS__                                                                                 \
    {                                                                                                                  \
        const LabPath mapped(file);                                                                                    \
        const char* path = mapped.get();                                                                               \
        return NEXT(name) arguments;                                                                                   \
    }

PATH_CALL(int, access, (const char* file, int type), (path, type), C_NOEXCEPT)
PATH_CALL(int, faccessat, (int at, const char* file, int type, int flags), (at, path, type, flags), C_NOEXCEPT)
PATH_CALL(int, mkdir, (const char* file, mode_t mode), (path, mode), C_NOEXCEPT)
PATH_CALL(int, mkdirat, (int at, const char* file, mode_t mode), (at, path, mode), C_NOEXCEPT)
PATH_CALL(int, chmod, (const char* file, mode_t mode), (path, mode), C_NOEXCEPT)
PATH_CALL(int, fchmodat, (int at, const char* file, mode_t mode, int flags), (at, path, mode, flags), C_NOEXCEPT)
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

#define STREAM_CALL(name)                                                                                              \
    FILE* name(const char* file, const char* mode)                                                                     \
    {                                                                                                                  \
        const LabPath path(file);                                                                                      \
        return NEXT(name)(path.get(), StreamMode(path, mode).text);                                                    \
    }
STREAM_CALL(fopen)

// A call with two paths: its parameters, and its arguments with the paths as `first` and `second`. A symbolic link's
// text is mapped too, since the kernel, not we, will follow it.
#define TWO_PATHS_CALL(name, parameters, arguments)                                                                    \
    int name parameters C_NOEXCEPT                                                                                     \
    {                                                                                                                  \
        const LabPath mappedFrom(from);                                                                                \
        const LabPath mappedTo(to);                                                                                    \
        const char* first = mappedFrom.get();                                                                          \
        const char* second = mappedTo.get();                                                                           \
        return NEXT(name) arguments;                                                                                   \
    }
TWO_PATHS_CALL(rename, (const char* from, const char* to), (first, second))
TWO_PATHS_CALL(renameat, (int fromAt, const char* from, int toAt, const char* to), (fromAt, first, toAt, second))
TWO_PATHS_CALL(renameat2, (int fromAt, const char* from, int toAt, const char* to, unsigned flags),
               (fromAt, first, toAt, second, flags))
TWO_PATHS_CALL(link, (const char* from, const char* to), (first, second))
TWO_PATHS_CALL(symlink, (const char* from, const char* to), (first, second))

int mkstemp(char* text)
{
    return makeTemporary(text);
}

int mkostemp(char* text, int flags)
{
    return makeTemporary(text, flags);
}

int glob(const char* pattern, int flags, int (*onError)(const char*, int), glob_t* found) C_NOEXCEPT
{
    return globInLab(NEXT(glob), pattern, flags, onError, found);
}

#ifdef __GLIBC__ // its further names: for large files, and for calls with checks

OPEN_CALL(open64, (const char* file, int flags, ...))
OPEN_CALL(openat64, (int at, const char* file, int flags, ...), at, )

#define CHECKED_OPEN_CALL(name, parameters, ...)                                                                       \
    int name parameters                                                                                                \
    {                                                                                                                  \
        const LabPath path(file);                                                                                      \
        return NEXT(name)(__VA_ARGS__ path.get(), flagsFor(path, flags));                                              \
    }
CHECKED_OPEN_CALL(__open_2, (const char* file, int flags))
CHECKED_OPEN_CALL(__open64_2, (const char* file, int flags))
CHECKED_OPEN_CALL(__openat_2, (int at, const char* file, int flags), at, )
CHECKED_OPEN_CALL(__openat64_2, (int at, const char* file, int flags), at, )

PATH_CALL(int, truncate64, (const char* file, off64_t size), (path, size), C_NOEXCEPT)
PATH_CALL(ssize_t, __readlink_chk, (const char* file, char* text, size_t length, size_t size),
          (path, text, length, size))
PATH_CALL(char*, __realpath_chk, (const char* file, char* resolved, size_t size), (path, resolved, size))
PATH_CALL(int, stat64, (const char* file, struct stat64* info), (path, info), C_NOEXCEPT)
PATH_CALL(int, lstat64, (const char* file, struct stat64* info), (path, info), C_NOEXCEPT)
PATH_CALL(int, fstatat64, (int at, const char* file, struct stat64* info, int flags), (at, path, info, flags),
          C_NOEXCEPT)

STREAM_CALL(fopen64)

int mkstemp64(char* text) __attribute__((alias("mkstemp")));

int glob64(const char* pattern, int flags, int (*onError)(const char*, int), glob64_t* found) C_NOEXCEPT
{
    return globInLab(NEXT(glob64), pattern, flags, onError, found);
}

#endif

} // extern "C"

#pragma GCC visibility pop
