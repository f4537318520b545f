#pragma once
// The address of a bus socket that may lie deep below a lab's folder.

#include <sys/socket.h>
#include <sys/un.h>

/// A path too long for an address goes through a descriptor of its folder, which the object holds open. Keeps errno
/// when it ends.
class SocketAddress {
public:
    explicit SocketAddress(const char* path);
    ~SocketAddress();
    SocketAddress(const SocketAddress&) = delete;
    SocketAddress& operator=(const SocketAddress&) = delete;

    /// False, with errno, when the folder of the socket cannot be reached.
    bool valid() const
    {
        return valid_;
    }
    const sockaddr* get() const
    {
        return reinterpret_cast<const sockaddr*>(&address_);
    }
    /// The path in the address.
    const char* path() const
    {
        return address_.sun_path;
    }

private:
    sockaddr_un address_{};
    int folder_ = -1;
    bool valid_ = true;
};
