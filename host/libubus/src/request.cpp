#include "bus_client.h"

#include <ctime>

#include <poll.h>

namespace {

int64_t nowMs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// A request's record that has not been sent: it may be aborted.
void initRequest(ubus_context* ctx, ubus_request* req)
{
    *req = {};
    INIT_LIST_HEAD(&req->list);
    req->ctx = ctx;
}

// None of the request's callbacks is called from here on.
void forgetRequest(ubus_context* ctx, ubus_request* req)
{
    if (!list_empty(&req->list))
        list_del_init(&req->list);
    for (RunningCallback* running = ctx->connection->running; running; running = running->outer) {
        if (running->req == req)
            running->req = nullptr;
    }
}

// The callback may free the request.
void endRequest(ubus_context* ctx, ubus_request* req, int status)
{
    forgetRequest(ctx, req);
    req->status_code = status;
    req->status_msg = true;
    if (req->complete_cb)
        req->complete_cb(req, status);
}

RunningCallback* findRunning(const ubus_context* ctx, const ubus_request* req)
{
    RunningCallback* running = ctx->connection->running;
    while (running && running->req != req)
        running = running->outer;
    return running;
}

void endWithStatus(ubus_context* ctx, ubus_request* req, Message* message)
{
    WireFields fields = readFields(rootOf(message));
    endRequest(ctx, req,
               fields.at[UBUS_ATTR_STATUS] ? static_cast<int>(numberIn(fields, UBUS_ATTR_STATUS))
                                           : static_cast<int>(UBUS_STATUS_INVALID_ARGUMENT));
}

void runDataCallbacks(RunningCallback& running, Message* message)
{
    if (running.req->raw_data_cb)
        running.req->raw_data_cb(running.req, message->type, rootOf(message));
    blob_attr* data = readFields(rootOf(message)).at[UBUS_ATTR_DATA];
    if (data && running.req && running.req->data_cb)
        running.req->data_cb(running.req, message->type, data);
}

// Hands data to the request's callbacks, then whatever arrived for it while they ran, so that a callback that waits for
// another request is not run inside itself.
void deliverData(ubus_context* ctx, ubus_request* req, Message* message)
{
    RunningCallback running{.req = req, .answers = {}, .endStatus = -1, .outer = ctx->connection->running};
    INIT_LIST_HEAD(&running.answers);
    ctx->connection->running = &running;
    while (message) {
        if (message->type == UBUS_MSG_STATUS)
            endWithStatus(ctx, running.req, message);
        else
            runDataCallbacks(running, message);
        releaseMessage(ctx, message);
        message = nullptr;
        if (running.req && !list_empty(&running.answers)) {
            message = list_first_entry(&running.answers, Message, list);
            list_del(&message->list);
        }
    }
    ctx->connection->running = running.outer;
    releaseMessages(ctx, &running.answers);
    if (running.req && running.endStatus >= 0)
        endRequest(ctx, running.req, running.endStatus);
}

int statusOfBrokenRequest(const ubus_request* req)
{
    return req->waited ? UBUS_STATUS_CONNECTION_FAILED : UBUS_STATUS_TIMEOUT;
}

void linkRequest(ubus_context* ctx, ubus_request* req)
{
    if (list_empty(&req->list))
        list_add(&req->list, &ctx->requests);
}

// Handles a STATUS or DATA message, and frees it or keeps it for later.
void answerRequest(ubus_context* ctx, Message* message)
{
    ubus_request* req = nullptr;
    list_for_each_entry (req, &ctx->requests, list) {
        if (req->seq != message->seq || req->peer != message->peer)
            continue;
        if (RunningCallback* running = findRunning(ctx, req)) {
            list_add_tail(&message->list, &running->answers);
            return;
        }
        if (message->type == UBUS_MSG_DATA) {
            deliverData(ctx, req, message);
            return;
        }
        endWithStatus(ctx, req, message);
        break;
    }
    releaseMessage(ctx, message);
}

// At the end of a waiting call: has what was queued handled and a loss reported, by the loop if the socket
// is in it. Nothing while another wait or a handler is under way. The context may be gone afterwards.
void settleAfterWait(ubus_context* ctx)
{
    if (ctx->stack_depth > 0 || (list_empty(&ctx->pending) && !ctx->connection->lostPending))
        return;
    if (ctx->sock.registered)
        uloop_timeout_set(&ctx->pending_timer, PENDING_DELAY_MS);
    else
        ctx->pending_timer.cb(&ctx->pending_timer);
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
    case UBUS_MSG_UNSUBSCRIBE:
    case UBUS_MSG_NOTIFY:
        list_add_tail(&message->list, &ctx->pending);
        break;
    default:
        releaseMessage(ctx, message);
        break;
    }
    --ctx->stack_depth;
}

