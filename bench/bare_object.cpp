// What the daemon is measured against: objects on the same bus library whose replies have the daemon's shapes and who
// know nothing. "bare" answers at once; "bare_requests" makes the device requests and commits of the daemon first.

#include <fcntl.h>
#include <sys/ioctl.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>

extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
#include <libubus.h>
#include <uci.h>
}

namespace {

using Record = int32_t[5];

constexpr unsigned long GET_STATUS = _IOR(0xDE, 2, Record);
constexpr unsigned long SET_SPEED = _IOW(0xDE, 3, Record);
constexpr unsigned long MOVE = _IOW(0xDE, 5, Record);
constexpr unsigned long STOP = _IO(0xDE, 6);
constexpr int STEPS = 1; // word of the record
constexpr int POLL_MS = 50;
constexpr const char* BUS_SOCKET = PTZD_UBUS_SOCKET;
constexpr const char* PACKAGE = "bare"; // a copy of the daemon's own

int motors[2];
bool moving;
blob_buf reply;
uci_context* settings;
uci_package* package;

void requestBoth(unsigned long request, int32_t word = 0)
{
    for (const int motor : motors) {
        Record record{};
        record[request == MOVE ? STEPS + 1 : STEPS] = word;
        if (ioctl(motor, request, record) != 0)
            perror("motor");
    }
}

int send(ubus_context* bus, ubus_request_data* request)
{
    ubus_send_reply(bus, request, reply.head);
    return 0;
}

void code(const char* name)
{
    blob_buf_init(&reply, 0);
    blobmsg_add_u32(&reply, name, 0);
}

struct Field {
    const char* name;
    const char* text;
};

int sendTable(ubus_context* bus, ubus_request_data* request, const char* name, const Field* fields, size_t count)
{
    code("error_code");
    void* table = blobmsg_open_table(&reply, name);
    for (size_t i = 0; i < count; ++i)
        blobmsg_add_string(&reply, fields[i].name, fields[i].text);
    blobmsg_close_table(&reply, table);
    return send(bus, request);
}

constexpr Field CAPABILITY[] = {{"x_coord_min", "-150"},      {"x_coord_max", "150"}, {"y_coord_min", "-61"},
                                {"y_coord_max", "61"},        {"x_max_speed", "8"},   {"y_max_speed", "8"},
                                {"simultaneous", "disabled"}, {"preset", "enabled"},  {"calibrate", "enabled"}};
constexpr Field STATUS[] = {{"x_coord", "0"}, {"y_coord", "-6"}, {"x_speed", "0"}, {"y_speed", "0"}};

int getCapa(ubus_context* bus, ubus_object*, ubus_request_data* request, const char*, blob_attr*)
{
    return sendTable(bus, request, "capability", CAPABILITY, std::size(CAPABILITY));
}

int getStatus(ubus_context* bus, ubus_object*, ubus_request_data* request, const char*, blob_attr*)
{
    return sendTable(bus, request, "status", STATUS, std::size(STATUS));
}

int checkMotorStatus(ubus_context* bus, ubus_object*, ubus_request_data* request, const char*, blob_attr*)
{
    code("err_code");
    return send(bus, request);
}

int answer(ubus_context* bus, ubus_object*, ubus_request_data* request, const char*, blob_attr*)
{
    code("error_code");
    return send(bus, request);
}

int getStatusRequests(ubus_context* bus, ubus_object*, ubus_request_data* request, const char*, blob_attr*)
{
    requestBoth(GET_STATUS);
    return sendTable(bus, request, "status", STATUS, std::size(STATUS));
}

void change(const char* section, const char* option, const char* value)
{
    uci_ptr place{};
    place.package = PACKAGE;
    place.section = section;
    place.option = option;
    place.value = value;
    if (uci_lookup_ptr(settings, &place, nullptr, false) != 0 || uci_set(settings, &place) != 0)
        uci_perror(settings, "bare");
}

void commit()
{
    if (uci_save(settings, package) != 0 || uci_commit(settings, &package, false) != 0)
        uci_perror(settings, "bare");
}

int setConfigRequests(ubus_context* bus, ubus_object*, ubus_request_data* request, const char*, blob_attr* message)
{
    static constexpr blobmsg_policy POLICY[] = {{"x_speed", BLOBMSG_TYPE_STRING}};
    blob_attr* speed = nullptr;
    blobmsg_parse(POLICY, 1, &speed, blob_data(message), static_cast<unsigned>(blob_len(message)));
    const char* text = speed ? blobmsg_get_string(speed) : "4";
    requestBoth(SET_SPEED, static_cast<int32_t>(strtol(text, nullptr, 10)));
    change("x_motor", "speed", text);
    change("y_motor", "speed", text);
    commit();
    code("error_code");
    return send(bus, request);
}

/// What a motion's begin and end tell others: a call of "CET" and an event, each on a connection of its own.
void notify(const char* method, const char* action)
{
    blob_buf message{};
    blob_buf_init(&message, 0);
    blobmsg_add_string(&message, "type", "0");
    uint32_t id = 0;
    ubus_context* bus = ubus_connect(nullptr);
    if (!bus || ubus_lookup_id(bus, "CET", &id) != 0 ||
        ubus_invoke(bus, id, method, message.head, nullptr, nullptr, 1000) != 0)
        fprintf(stderr, "CET does not answer\n");
    if (bus)
        ubus_free(bus);
    blob_buf_init(&message, 0);
    blobmsg_add_string(&message, "action", action);
    bus = ubus_connect(nullptr);
    if (!bus || ubus_send_event(bus, "motor_rotate_event", message.head) != 0)
        fprintf(stderr, "the event cannot be sent\n");
    if (bus)
        ubus_free(bus);
    blob_buf_free(&message);
}

int drive(ubus_context* bus, ubus_request_data* request)
{
    notify("notify_motor_moving", "start");
    requestBoth(MOVE, 500);
    moving = true;
    code("error_code");
    return send(bus, request);
}

int moveTo(ubus_context* bus, ubus_object*, ubus_request_data* request, const char*, blob_attr*)
{
    return drive(bus, request);
}

int moveToRequests(ubus_context* bus, ubus_object*, ubus_request_data* request, const char*, blob_attr*)
{
    requestBoth(GET_STATUS);
    return drive(bus, request);
}

int stopAxes(ubus_context* bus, ubus_object*, ubus_request_data* request, const char*, blob_attr*)
{
    requestBoth(STOP);
    if (moving)
        notify("notify_motor_idle", "stop");
    moving = false;
    code("error_code");
    return send(bus, request);
}

void pollAxes(uloop_timeout* timer)
{
    requestBoth(GET_STATUS);
    uloop_timeout_set(timer, POLL_MS);
}

/// Reads both axes' status 20 times a second from now on, or no longer.
int pollOnOff(ubus_context* bus, ubus_object*, ubus_request_data* request, const char*, blob_attr*)
{
    static uloop_timeout timer{};
    timer.cb = pollAxes;
    if (timer.pending)
        uloop_timeout_cancel(&timer);
    else
        uloop_timeout_set(&timer, POLL_MS);
    code("error_code");
    return send(bus, request);
}

/// Stores a position as the daemon's save does.
int save(ubus_context* bus, ubus_object*, ubus_request_data* request, const char*, blob_attr*)
{
    change("x_motor", "steps", "1234");
    change("y_motor", "steps", "567");
    commit();
    code("error_code");
    return send(bus, request);
}

constexpr ubus_method method(const char* name, ubus_handler_t handler)
{
    ubus_method entry{};
    entry.name = name;
    entry.handler = handler;
    return entry;
}

const ubus_method REPLIES[] = {
    method("getCapa", getCapa), method("getStatus", getStatus), method("checkMotorStatus", checkMotorStatus),
    method("stop", answer),     method("setConfig", answer),    method("moveTo", moveTo)};
const ubus_method REQUESTS[] = {
    method("getStatus", getStatusRequests), method("stop", stopAxes),  method("setConfig", setConfigRequests),
    method("moveTo", moveToRequests),       method("poll", pollOnOff), method("save", save)};

ubus_object_type types[2];
ubus_object objects[2];

bool offer(ubus_context* bus, int index, const char* name, const ubus_method* methods, int count)
{
    types[index].name = name;
    types[index].methods = methods;
    types[index].n_methods = count;
    objects[index].name = name;
    objects[index].type = &types[index];
    objects[index].methods = methods;
    objects[index].n_methods = count;
    return ubus_add_object(bus, &objects[index]) == 0;
}

} // namespace

int main()
{
    motors[0] = open("/dev/x-motor", O_RDONLY | O_CLOEXEC);
    motors[1] = open("/dev/y-motor", O_RDONLY | O_CLOEXEC);
    settings = uci_alloc_context();
    if (motors[0] < 0 || motors[1] < 0 || !settings || uci_load(settings, PACKAGE, &package) != 0) {
        fprintf(stderr, "bare_object runs in a lab that the bench has prepared\n");
        return 1;
    }
    uloop_init();
    ubus_context* bus = ubus_connect(BUS_SOCKET);
    if (!bus || !offer(bus, 0, "bare", REPLIES, std::size(REPLIES)) ||
        !offer(bus, 1, "bare_requests", REQUESTS, std::size(REQUESTS))) {
        fprintf(stderr, "no bus\n");
        return 1;
    }
    ubus_add_uloop(bus);
    uloop_run();
    ubus_free(bus);
    uci_free_context(settings);
    uloop_done();
    return 0;
}
