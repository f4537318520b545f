#pragma once
// One connection: the pieces of its input put together to messages, and its outgoing queue.
//
// All of it belongs to the daemon's one thread. Nothing here blocks.

#include "wire.h"

#include <list>
#include <memory>
#include <string>

#include <sys/types.h>

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

/// A lookup whose answer did not fit into the queue yet; see lookup.h.
struct PendingLookup {
    uint16_t seq;
    uint32_t peer;
    bool exact;         // `prefix` is the whole name
    std::string prefix; // names looked for begin with this
    std::string from;   // first name not answered yet, in byte order
    bool found;         // at least one
    bool listed;        // only the status is left to send
};

class Client {
public:
    /// Takes over `fd`, a non-blocking stream socket, and reads the peer's credentials from it.
    Client(int fd, uint32_t id, int epollFd);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    int fd() const
    {
        return fd_;
    }
    uint32_t id() const
    {
        return id_;
    }
    uid_t user() const
    {
        return user_;
    }
    gid_t group() const
    {
        return group_;
    }

    /// Sends or queues a whole message. One that would take the queue past MAX_QUEUE, or for a peer that cannot read
    /// any more, is dropped; so is an empty one.
    void send(Bytes message);

    /// Whether a message of that size can be sent while leaving most of the queue to others; always so when nothing
    /// is queued, so that waiting for room comes to an end.
    bool hasRoom(size_t size) const;

    /// Sends from the queue what the socket takes.
    void flush();

    /// The peer does not read any more: drops the queue and whatever is sent from now on.
    void mute();
    bool muted() const
    {
        return muted_;
    }

    /// Reads once from the socket into `input`, at most READ_SIZE bytes. Notes the end of file; an error counts as one.
    void receive();

    bool wantsInput() const
    {
        return !ended_ && !lookup;
    }

    /// The peer sent all it will send, all of it was handled, and nothing waits to be sent.
    bool finished() const
    {
        return ended_ && !lookup && queue_.size() == 0;
    }

    /// Has the event loop watch for what this client can go on with now. False when the kernel cannot, which happens
    /// at the first call only.
    bool watch();

    InputBuffer input;
    std::unique_ptr<PendingLookup> lookup; // while it waits, no further input is handled
    std::list<Object*> objects;            // in order of registration

private:
    static constexpr uint32_t NOT_WATCHED = ~uint32_t{0};

    OutputQueue queue_;
    int fd_;
    int epollFd_;
    uint32_t id_;
    uint32_t watched_ = NOT_WATCHED;
    uid_t user_ = 0;
    gid_t group_ = 0;
    bool ended_ = false;
    bool muted_ = false;
};
