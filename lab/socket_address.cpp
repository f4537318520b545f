#include "lab/socket_address.h"

#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <cerrno>

SocketAddress::SocketAddress(const char* path)
{
    address_.sun_family = AF_UNIX;
    constexpr size_t SIZE = sizeof(address_.sun_path);
    if (strlen(path) < SIZE) {
        memcpy(address_.sun_path, path, strlen(path) + 1);
        return;
    }
    const char* slash = strrchr(path, '/');
    char folder[PATH_MAX];
    snprintf(folder, sizeof(folder), "%.*s", slash ? static_cast<int>(slash - path) : 0, path);
    folder_ = open(folder, O_PATH | O_DIRECTORY | O_CLOEXEC);
    valid_ = folder_ >= 0;
    if (valid_ && snprintf(address_.sun_path, SIZE, "/proc/self/fd/%d%s", folder_, slash) >= static_cast<int>(SIZE)) {
        valid_ = false;
        errno = ENAMETOOLONG;
    }
}

SocketAddress::~SocketAddress()
{
    const int keep = errno;
    if (folder_ >= 0)
        close(folder_);
    errno = keep;
}
