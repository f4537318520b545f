// What happens when something arrives, and when nothing can arrive any more.
#include "bus_client.h"

namespace {

constexpr int MAX_READS = 16; // of one event, so that a busy bus leaves the loop time for others
constexpr int PENDING_DELAY_MS = 1;

// Runs after the outermost wait or handler, from the loop if the socket is in it.
void reportLoss(ubus_context* ctx)
{
    ubus_connection* connection = ctx->connection;
    if (connection->reporting)
        return;
    bool freed = false;
    connection->freed = &freed;
    connection->reporting = true;
    while (!freed && connection->lostPending) {
        connection->lostPending = false;
        if (ctx->sock.registered)
            uloop_fd_delete(&ctx->sock);
        if (ctx->connection_lost)
            ctx->connection_lost(ctx);
    }
    if (freed)
        return;
    connection->reporting = false;
    connection->freed = nullptr;
}

void handleMessage(ubus_context* ctx, Message* message)
{
    ++ctx->stack_depth;
    switch (message->type) {
    case UBUS_MSG_STATUS:
    case UBUS_MSG_DATA:
        answerRequest(ctx, message);
        break;
    case UBUS_MSG_INVOKE:
        list_add_tail(&message->list, &ctx->pending);
        break;
    default:
        releaseMessage(ctx, message);
        break;
    }
    --ctx->stack_depth;
}

// Runs what is due once no wait and no handler is under way. The context may be gone afterwards.
void settle(ubus_context* ctx)
{
    if (ctx->stack_depth > 0)
        return;
    dispatchPending(ctx);
    reportLoss(ctx);
}

} // namespace

void dispatchPending(ubus_context* ctx)
{
    if (ctx->stack_depth > 0)
        return;
    ++ctx->stack_depth;
    while (!list_empty(&ctx->pending)) {
        Message* message = list_first_entry(&ctx->pending, Message, list);
        list_del(&message->list);
        dispatchCall(ctx, message);
        releaseMessage(ctx, message);
    }
    --ctx->stack_depth;
}

void handleInput(ubus_context* ctx)
{
    while (Message* message = nextMessage(ctx)) {
        handleMessage(ctx, message);
        dispatchPending(ctx);
    }
}

Received receive(ubus_context* ctx)
{
    handleInput(ctx);
    if (ctx->cancel_poll)
        return Received::Nothing;
    Received received = fillInput(ctx);
    handleInput(ctx);
    return received;
}

void breakConnection(ubus_context* ctx)
{
    ctx->sock.eof = true;
    if (ctx->cancel_poll)
        return;
    ctx->cancel_poll = true;
    ctx->connection->lostPending = true;
    ++ctx->stack_depth;
    endAllRequests(ctx);
    --ctx->stack_depth;
}

void settleAfterWait(ubus_context* ctx)
{
    if (ctx->stack_depth > 0 || (list_empty(&ctx->pending) && !ctx->connection->lostPending))
        return;
    if (ctx->sock.registered)
        uloop_timeout_set(&ctx->pending_timer, PENDING_DELAY_MS);
    else
        settle(ctx);
}

void handleSocket(uloop_fd* sock, unsigned int)
{
    ubus_context* ctx = container_of(sock, ubus_context, sock);
    for (int reads = 1;; ++reads) {
        Received received = receive(ctx);
        // The loop does not call again after an error, and after a half close there is only a rest to read.
        bool toTheEnd = sock->eof || sock->error;
        if (received == Received::Nothing || (!toTheEnd && (received == Received::All || reads == MAX_READS)))
            break;
    }
    if (ctx->cancel_poll && sock->registered)
        uloop_fd_delete(sock);
    settle(ctx);
}

void handlePendingTimer(uloop_timeout* timer)
{
    settle(container_of(timer, ubus_context, pending_timer));
}
