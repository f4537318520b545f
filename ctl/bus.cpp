#define PTZD_BUS_ADAPTER
#include "bus.h"

#include "config/uci_store.h"
#include "core/result_code.h"

#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace {

constexpr char OBJECT[] = "ptzd";

ubus_context* gConnection;
uint32_t gObject;
ubus_subscriber gSubscriber;
NoteHandler* gOnNote;
bool gDaemonGone;
volatile sig_atomic_t gSignal;

struct PendingCall {
    bool ended;
    int status;
    blob_attr* answer; // a copy; the owner takes it
};

// The library waits for the bus daemon without a limit: connecting, looking up, subscribing.
class Watchdog {
public:
    Watchdog()
    {
        struct sigaction action = {};
        action.sa_handler = onAlarm;
        sigaction(SIGALRM, &action, nullptr);
        alarm(static_cast<unsigned>(options().timeoutMs + 999) / 1000);
    }
    ~Watchdog()
    {
        alarm(0);
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    static void onAlarm(int)
    {
        constexpr char text[] = "ptzctl: the bus does not answer: restart ubusd, or wait longer with -t SECONDS\n";
        (void)!write(STDERR_FILENO, text, sizeof(text) - 1); // nothing is left to do if that fails
        _exit(EXIT_TIMEOUT);
    }
};

void onSignal(int number)
{
    gSignal = number;
}

void setHandler(void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        sigaction(number, &action, nullptr);
}

/// Blocked but for the moments in which a wait looks at them, so that none comes between a look and a wait.
sigset_t blockSignals()
{
    sigset_t ours;
    sigset_t before;
    sigemptyset(&ours);
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&ours, number);
    sigprocmask(SIG_BLOCK, &ours, &before);
    return before;
}

blob_attr* copyOf(const blob_attr* message)
{
    const size_t size = blob_pad_len(message);
    void* copy = malloc(size);
    if (copy)
        memcpy(copy, message, size);
    return static_cast<blob_attr*>(copy);
}

void onAnswer(ubus_request* request, int, blob_attr* message)
{
    auto& call = *static_cast<PendingCall*>(request->priv);
    if (message && !call.answer)
        call.answer = copyOf(message);
}

void onComplete(ubus_request* request, int status)
{
    auto& call = *static_cast<PendingCall*>(request->priv);
    call.ended = true;
    call.status = status;
}

int onNotification(ubus_context*, ubus_object*, ubus_request_data*, const char* type, blob_attr* message)
{
    if (gOnNote && message && strcmp(type, "motion") == 0)
        gOnNote(message);
    return UBUS_STATUS_OK;
}

void onPublisherGone(ubus_context*, ubus_subscriber*, uint32_t id)
{
    gDaemonGone = gDaemonGone || id == gObject;
}

void onConnectionLost(ubus_context*)
{
    // seen at the descriptor
}

int32_t codeIn(blob_attr* fields)
{
    for (const char* name : {"error_code", "err_code"})
        if (const blob_attr* code = fieldOf(fields, name, BLOBMSG_TYPE_INT32))
            return static_cast<int32_t>(blobmsg_get_u32(code));
    return 0;
}

/// Waits for the end of a call.
CallEnd awaitEnd(const PendingCall& call)
{
    const int64_t deadline = nowMs() + options().timeoutMs;
    while (!call.ended) {
        switch (waitForMessage(deadline)) {
        case Wake::Handled:
        case Wake::NoReader:
            break;
        case Wake::Deadline:
            return CallEnd::NotAnswered;
        case Wake::Lost:
            return CallEnd::Lost;
        case Wake::Signal:
            return CallEnd::Signal;
        }
        if (gDaemonGone && !call.ended)
            return CallEnd::Lost;
    }
    return call.status == UBUS_STATUS_OK          ? CallEnd::Answered
           : call.status == UBUS_STATUS_NOT_FOUND ? CallEnd::NoSuchObject
                                                  : CallEnd::Refused;
}

} // namespace

Message::Message()
{
    blob_buf_init(&buffer_, 0);
}

Message::~Message()
{
    blob_buf_free(&buffer_);
}

Message& Message::text(const char* name, const char* value)
{
    if (blobmsg_add_string(&buffer_, name, value) != 0)
        die(EXIT_OTHER, "out of memory");
    return *this;
}

Message& Message::number(const char* name, int32_t value)
{
    char digits[16];
    (void)snprintf(digits, sizeof(digits), "%d", value);
    return text(name, digits);
}

int64_t nowMs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

