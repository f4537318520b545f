#include "bus_client.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <poll.h>
#include <sys/socket.h>

namespace {

constexpr size_t MIN_CAPACITY = 512;
constexpr size_t MAX_SPARE_CAPACITY = 8192;
constexpr int MAX_SPARES = 4;

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

// Reads the `missing` bytes before `end` without waiting; false while some have not arrived. When the connection
// breaks, a callback may reconnect, so that neither `end` nor `missing` may be used afterwards.
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
    connection->headerMissing = HEADER_SIZE;
    releaseMessages(ctx, &ctx->pending);
}
