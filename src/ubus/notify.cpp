#include "ubus/notify.h"

#include "core/log.h"
#include "core/timer.h"
#include "core/worker.h"
#include "ubus/bus_adapter.h"
#include "ubus/method_reply.h"

#include <inttypes.h>
#include <poll.h>
#include <stdio.h>
#include <time.h>

namespace {

constexpr char TARGET_OBJECT[] = "CET";
constexpr char ALARM_EVENT[] = "motor_rotate_event";
constexpr uint32_t BUS_EVENT_OBJECT = 1; // the bus daemon's own object for events
constexpr int LOOKUP_ATTEMPTS = 10;
constexpr int64_t LOOKUP_PAUSE_NS = 100 * NS_PER_MS;
constexpr int64_t CALL_TIMEOUT_MS = 1000;

/// A short-lived connection on the default socket.
class BusConnection {
public:
    BusConnection() EXCLUDES(gContext.ubus.BusLock)
    {
        const BusGuard hold;
        connection_ = busConnect(nullptr);
    }
    ~BusConnection() EXCLUDES(gContext.ubus.BusLock)
    {
        if (!connection_)
            return;
        const BusGuard hold;
        busFree(connection_);
    }
    BusConnection(const BusConnection&) = delete;
    BusConnection& operator=(const BusConnection&) = delete;

