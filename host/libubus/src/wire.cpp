// The bytes on the socket: messages out and in, and the attributes in them. What breaks the connection is noted in it
// and reported elsewhere.
#include "bus_client.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

namespace {

enum class Kind { Unknown, Number, Byte, Text, Nested };

constexpr Kind KINDS[UBUS_ATTR_MAX] = {
    Kind::Unknown, // UNSPEC
    Kind::Number,  // STATUS
    Kind::Text,    // OBJPATH
    Kind::Number,  // OBJID
    Kind::Text,    // METHOD
    Kind::Number,  // OBJTYPE
    Kind::Nested,  // SIGNATURE
    Kind::Nested,  // DATA
    Kind::Number,  // TARGET
    Kind::Byte,    // ACTIVE
    Kind::Byte,    // NO_REPLY
    Kind::Nested,  // SUBSCRIBERS
    Kind::Text,    // USER
    Kind::Text,    // GROUP
};

bool isSound(const blob_attr* attr, Kind kind)
{
    size_t length = blob_len(attr);
    switch (kind) {
    case Kind::Unknown:
        return false;
    case Kind::Number:
        return length == sizeof(uint32_t);
    case Kind::Byte:
        return length == sizeof(uint8_t);
    case Kind::Text:
        return length > 0 && blob_get_string(attr)[length - 1] == 0;
    case Kind::Nested:
        return true;
    }
    return false;
}

void breakConnection(ubus_context* ctx)
{
    ctx->sock.eof = true;
    ctx->connection->broken = true;
    ctx->connection->lostPending = true;
}

// A record for a root of that many bytes; null without memory.
Message* obtainMessage(ubus_connection* connection, size_t length)
{
    for (SmallMessage& small : connection->small) {
        if (length > sizeof(small.root) || small.taken)
            continue;
        small.taken = true;
        return &small.message;
    }
    return static_cast<Message*>(malloc(sizeof(Message) + length));
}

// Begins the message whose header has arrived. Null for a header that no bus sends, and without memory: either way the
// stream cannot be followed any further.
Message* beginMessage(ubus_connection* connection)
{
    MessageHeader header{};
    blob_attr root{};
    memcpy(&header, connection->header, sizeof(header));
    memcpy(&root, connection->header + sizeof(header), sizeof(root));
    size_t length = blob_raw_len(&root);
    if (header.version != 0 || length < sizeof(root) || blob_pad_len(&root) > MAX_ROOT)
        return nullptr;
    Message* message = obtainMessage(connection, length);
    if (!message)
        return nullptr;
    message->type = header.type;
    message->seq = be16_to_cpu(header.seq);
    message->peer = be32_to_cpu(header.peer);
    rootOf(message)->id_len = root.id_len;
    message->missing = length - sizeof(root);
    return message;
}

// Reads the `missing` bytes before `end` without waiting; false while some have not arrived.
bool readRest(ubus_context* ctx, char* end, size_t& missing)
{
    while (missing > 0) {
        ssize_t count = recv(ctx->sock.fd, end - missing, missing, 0);
        if (count > 0) {
            missing -= static_cast<size_t>(count);
        } else if (count == 0 || errno != EINTR) {
            if (count == 0 || errno != EAGAIN)
                breakConnection(ctx);
            return false;
        }
    }
    return true;
}

} // namespace

void waitForSocket(const ubus_context* ctx, short events, int timeoutMs)
{
    pollfd waited{ctx->sock.fd, events, 0};
    (void)poll(&waited, 1, timeoutMs); // whoever waits looks again
}

Message* nextMessage(ubus_context* ctx)
{
    ubus_connection* connection = ctx->connection;
    if (connection->broken)
        return nullptr;
    if (!connection->partial) {
        if (!readRest(ctx, connection->header + HEADER_SIZE, connection->headerMissing))
            return nullptr;
        connection->headerMissing = HEADER_SIZE;
        connection->partial = beginMessage(connection);
        if (!connection->partial) {
            shutdown(ctx->sock.fd, SHUT_RDWR);
            breakConnection(ctx);
            return nullptr;
        }
    }
    Message* message = connection->partial;
    if (!readRest(ctx, reinterpret_cast<char*>(rootOf(message)) + blob_raw_len(rootOf(message)), message->missing))
        return nullptr;
    connection->partial = nullptr;
    return message;
}

void releaseMessage(ubus_context* ctx, Message* message)
{
    for (SmallMessage& small : ctx->connection->small) {
        if (&small.message == message) {
            small.taken = false;
            return;
        }
    }
    free(message);
}

void releaseMessages(ubus_context* ctx, list_head* messages)
{
    while (!list_empty(messages)) {
        Message* message = list_first_entry(messages, Message, list);
        list_del(&message->list);
        releaseMessage(ctx, message);
    }
}

void discardInput(ubus_context* ctx)
{
    ubus_connection* connection = ctx->connection;
    if (connection->partial)
        releaseMessage(ctx, connection->partial);
    connection->partial = nullptr;
    connection->headerMissing = HEADER_SIZE;
    releaseMessages(ctx, &ctx->pending);
}

blob_buf* startMessage(ubus_context* ctx)
{
    blob_buf* buf = &ctx->connection->output;
    return blob_buf_init(buf, 0) == 0 ? buf : nullptr;
}

bool putData(blob_buf* buf, const blob_attr* msg)
{
    return msg ? blob_put(buf, UBUS_ATTR_DATA, blob_data(msg), static_cast<unsigned>(blob_len(msg))) != nullptr
               : blob_put(buf, UBUS_ATTR_DATA, nullptr, 0) != nullptr;
}

bool sendMessage(ubus_context* ctx, uint8_t type, uint16_t seq, uint32_t peer)
{
    blob_attr* root = ctx->connection->output.head;
    if (ctx->connection->broken || blob_pad_len(root) > MAX_ROOT)
        return false;
    MessageHeader header{.version = 0, .type = type, .seq = cpu_to_be16(seq), .peer = cpu_to_be32(peer)};
    iovec parts[] = {{&header, sizeof(header)}, {root, blob_raw_len(root)}};
    size_t left = parts[0].iov_len + parts[1].iov_len;
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    // A message that was begun is finished whatever it takes: anything else would break the stream.
    for (;;) {
        ssize_t count = sendmsg(ctx->sock.fd, &message, MSG_NOSIGNAL);
        if (count < 0 && errno == EAGAIN) {
            waitForSocket(ctx, POLLOUT, -1);
        } else if (count < 0 && errno != EINTR) {
            ctx->sock.eof = true;
            return false;
        }
        if (count < 0)
            continue;
        left -= static_cast<size_t>(count);
        if (left == 0)
            return true;
        for (iovec& part : parts) {
            size_t sent = std::min(static_cast<size_t>(count), part.iov_len);
            part.iov_base = static_cast<char*>(part.iov_base) + sent;
            part.iov_len -= sent;
            count -= static_cast<ssize_t>(sent);
        }
    }
}

WireFields readFields(const blob_attr* root)
{
    WireFields fields{};
    blob_attr* attr = nullptr;
    size_t rest = 0;
    blob_for_each_attr (attr, root, rest) {
        unsigned id = blob_id(attr);
        if (id < UBUS_ATTR_MAX && isSound(attr, KINDS[id]))
            fields.at[id] = attr;
    }
    return fields;
}
