#pragma once
// The address of a bus socket that may lie deep below a lab's folder.

#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>

/// A path too long for an address goes through a descriptor of its folder, which the object holds open. Keeps errno
/// when it ends. Without the folder the path is one that does not exist.
struct SocketAddress {
    explicit SocketAddress(const char* path)
    {
        char name[PATH_MAX];
        snprintf(name, sizeof(name), "%s", path);
        const char* slash = strrchr(path, '/');
        if (slash && strlen(path) >= sizeof(address.sun_path)) {
            name[slash - path] = '\0';
            folder = open(name, O_PATH | O_DIRECTORY | O_CLOEXEC);
            snprintf(name, sizeof(name), "/proc/self/fd/%d%s", folder, slash);
        }
        snprintf(address.sun_path, sizeof(address.sun_path), "%.*s", int{sizeof(address.sun_path)} - 1, name);
    }
    ~SocketAddress()
    {
        const int keep = errno;
        if (folder >= 0)
            close(folder);
        errno = keep;
    }
    SocketAddress(const SocketAddress&) = delete;
    SocketAddress& operator=(const SocketAddress&) = delete;

    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    int folder = -1;
};
