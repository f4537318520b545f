// Unix socket addresses in the lab, and who asks.

#include "context.h"
#include "paths.h"

#include <fcntl.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>

namespace {

/// A socket address moved into the lab. A path too long for an address goes through a descriptor of its folder,
/// which this object holds open.
class LabAddress {
public:
    LabAddress(const sockaddr* address, socklen_t length) : address_(address), length_(length)
    {
        if (!address || address->sa_family != AF_UNIX || length <= offsetof(sockaddr_un, sun_path))
            return;
        char name[sizeof(sockaddr_un::sun_path) + 1] = "";
        const size_t given = length - offsetof(sockaddr_un, sun_path);
        memcpy(name, reinterpret_cast<const sockaddr_un*>(address)->sun_path,
               given < sizeof(name) ? given : sizeof(name) - 1);
        const LabPath path(name);
        if (path.moved())
            moveTo(path.get());
    }

    ~LabAddress()
    {
        const int keep = errno;
        if (folder_ >= 0)
            close(folder_);
        errno = keep;
    }

    LabAddress(const LabAddress&) = delete;
    LabAddress& operator=(const LabAddress&) = delete;

    /// False, with errno, when the folder of the socket cannot be reached.
    bool valid() const
    {
        return valid_;
    }
    const sockaddr* get() const
    {
        return address_;
    }
    socklen_t length() const
    {
        return length_;
    }

private:
    void moveTo(const char* path)
    {
        moved_.sun_family = AF_UNIX;
        address_ = reinterpret_cast<const sockaddr*>(&moved_);
        length_ = sizeof(moved_);
        if (strlen(path) < sizeof(moved_.sun_path)) {
            memcpy(moved_.sun_path, path, strlen(path) + 1);
            return;
        }
        char folder[PATH_MAX];
        const char* slash = strrchr(path, '/');
        const auto folderLength = slash ? static_cast<int>(slash - path) : 0;
        snprintf(folder, sizeof(folder), "%.*s", folderLength, path);
        folder_ = open(folder, O_PATH | O_DIRECTORY | O_CLOEXEC);
        const int used =
            folder_ < 0 ? -1
                        : snprintf(moved_.sun_path, sizeof(moved_.sun_path), "/proc/self/fd/%d/%s", folder_, slash + 1);
        valid_ = used > 0 && used < static_cast<int>(sizeof(moved_.sun_path));
        if (folder_ >= 0 && !valid_)
            errno = ENAMETOOLONG;
    }

    sockaddr_un moved_{};
    const sockaddr* address_;
    socklen_t length_;
    int folder_ = -1;
    bool valid_ = true;
};

} // namespace

#pragma GCC visibility push(default)
extern "C" {

int connect(int socket, const sockaddr* address, socklen_t length)
{
    const LabAddress mapped(address, length);
    return mapped.valid() ? NEXT(connect)(socket, mapped.get(), mapped.length()) : -1;
}

int bind(int socket, const sockaddr* address, socklen_t length) C_NOEXCEPT
{
    const LabAddress mapped(address, length);
    return mapped.valid() ? NEXT(bind)(socket, mapped.get(), mapped.length()) : -1;
}

// A camera's programs all run as user 0, and a bus may refuse others: within a lab everybody counts as that user.
int getsockopt(int socket, int level, int option, void* value, socklen_t* length) C_NOEXCEPT
{
    const int result = NEXT(getsockopt)(socket, level, option, value, length);
    if (result == 0 && level == SOL_SOCKET && option == SO_PEERCRED && *length >= sizeof(ucred) && labFolder()) {
        auto* peer = static_cast<ucred*>(value);
        peer->uid = 0;
        peer->gid = 0;
    }
    return result;
}

} // extern "C"
#pragma GCC visibility pop