    [[nodiscard]] ubus_context* get() const
    {
        return connection_;
    }

private:
    ubus_context* connection_ = nullptr;
};

/// A request under way. The library hands its callbacks the request, which is why that comes first.
struct BusCall {
    ubus_request request;
    bool complete;
    int status;
};

void onComplete(ubus_request* request, int status)
{
    auto* call = reinterpret_cast<BusCall*>(request);
    call->complete = true;
    call->status = status;
}

/// Waits for an asynchronous request, without BusLock: other threads do not wait for the answer.
/// @return the request's status, or UBUS_STATUS_TIMEOUT, or UBUS_STATUS_CONNECTION_FAILED.
int await(ubus_context* connection, BusCall& call) EXCLUDES(gContext.ubus.BusLock)
{
    const int64_t deadline = monotonicMs() + CALL_TIMEOUT_MS;
    int failure = UBUS_STATUS_TIMEOUT;
    for (;;) {
        const int64_t left = deadline - monotonicMs();
        if (left <= 0)
            break;
        pollfd socket{connection->sock.fd, POLLIN, 0};
        if (poll(&socket, 1, static_cast<int>(left)) <= 0)
            continue; // the time is up, or a signal came
        const BusGuard hold;
        busHandle(connection);
        if (call.complete)
            return call.status;
        if (connection->sock.eof || (socket.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) {
            failure = UBUS_STATUS_CONNECTION_FAILED;
            break;
        }
    }
    const BusGuard hold;
    if (!call.complete)
        busAbort(connection, &call.request);
    return failure;
}

/// Invokes a method and waits for its end. `onData` finds `result` as the request's private value.
int callAndWait(ubus_context* connection, uint32_t object, const char* method, blob_attr* message,
                ubus_data_handler_t onData, int32_t* result) EXCLUDES(gContext.ubus.BusLock)
{
    BusCall call{};
    {
        const BusGuard hold;
        const int status = busInvokeAsync(connection, object, method, message, &call.request, onData, onComplete);
        if (status != UBUS_STATUS_OK)
            return status;
        call.request.priv = result;
    }
    return await(connection, call);
}

/// Finds the target's id, trying again for about a second.
bool findTarget(ubus_context* connection, uint32_t& id) EXCLUDES(gContext.ubus.BusLock)
{
    for (int attempt = 1;; ++attempt) {
        {
            const BusGuard hold;
            if (busLookupId(connection, TARGET_OBJECT, id) == UBUS_STATUS_OK)
                return true;
        }
        if (attempt == LOOKUP_ATTEMPTS || workersStopping())
            return false;
        const timespec pause{0, LOOKUP_PAUSE_NS};
        nanosleep(&pause, nullptr);
    }
}

void receive_call_result_data(ubus_request* request, int, blob_attr* message)
{
    static const blobmsg_policy policy[] = {{"err_code", BLOBMSG_TYPE_INT32}};
    auto* result = static_cast<int32_t*>(request->priv);
    if (!result) {
        LOG_ERROR("Reciver ubus call result failed\n");
        return;
    }
    blob_attr* fields[1];
    (void)blobmsg_parse(policy, 1, fields, blob_data(message), static_cast<unsigned int>(blob_len(message)));
    if (!fields[0]) {
        LOG_ERROR("Reciver ubus call result failed\n");
        *result = -1;
        return;
    }
    *result = static_cast<int32_t>(blobmsg_get_u32(fields[0]));
}

/// A blob buffer that goes with its scope.
class LocalBuffer {
public:
    LocalBuffer() = default;
    ~LocalBuffer()
    {
        blob_buf_free(&buffer_);
    }
    LocalBuffer(const LocalBuffer&) = delete;
    LocalBuffer& operator=(const LocalBuffer&) = delete;

    [[nodiscard]] blob_buf& get()
    {
        return buffer_;
    }

private:
    blob_buf buffer_{};
};

/// Starts a message in a buffer. @return false without memory.
bool putArguments(blob_buf& buffer, const char* type)
{
    return blob_buf_init(&buffer, 0) == 0 && addString(buffer, "type", type);
}

bool putEvent(blob_buf& buffer, const char* action)
{
    if (blob_buf_init(&buffer, 0) != 0 || !addString(buffer, "id", ALARM_EVENT))
        return false;
    void* data = blobmsg_open_table(&buffer, "data");
    if (!data || !addString(buffer, "action", action))
        return false;
    blobmsg_close_table(&buffer, data);
    return true;
}

} // namespace

void motorNotifyState(int32_t state, int32_t origin)
{
    if (state != NOTIFY_IDLE && state != NOTIFY_MOVING)
        return;
    const bool moving = state == NOTIFY_MOVING;
    (void)ubusNotifyWithParam(moving ? "notify_motor_moving" : "notify_motor_idle", origin); // logged there
    if (origin != ORIGIN_TRACK)
        (void)ubus_send_alarm_event(moving ? "start" : "stop"); // logged there
}

int32_t ubusNotifyWithParam(const char* method, int32_t origin)
{
    const BusConnection connection;
    if (!connection.get()) {
        LOG_ERROR("ctx is NULL\n");
        return -1;
    }
    blob_buf& arguments = gContext.ubus.notifyBuf;
    char type[16];
    (void)snprintf(type, sizeof(type), "%" PRId32, origin);
    const bool put = putArguments(arguments, type);
    uint32_t object = 0;
    if (!findTarget(connection.get(), object)) {
        LOG_ERROR("%s ubus process not found\n", TARGET_OBJECT);
        return -1;
    }
    int32_t result = -1;
    const int status =
        put ? callAndWait(connection.get(), object, method, arguments.head, receive_call_result_data, &result)
            : UBUS_STATUS_UNKNOWN_ERROR;
    if (status != UBUS_STATUS_OK || result != 0) {
        LOG_ERROR("ubus call %s %s failed\n", TARGET_OBJECT, method);
        return -1;
    }
    LOG_TRACE("ubus call %s %s success\n", TARGET_OBJECT, method);
    return 0;
}

int32_t ubus_send_alarm_event(const char* action)
{
    const BusConnection connection;
    if (!connection.get()) {
        LOG_ERROR("ctx is NULL\n");
        return -1;
    }
    // The library's own call for events waits without a bound, with BusLock held; this is the message that it sends.
    LocalBuffer event;
    const int status = putEvent(event.get(), action)
                           ? callAndWait(connection.get(), BUS_EVENT_OBJECT, "send", event.get().head, nullptr, nullptr)
                           : UBUS_STATUS_UNKNOWN_ERROR;
    if (status != UBUS_STATUS_OK)
        LOG_ERROR("send event(%s %s) failed.\n", ALARM_EVENT, action);
    return status;
}
