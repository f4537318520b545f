#include "bus_client.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

namespace {

constexpr size_t HEADER_SIZE = sizeof(ubus_msghdr) + sizeof(blob_attr);
constexpr size_t MIN_CAPACITY = 512;
constexpr size_t MAX_SPARE_CAPACITY = INPUT_SIZE;
constexpr int MAX_SPARES = 4;
constexpr short ALWAYS_REPORTED = POLLERR | POLLHUP | POLLNVAL;

// A record for a root of that many bytes, a used one if possible; null without memory.
Message* obtainMessage(ubus_connection* connection, size_t rootLength)
{
    Message* message = nullptr;
    list_for_each_entry (message, &connection->spares, list) {
        if (message->capacity < rootLength)
            continue;
        list_del(&message->list);
        --connection->spareCount;
        return message;
    }
    size_t capacity = std::max(rootLength, MIN_CAPACITY);
    message = static_cast<Message*>(malloc(sizeof(Message) + capacity));
    if (message)
        message->capacity = capacity;
    return message;
}

// Begins the message whose header stands at the start of the input. Null for a header that no bus sends, and without
// memory: either way the stream cannot be followed any further.
Message* beginMessage(ubus_connection* connection)
{
    const uint8_t* bytes = connection->input + connection->inputStart;
    ubus_msghdr header{};
    blob_attr root{};
    memcpy(&header, bytes, sizeof(header));
    memcpy(&root, bytes + sizeof(header), sizeof(root));
    size_t length = blob_raw_len(&root);
    if (header.version != 0 || length < sizeof(root) || blob_pad_len(&root) > UBUS_MAX_MSGLEN)
        return nullptr;
    Message* message = obtainMessage(connection, length);
    if (!message)
        return nullptr;
    message->type = header.type;
    message->seq = be16_to_cpu(header.seq);
    message->peer = be32_to_cpu(header.peer);
    rootOf(message)->id_len = root.id_len;
    message->missing = length - sizeof(root);
    connection->inputStart += HEADER_SIZE;
    return message;
}

char* firstMissingByte(Message* message)
{
    return reinterpret_cast<char*>(rootOf(message)) + blob_raw_len(rootOf(message)) - message->missing;
}

} // namespace

bool waitForSocket(const ubus_context* ctx, short events, int timeoutMs)
{
    pollfd waited{ctx->sock.fd, events, 0};
    int count = poll(&waited, 1, timeoutMs);
    return count != 0 || (waited.revents & (events | ALWAYS_REPORTED));
}

Received fillInput(ubus_context* ctx)
{
    ubus_connection* connection = ctx->connection;
    size_t kept = connection->inputEnd - connection->inputStart;
    memmove(connection->input, connection->input + connection->inputStart, kept);
    connection->inputStart = 0;
    connection->inputEnd = kept;

    Message* partial = connection->partial;
    size_t missing = partial ? partial->missing : 0;
    iovec parts[] = {{partial ? firstMissingByte(partial) : nullptr, missing},
                     {connection->input + kept, INPUT_SIZE - kept}};
    ssize_t count = 0;
    do {
        count = readv(ctx->sock.fd, parts, 2);
    } while (count < 0 && errno == EINTR);
    if (count < 0 && errno == EAGAIN)
        return Received::Nothing;
    if (count <= 0) {
        breakConnection(ctx);
        return Received::Nothing;
    }
    auto length = static_cast<size_t>(count);
    size_t toPartial = std::min(length, missing);
    if (partial)
        partial->missing -= toPartial;
    connection->inputEnd += length - toPartial;
    return length == missing + INPUT_SIZE - kept ? Received::Part : Received::All;
}

Message* nextMessage(ubus_context* ctx)
{
    ubus_connection* connection = ctx->connection;
    if (!connection->partial) {
        if (connection->inputEnd - connection->inputStart < HEADER_SIZE)
            return nullptr;
        connection->partial = beginMessage(connection);
        if (!connection->partial) {
            connection->inputStart = connection->inputEnd;
            shutdown(ctx->sock.fd, SHUT_RDWR);
            breakConnection(ctx);
            return nullptr;
        }
    }
    Message* message = connection->partial;
    size_t count = std::min(message->missing, connection->inputEnd - connection->inputStart);
    memcpy(firstMissingByte(message), connection->input + connection->inputStart, count);
    connection->inputStart += count;
    message->missing -= count;
    if (message->missing > 0)
        return nullptr;
    connection->partial = nullptr;
    return message;
}

void releaseMessage(ubus_context* ctx, Message* message)
{
    ubus_connection* connection = ctx->connection;
    if (message->capacity > MAX_SPARE_CAPACITY || connection->spareCount == MAX_SPARES) {
        free(message);
        return;
    }
    list_add(&message->list, &connection->spares);
    ++connection->spareCount;
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
    connection->inputStart = 0;
    connection->inputEnd = 0;
    releaseMessages(ctx, &ctx->pending);
}
