// Unix socket addresses in the lab, and who asks.

#include "context.h"
#include "lab/socket_address.h"
#include "paths.h"

#include <stddef.h>
#include <string.h>

namespace {

/// connect or bind, with the socket's place in the lab.
template <typename Call>
int withLabAddress(Call next, int socket, const sockaddr* address, socklen_t length)
{
    char name[sizeof(sockaddr_un::sun_path) + 1] = "";
    const size_t start = offsetof(sockaddr_un, sun_path);
    if (address && address->sa_family == AF_UNIX && length > start && length <= sizeof(sockaddr_un))
        memcpy(name, reinterpret_cast<const sockaddr_un*>(address)->sun_path, length - start);
    const LabPath path(name);
    if (!path.moved())
        return next(socket, address, length);
    const SocketAddress moved(path.get());
    return next(socket, reinterpret_cast<const sockaddr*>(&moved.address), sizeof(sockaddr_un));
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {

int connect(int socket, const sockaddr* address, socklen_t length)
{
    return withLabAddress(NEXT(connect), socket, address, length);
}

int bind(int socket, const sockaddr* address, socklen_t length) C_NOEXCEPT
{
    return withLabAddress(NEXT(bind), socket, address, length);
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