bool tryConnect(bool& busThere)
{
    const Watchdog watchdog;
    if (gConnection)
        ubus_free(gConnection);
    gSubscriber = {};
    gObject = 0;
    gDaemonGone = false;
    gConnection = ubus_connect(options().socket);
    busThere = gConnection != nullptr;
    if (!busThere)
        return false;
    uloop_done(); // connecting has taken SIGINT and SIGTERM over, for an event loop that is not used here
    gConnection->connection_lost = onConnectionLost;
    (void)ubus_lookup_id(gConnection, OBJECT, &gObject); // left alone when there is none
    return gObject != 0;
}

void connectToDaemon()
{
    if (gObject != 0)
        return;
    bool busThere = false;
    if (tryConnect(busThere))
        return;
    if (!busThere)
        die(EXIT_NO_BUS, "there is no bus at %s: is ubusd running? (-s SOCKET names another one)", options().socket);
    die(EXIT_NO_DAEMON, "ptzd is not on the bus: start it, or wait until it has started");
}

CallEnd tryCall(const char* method, Message& arguments, Reply& reply)
{
    PendingCall call{};
    ubus_request request{};
    if (ubus_invoke_async(gConnection, gObject, method, arguments.content(), &request) != UBUS_STATUS_OK)
        return CallEnd::Lost;
    request.data_cb = onAnswer;
    request.complete_cb = onComplete;
    request.priv = &call;
    ubus_complete_request_async(gConnection, &request);
    const CallEnd end = awaitEnd(call);
    if (!call.ended)
        ubus_abort_request(gConnection, &request);
    reply.fields.reset(call.answer);
    reply.busStatus = call.status;
    reply.code = reply.fields ? codeIn(reply.fields.get()) : 0;
    return end;
}

void dieOfCall(CallEnd end, const char* method, const Reply& reply)
{
    switch (end) {
    case CallEnd::NotAnswered:
        die(EXIT_TIMEOUT, "ptzd has not answered %s within %g s: wait longer with -t SECONDS, or restart it", method,
            options().timeoutMs / 1000.0);
    case CallEnd::NoSuchObject:
        die(EXIT_NO_DAEMON, "ptzd has left the bus: start it again");
    case CallEnd::Lost:
        die(EXIT_LOST, "bus or ptzd went away during %s: look at `ptzctl status`", method);
    case CallEnd::Signal:
        quit(EXIT_BY_SIGNAL + gSignal);
    case CallEnd::Answered:
    case CallEnd::Refused:
        break;
    }
    if (reply.busStatus == UBUS_STATUS_METHOD_NOT_FOUND)
        die(EXIT_OTHER, "this ptzd does not know %s: install the one that ptzctl came with", method);
    die(EXIT_OTHER, "the bus refused %s: %s", method, ubus_strerror(reply.busStatus));
}

Reply callMethod(const char* method, Message& arguments)
{
    connectToDaemon();
    Reply reply;
    if (const CallEnd end = tryCall(method, arguments, reply); end != CallEnd::Answered)
        dieOfCall(end, method, reply);
    return reply;
}

CodeMeaning meaningOf(int32_t code)
{
    constexpr struct {
        int32_t code;
        CodeMeaning meaning;
    } CODES[] = {
        {ERR_DEVICE, {EXIT_DEVICE, "a motor failed, or a setting cannot be read: look into ptzd's log"}},
        {ERR_PARAM, {EXIT_ARGUMENT, "ptzd refused an argument: it is out of range now"}},
        {ERR_CALIBRATING,
         {EXIT_CALIBRATING,
          "the motors are being calibrated, or move: try again when `ptzctl status` says \"at rest\""}},
        {ERR_NO_TRAVEL, {EXIT_LIMIT, "the head is at the end of its travel: move the other way"}},
        {ERR_MOVING, {EXIT_CALIBRATING, "the head moves: try again when it rests"}},
        {ERR_NO_PRESET_LEFT, {EXIT_ARGUMENT, "all presets are taken: delete one, or name the one to overwrite"}},
        {ERR_NAME_LENGTH, {EXIT_ARGUMENT, "the name is too long: at most 32 bytes"}},
        {ERR_READ_ONLY, {EXIT_ARGUMENT, "that preset cannot be changed: take another one"}},
        {ERR_SPEED_FACTOR, {EXIT_ARGUMENT, "the speed is a fraction above 0, up to 1"}},
        {ERR_PRESET_ID, {EXIT_ARGUMENT, "there is no such preset: `ptzctl preset list` shows them"}},
        {ERR_LENS_MASK, {EXIT_MASKED, "the lens mask is on: `ptzctl mask off` first"}},
        {ERR_PANORAMA, {EXIT_PANORAMA, "a panorama runs: `ptzctl panorama stop` first"}},
        {-ERR_DEVICE, {EXIT_OTHER, "ptzd could not store the plan: look at the space left in /etc/config"}},
        {-ERR_PARAM, {EXIT_ARGUMENT, "ptzd refused the plan"}},
        {CFG_UCI_FAILED, {EXIT_OTHER, "ptzd could not store the change: look at the space left in /etc/config"}},
    };
    for (const auto& known : CODES)
        if (known.code == code)
            return known.meaning;
    return {EXIT_OTHER, nullptr};
}

