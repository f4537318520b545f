#include "bus_client.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

void ignoreLoss(ubus_context*)
{
}

void closeSocket(ubus_context* ctx)
{
    if (ctx->sock.registered)
        uloop_fd_delete(&ctx->sock);
    if (ctx->sock.fd >= 0)
        close(ctx->sock.fd);
    ctx->sock.fd = -1;
    ctx->connection->broken = true;
}

// A connected, non-blocking socket, or -1.
int connectSocket(const char* path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    size_t length = strlen(path);
    if (length >= sizeof(address.sun_path))
        return -1;
    memcpy(address.sun_path, path, length);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    int connected = 0;
    do {
        connected = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    } while (connected < 0 && errno == EINTR);
    if (connected < 0 || fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK) < 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// The first message, which tells the client its id; null when the connection breaks before.
Message* awaitGreeting(ubus_context* ctx)
{
    Message* greeting = nextMessage(ctx);
    while (!greeting && !ctx->connection->broken) {
        waitForSocket(ctx, POLLIN, -1);
        greeting = nextMessage(ctx);
    }
    return greeting;
}

bool takeGreeting(ubus_context* ctx)
{
    Message* greeting = awaitGreeting(ctx);
    if (!greeting)
        return false;
    ctx->local_id = cpu_to_be32(greeting->peer); // kept as it is on the wire
    bool valid = greeting->type == UBUS_MSG_HELLO && ctx->local_id > 1;
    releaseMessage(ctx, greeting);
    return valid;
}

int openConnection(ubus_context* ctx, const char* path)
{
    closeSocket(ctx);
    endAllRequests(ctx);
    discardInput(ctx);
    ctx->connection->lostPending = false;
    ctx->sock.fd = connectSocket(path ? path : UBUS_UNIX_SOCKET);
    if (ctx->sock.fd < 0)
        return UBUS_STATUS_CONNECTION_FAILED;
    ctx->sock.eof = false;
    ctx->sock.error = false;
    ctx->connection->broken = false;
    ctx->request_seq = 0;
    if (takeGreeting(ctx))
        return UBUS_STATUS_OK;
    closeSocket(ctx);
    ctx->connection->lostPending = false;
    return UBUS_STATUS_UNKNOWN_ERROR;
}

void registerAllAgain(ubus_context* ctx)
{
    list_head lost = LIST_HEAD_INIT(lost);
    while (!list_empty(&ctx->objects.list_head)) {
        ubus_object* obj = list_first_entry(&ctx->objects.list_head, ubus_object, avl.list);
        list_del(&obj->avl.list);
        list_add_tail(&obj->avl.list, &lost);
        obj->id = 0;
        if (obj->type)
            obj->type->id = 0;
    }
    ++ctx->stack_depth; // calls that arrive meanwhile wait until all objects are known
    while (!list_empty(&lost)) {
        ubus_object* obj = list_first_entry(&lost, ubus_object, avl.list);
        list_del(&obj->avl.list);
        (void)registerObject(ctx, obj); // one that fails keeps the id 0, by which its owner knows
    }
    --ctx->stack_depth;
}

} // namespace

ubus_context* ubus_connect(const char* path)
{
    (void)uloop_init(); // a context works without the loop, too
    auto* ctx = static_cast<ubus_context*>(calloc(1, sizeof(ubus_context)));
    auto* connection = static_cast<ubus_connection*>(calloc(1, sizeof(ubus_connection)));
    if (!ctx || !connection) {
        free(ctx);
        free(connection);
        return nullptr;
    }
    INIT_LIST_HEAD(&ctx->requests);
    INIT_LIST_HEAD(&ctx->pending);
    INIT_LIST_HEAD(&ctx->objects.list_head);
    ctx->sock.fd = -1;
    ctx->sock.cb = handleSocket;
    ctx->pending_timer.cb = handlePendingTimer;
    ctx->connection_lost = ignoreLoss;
    ctx->connection = connection;
    if (openConnection(ctx, path) == UBUS_STATUS_OK)
        return ctx;
    ubus_free(ctx);
    return nullptr;
}

int ubus_reconnect(ubus_context* ctx, const char* path)
{
    if (int status = openConnection(ctx, path))
        return status;
    registerAllAgain(ctx);
    dispatchPending(ctx);
    return UBUS_STATUS_OK;
}

void ubus_free(ubus_context* ctx)
{
    closeSocket(ctx);
    uloop_timeout_cancel(&ctx->pending_timer);
    discardInput(ctx);
    blob_buf_free(&ctx->connection->output);
    if (ctx->connection->freed)
        *ctx->connection->freed = true;
    free(ctx->connection);
    free(ctx);
}
