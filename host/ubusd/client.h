#pragma once
// One connection: the pieces of its input put together to messages, and its outgoing queue.
//
// All of it belongs to the daemon's one thread. Nothing here blocks.

#include "wire.h"

#include <list>
#include <string>

extern "C" { // the header does not say so itself
#include <libubox/uloop.h>
}

class Bus;
struct Object;

/// Input of one client that does not make a whole message yet, or has to wait.
class InputBuffer {
public:
    enum class Next { Message, Incomplete, Broken };

    void append(Bytes bytes);

    /// Gives the next whole message, valid until the next append or release. Broken: the root length is out of range,
    /// and with it the place where the next message would begin.
    [[nodiscard]] Next next(Bytes& message);

    /// Gives back the memory of what next() handed out.
    void release();

private:
    std::vector<uint8_t> bytes_;
    size_t taken_ = 0;
};

/// Bytes that a client's socket did not take yet.
class OutputQueue {
public:
    size_t size() const
    {
        return bytes_.size() - sent_;
    }
    void append(Bytes bytes);
    void clear();

    /// Sends what the socket takes. False when the peer will never read again.
    [[nodiscard]] bool flush(int fd);

private:
    std::vector<uint8_t> bytes_;
    size_t sent_ = 0;
};

class Client : public uloop_fd {
public:
    /// Takes over `fd`, a non-blocking stream socket, and reads the peer's credentials from it. In the event loop
    /// `serve` is called with the client.
    Client(Bus& bus, int fd, uint32_t id, uloop_fd_handler serve);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    uint32_t id() const
    {
        return id_;
    }

    /// Sends or queues a whole message. One that would take the queue past MAX_QUEUE, or for a peer that cannot read
    /// any more, is dropped; so is an empty one.
    void send(Bytes message);

    /// The same for the answer to a lookup, none of which is dropped. While it is longer than MAX_QUEUE, no further
    /// input of the client is handled.
    void sendInAnyCase(Bytes message);

    /// Sends from the queue what the socket takes.
    void flush();

    /// The peer does not read any more: drops the queue and whatever is sent from now on.
    void mute();
    bool muted() const
    {
        return muted_;
    }
    bool isFull() const
    {
        return queue_.size() > MAX_QUEUE;
    }

    /// Reads once from the socket into `input`, at most READ_SIZE bytes. Notes the end of file; an error counts as one.
    void receive();

    bool wantsInput() const
    {
        return !ended_ && !isFull();
    }

    /// The peer sent all it will send, all of it was handled, and nothing waits to be sent.
    bool finished() const
    {
        return ended_ && queue_.size() == 0;
    }

    /// Has the event loop watch for what this client can go on with now. False when the kernel cannot, which happens
    /// at the first call only.
    bool watch();

    Bus& bus;
    std::string user; // names from the system's databases, or numbers as text
    std::string group;
    InputBuffer input;
    std::list<Object*> objects; // in order of registration

private:
    OutputQueue queue_;
    uint32_t id_;
    bool ended_ = false;
    bool muted_ = false;
};
