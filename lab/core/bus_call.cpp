// Calls on the lab's bus from a process outside it.

#include "lab/lab.h"

#include "lab/socket_address.h"

#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <mutex>

extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubus.h>
}

namespace {

using Clock = std::chrono::steady_clock;

std::mutex gBusLibrary;

/// A connection, or null. Needs gBusLibrary, as its end does.
std::unique_ptr<ubus_context, decltype(&ubus_free)> connectTo(const std::string& socket)
{
    // The library makes itself at home in the process with the first connection; its signals stay ours.
    uloop_handle_sigchld = false;
    struct sigaction interrupt {};
    struct sigaction terminate {};
    sigaction(SIGINT, nullptr, &interrupt);
    sigaction(SIGTERM, nullptr, &terminate);
    ubus_context* connection = ubus_connect(SocketAddress(socket.c_str()).address.sun_path);
    sigaction(SIGINT, &interrupt, nullptr);
    sigaction(SIGTERM, &terminate, nullptr);
    return {connection, ubus_free};
}

struct Call {
    ubus_request request{};
    LabReply reply{UBUS_STATUS_OK, ""};
    bool ended = false;
};

void takeData(ubus_request* request, int, blob_attr* message)
{
    char* text = blobmsg_format_json(message, true);
    if (text)
        static_cast<Call*>(request->priv)->reply.text += text;
    free(text);
}

void takeEnd(ubus_request* request, int status)
{
    auto* call = static_cast<Call*>(request->priv);
    call->reply.status = status;
    call->ended = true;
}

/// Sends the call. A bus status; needs gBusLibrary.
int beginCall(ubus_context* context, Call& call, const std::string& object, const std::string& method,
              const std::string& json)
{
    uint32_t id = 0;
    int status = ubus_lookup_id(context, object.c_str(), &id);
    if (status == UBUS_STATUS_OK && id == 0)
        status = UBUS_STATUS_NOT_FOUND;
    if (status != UBUS_STATUS_OK)
        return status;
    blob_buf arguments{};
    blob_buf_init(&arguments, 0);
    if (!json.empty() && !blobmsg_add_json_from_string(&arguments, json.c_str()))
        status = UBUS_STATUS_INVALID_ARGUMENT;
    if (status == UBUS_STATUS_OK)
        status = ubus_invoke_async(context, id, method.c_str(), arguments.head, &call.request);
    blob_buf_free(&arguments);
    if (status != UBUS_STATUS_OK)
        return status;
    call.request.data_cb = takeData;
    call.request.complete_cb = takeEnd;
    call.request.priv = &call;
    ubus_complete_request_async(context, &call.request);
    return UBUS_STATUS_OK;
}

} // namespace

// A lock covers every use of the bus library, which is not safe across threads everywhere, but is not held while
// waiting, so calls of several threads run side by side.
LabReply LabBase::invoke(const std::string& object, const std::string& method, const std::string& json,
                         std::chrono::milliseconds timeout) const
{
    const auto deadline = Clock::now() + timeout;
    std::unique_lock hold(gBusLibrary);
    const auto connection = connectTo(busSocket());
    ubus_context* context = connection.get();
    if (!context)
        return {UBUS_STATUS_CONNECTION_FAILED, ""};
    Call call;
    const int status = beginCall(context, call, object, method, json);
    if (status != UBUS_STATUS_OK)
        return {status, ""};
    while (!call.ended && !context->sock.eof) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0)
            break;
        pollfd wait{context->sock.fd, POLLIN, 0};
        hold.unlock();
        poll(&wait, 1, static_cast<int>(std::min<int64_t>(left, 1000)));
        hold.lock();
        if (wait.revents != 0)
            ubus_handle_event(context);
    }
    if (!call.ended) {
        ubus_abort_request(context, &call.request);
        return {context->sock.eof ? UBUS_STATUS_CONNECTION_FAILED : UBUS_STATUS_TIMEOUT, ""};
    }
    return call.reply;
}
