// What happens when something arrives, and when nothing can arrive any more.
#include "bus_client.h"

namespace {

constexpr int PENDING_DELAY_MS = 1;

// Runs after the outermost wait or handler, from the loop if the socket is in it. The context may be gone afterwards.
void reportLoss(ubus_context* ctx)
{
    ubus_connection* connection = ctx->connection;
    if (ctx->stack_depth > 0 || connection->reporting)
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

} // namespace

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

void dispatchPending(ubus_context* ctx)
{
    if (ctx->stack_depth > 0 || list_empty(&ctx->pending))
        return;
    const Message* last = list_entry(ctx->pending.prev, Message, list);
    const Message* handled = nullptr;
    ++ctx->stack_depth;
    while (!list_empty(&ctx->pending) && (handled != last || !ctx->sock.registered)) {
        Message* message = list_first_entry(&ctx->pending, Message, list);
        list_del(&message->list);
        dispatchCall(ctx, message);
        releaseMessage(ctx, message);
        handled = message;
    }
    --ctx->stack_depth;
    if (!list_empty(&ctx->pending))
        uloop_timeout_set(&ctx->pending_timer, PENDING_DELAY_MS);
}

void breakConnection(ubus_context* ctx)
{
    ctx->sock.eof = true;
    if (ctx->connection->broken)
        return;
    ctx->connection->broken = true;
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
        handlePendingTimer(&ctx->pending_timer);
}

void handleSocket(uloop_fd* sock, unsigned int)
{
    ubus_context* ctx = container_of(sock, ubus_context, sock);
    dispatchPending(ctx);
    while (Message* message = nextMessage(ctx)) {
        handleMessage(ctx, message);
        dispatchPending(ctx);
        // The rest is left to the loop, which does not call again after an error.
        if (ctx->cancel_poll && !sock->eof && !sock->error)
            break;
    }
    if (ctx->connection->broken && sock->registered)
        uloop_fd_delete(sock);
    reportLoss(ctx);
}

void handlePendingTimer(uloop_timeout* timer)
{
    ubus_context* ctx = container_of(timer, ubus_context, pending_timer);
    dispatchPending(ctx);
    reportLoss(ctx);
}