void dieUnlessDone(int32_t code)
{
    if (code == RESULT_OK)
        return;
    const CodeMeaning meaning = meaningOf(code);
    if (meaning.text)
        die(meaning.status, "%s", meaning.text);
    die(meaning.status, "ptzd answered the unknown code %d", code);
}

Reply command(const char* method, Message& arguments)
{
    Reply reply = callMethod(method, arguments);
    if (options().json)
        printJson(reply.fields.get());
    dieUnlessDone(reply.code);
    return reply;
}

Reply command(const char* method)
{
    Message nothing;
    return command(method, nothing);
}

Owned<char> jsonOf(blob_attr* fields)
{
    return Owned<char>(fields ? blobmsg_format_json(fields, true) : nullptr);
}

void printJson(blob_attr* fields)
{
    const Owned<char> text = jsonOf(fields);
    printf("%s\n", text ? text.get() : "{}");
}

blob_attr* fieldOf(blob_attr* table, const char* name, int type)
{
    blob_attr* field = nullptr;
    size_t rest = 0;
    if (!table)
        return nullptr;
    blobmsg_for_each_attr (field, table, rest) {
        if (!blobmsg_check_attr(field, true))
            return nullptr;
        if (strcmp(blobmsg_name(field), name) == 0)
            return blobmsg_type(field) == type ? field : nullptr;
    }
    return nullptr;
}

const char* textOf(blob_attr* table, const char* name, const char* otherwise)
{
    const blob_attr* field = fieldOf(table, name, BLOBMSG_TYPE_STRING);
    return field ? blobmsg_get_string(field) : otherwise;
}

Wake waitForMessage(int64_t deadlineMs, bool watchOutput)
{
    const sigset_t during = blockSignals();
    Wake wake = Wake::Deadline;
    if (gSignal != 0) {
        wake = Wake::Signal;
    } else {
        pollfd watched[] = {{gConnection->sock.fd, POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
        const int64_t left = std::clamp<int64_t>(deadlineMs - nowMs(), 0, INT32_MAX);
        const timespec limit = {static_cast<time_t>(left / 1000), static_cast<long>(left % 1000) * 1'000'000};
        const int ready = ppoll(watched, watchOutput ? 2 : 1, &limit, &during);
        if (ready < 0)
            wake = gSignal != 0 ? Wake::Signal : Wake::Handled;
        else if (watched[0].revents != 0)
            wake = Wake::Handled;
        else if (watched[1].revents != 0)
            wake = Wake::NoReader;
        if (ready > 0 && watched[0].revents != 0)
            ubus_handle_event(gConnection);
    }
    sigprocmask(SIG_SETMASK, &during, nullptr);
    return wake == Wake::Handled && gConnection->sock.eof ? Wake::Lost : wake;
}

bool trySubscribe(NoteHandler* onNote)
{
    const Watchdog watchdog;
    gOnNote = onNote;
    gSubscriber.cb = onNotification;
    gSubscriber.remove_cb = onPublisherGone;
    return ubus_register_subscriber(gConnection, &gSubscriber) == UBUS_STATUS_OK &&
           ubus_subscribe(gConnection, &gSubscriber, gObject) == UBUS_STATUS_OK;
}

void subscribe(NoteHandler* onNote)
{
    connectToDaemon();
    if (!trySubscribe(onNote))
        die(EXIT_OTHER, "the bus does not let us hear of the head's motions: run ptzctl as root, or without --wait");
}

bool daemonGone()
{
    return gDaemonGone;
}

void catchSignals()
{
    setHandler(onSignal);
}

void releaseSignals()
{
    gSignal = 0;
    setHandler(SIG_DFL);
}

int caughtSignal()
{
    return gSignal;
}