void endAllRequests(ubus_context* ctx)
{
    ++ctx->stack_depth;
    for (RunningCallback* running = ctx->connection->running; running; running = running->outer) {
        if (!running->req)
            continue;
        running->endStatus = statusOfBrokenRequest(running->req);
        list_del_init(&running->req->list);
    }
    // A callback may end or abort any of them, and may reconnect and start others, which are not to be ended.
    list_head ending = LIST_HEAD_INIT(ending);
    while (!list_empty(&ctx->requests)) {
        ubus_request* req = list_first_entry(&ctx->requests, ubus_request, list);
        list_del(&req->list);
        list_add(&req->list, &ending); // the list holds the newest first
    }
    while (!list_empty(&ending)) {
        ubus_request* req = list_first_entry(&ending, ubus_request, list);
        endRequest(ctx, req, statusOfBrokenRequest(req));
    }
    --ctx->stack_depth;
}

int startRequest(ubus_context* ctx, ubus_request* req, ubus_msg_type type, uint32_t peer)
{
    initRequest(ctx, req);
    req->peer = peer;
    req->seq = ++ctx->request_seq;
    return sendMessage(ctx, static_cast<uint8_t>(type), req->seq, peer) ? UBUS_STATUS_OK : UBUS_STATUS_INVALID_ARGUMENT;
}

namespace {

// Waits for the request's end, the connection's, or that of the time.
void awaitEnd(ubus_context* ctx, const ubus_request* req, int timeoutMs)
{
    int64_t deadline = nowMs() + timeoutMs;
    while (!req->status_msg && !ctx->connection->broken) {
        int64_t remaining = timeoutMs == 0 ? -1 : deadline - nowMs();
        if (timeoutMs != 0 && remaining <= 0)
            return;
        if (Message* message = nextMessage(ctx))
            handleMessage(ctx, message);
        else if (!ctx->connection->broken)
            waitForSocket(ctx, POLLIN, static_cast<int>(remaining));
    }
    if (ctx->connection->broken)
        endAllRequests(ctx);
}

} // namespace

blob_buf* startCall(ubus_context* ctx, uint32_t obj, const char* method)
{
    blob_buf* buf = startMessage(ctx);
    if (!buf || !blob_put_u32(buf, UBUS_ATTR_OBJID, obj) || !blob_put_string(buf, UBUS_ATTR_METHOD, method))
        return nullptr;
    return buf;
}

int ubus_invoke_async_fd(ubus_context* ctx, uint32_t obj, const char* method, blob_attr* msg, ubus_request* req, int)
{
    initRequest(ctx, req);
    blob_buf* buf = startCall(ctx, obj, method);
    if (!buf || !putData(buf, msg))
        return UBUS_STATUS_INVALID_ARGUMENT;
    return startRequest(ctx, req, UBUS_MSG_INVOKE, obj);
}

int ubus_invoke_fd(ubus_context* ctx, uint32_t obj, const char* method, blob_attr* msg, ubus_data_handler_t cb,
                   void* priv, int timeout, int)
{
    ubus_request req;
    if (int status = ubus_invoke_async(ctx, obj, method, msg, &req))
        return status;
    req.data_cb = cb;
    req.priv = priv;
    return ubus_complete_request(ctx, &req, timeout);
}

void ubus_complete_request_async(ubus_context* ctx, ubus_request* req)
{
    if (req->status_msg)
        return;
    if (ctx->connection->broken)
        endRequest(ctx, req, UBUS_STATUS_TIMEOUT); // nothing else would ever end it
    else
        linkRequest(ctx, req);
}

int ubus_complete_request(ubus_context* ctx, ubus_request* req, int timeout)
{
    if (!req->status_msg)
        linkRequest(ctx, req);
    req->waited = true;
    ++ctx->stack_depth;
    awaitEnd(ctx, req, timeout);
    if (!req->status_msg)
        endRequest(ctx, req, ctx->connection->broken ? UBUS_STATUS_CONNECTION_FAILED : UBUS_STATUS_TIMEOUT);
    --ctx->stack_depth;
    ctx->cancel_poll = true;
    int status = req->status_code;
    settleAfterWait(ctx);
    return status;
}

void ubus_abort_request(ubus_context* ctx, ubus_request* req)
{
    forgetRequest(ctx, req);
}
