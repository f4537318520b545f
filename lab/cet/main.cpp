// The object "CET" of a lab: takes the head's notifications, answers as the state says, and records them together with
// the head's events in DIR/cet.log.

#include "lab/clock.h"
#include "lab/state_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubus.h>
}

namespace {

constexpr int RETRY_MS = 50;
constexpr int32_t WRONG_CODE = 5;
constexpr const char* EVENT = "motor_rotate_event";

std::string gFolder;
LabState* gState;
ubus_context* gBus;
uloop_timeout gRetry{};
ubus_event_handler gListener{};

const blobmsg_policy TYPE_POLICY[] = {{.name = "type", .type = BLOBMSG_TYPE_STRING}};
const blobmsg_policy ACTION_POLICY[] = {{.name = "action", .type = BLOBMSG_TYPE_STRING}};

std::string textField(const blobmsg_policy& policy, blob_attr* message)
{
    blob_attr* field = nullptr;
    blobmsg_parse(&policy, 1, &field, blob_data(message), static_cast<unsigned>(blob_len(message)));
    const char* text = field ? blobmsg_get_string(field) : "";
    return *text ? text : "-";
}

void record(const char* kind, const char* name, const std::string& text)
{
    const int64_t now = monotonicNs();
    char line[512];
    const int length = snprintf(line, sizeof(line), "%" PRId64 " %" PRId64 " %s %s %s\n", now - gState->startNs,
                                labTimeAt(readClock(*gState), now), kind, name, text.c_str());
    const int fd = open((gFolder + "/cet.log").c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0 || length < 0 || length >= static_cast<int>(sizeof(line)) ||
        write(fd, line, static_cast<size_t>(length)) < 0)
        fprintf(stderr, "CET: cannot record %s %s\n", kind, name);
    if (fd >= 0)
        close(fd);
}

void answer(ubus_context* bus, ubus_request_data* request, LabCetMode mode)
{
    blob_buf reply{};
    blob_buf_init(&reply, 0);
    if (mode != CET_NO_CODE)
        blobmsg_add_u32(&reply, "err_code", mode == CET_WRONG ? WRONG_CODE : 0);
    ubus_send_reply(bus, request, reply.head);
    blob_buf_free(&reply);
}

/// A call whose answer is kept back; deletes itself once it has answered.
struct LateAnswer {
    uloop_timeout timer{};
    ubus_context* bus = nullptr;
    ubus_request_data request{};
    uint32_t connection = 0; // the bus's name for ours: an answer makes no sense on a later connection
};

void answerLate(uloop_timeout* timer)
{
    const std::unique_ptr<LateAnswer> late(reinterpret_cast<LateAnswer*>(timer)); // its first member
    if (late->bus->local_id != late->connection)
        return;
    answer(late->bus, &late->request, CET_OK);
    ubus_complete_deferred_request(late->bus, &late->request, UBUS_STATUS_OK);
}

int takeNotification(ubus_context* bus, ubus_object*, ubus_request_data* request, const char* method,
                     blob_attr* message)
{
    record("call", method, textField(TYPE_POLICY[0], message));
    const auto mode = static_cast<LabCetMode>(gState->cetMode.load());
    if (mode == CET_SILENT) {
        ubus_request_data never{};
        ubus_defer_request(bus, request, &never);
    } else if (mode == CET_LATE) {
        auto late = std::make_unique<LateAnswer>();
        late->bus = bus;
        late->connection = bus->local_id;
        late->timer.cb = answerLate;
        ubus_defer_request(bus, request, &late->request);
        uloop_timeout_set(&late.release()->timer, gState->cetDelayMs.load());
    } else {
        answer(bus, request, mode);
    }
    return UBUS_STATUS_OK;
}

const ubus_method METHODS[] = {
    UBUS_METHOD("notify_motor_idle", takeNotification, TYPE_POLICY),
    UBUS_METHOD("notify_motor_moving", takeNotification, TYPE_POLICY),
};
ubus_object_type gType{};
ubus_object gObject{};

void takeEvent(ubus_context*, ubus_event_handler*, const char* type, blob_attr* message)
{
    record("event", type, textField(ACTION_POLICY[0], message));
}

/// Registers what is not registered yet, and adds the connection to the loop. False: try again later.
bool enlist()
{
    if (gObject.id == 0 && ubus_add_object(gBus, &gObject) != UBUS_STATUS_OK)
        return false;
    if (ubus_register_event_handler(gBus, &gListener, EVENT) != UBUS_STATUS_OK)
        return false;
    ubus_add_uloop(gBus);
    return true;
}

void onLost(ubus_context*)
{
    uloop_timeout_set(&gRetry, RETRY_MS);
}

void connectToBus(uloop_timeout* timer)
{
    const bool first = !gBus;
    if (first)
        gBus = ubus_connect(LAB_BUS_SOCKET);
    const bool connected = first ? gBus != nullptr : ubus_reconnect(gBus, LAB_BUS_SOCKET) == UBUS_STATUS_OK;
    if (connected)
        gBus->connection_lost = onLost;
    if (!connected || !enlist())
        uloop_timeout_set(timer, RETRY_MS);
}

} // namespace

int main()
{
    const char* folder = getenv("PTZD_LAB");
    gState = folder ? mapLabState(folder) : nullptr;
    if (!gState) {
        fprintf(stderr, "lab_cet: PTZD_LAB must name the folder of a lab\n");
        return 2;
    }
    gFolder = folder;
    gType.name = "cet";
    gType.methods = METHODS;
    gType.n_methods = 2;
    gObject.name = "CET";
    gObject.type = &gType;
    gObject.methods = METHODS;
    gObject.n_methods = 2;
    gListener.cb = takeEvent;
    gRetry.cb = connectToBus;
    uloop_init();
    connectToBus(&gRetry);
    uloop_run();
    if (gBus)
        ubus_free(gBus);
    uloop_done();
    return 0;
}
