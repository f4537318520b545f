// The bus library: a client that does what the input says, with a bus daemon that has sent anything already and hung
// up.

#include "bus_message.h"
#include "fuzz.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <deque>

extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubus.h>
}
#undef fallthrough // spoils [[fallthrough]]

namespace {

constexpr size_t MAX_STREAM = 150000; // what a socket takes at once
constexpr int MAX_DEPTH = 3;          // of calls from inside callbacks
constexpr int WAIT_MS = 20;
const std::vector<uint8_t> GREETING = {0, MSG_HELLO, 0, 0, 0, 2, 0, 1, 0, 0, 0, 4};
const std::vector<uint32_t> KNOWN_IDS = {0x10001, 0x10002, 0x10003, 1, 0};

std::deque<std::vector<uint8_t>> streams; // what the connections to come will have received

/// The bytes of each connection to come, from what is left of an input.
void readStreams(Input& input)
{
    streams.assign(1, {});
    if (input.byte() % 8 != 7)
        streams.back() = GREETING;
    while (!input.empty()) {
        enum Item { RAW, MESSAGE, REPEATED, NEXT_CONNECTION, ITEM_COUNT };
        const int item = input.byte() % ITEM_COUNT;
        if (item == NEXT_CONNECTION) {
            streams.push_back(GREETING);
            continue;
        }
        int count = item == REPEATED ? input.byte() : 1;
        const Bytes raw = item == RAW ? input.block() : Bytes{};
        const auto bytes = item == RAW ? std::vector(raw.begin(), raw.end()) : busMessage(input, KNOWN_IDS);
        for (std::vector<uint8_t>& stream = streams.back(); count > 0 && stream.size() < MAX_STREAM; --count)
            stream.insert(stream.end(), bytes.begin(), bytes.end());
    }
}

struct Request {
    ubus_request record;
    bool active;
};

/// The client of one input.
struct Client {
    ubus_context* ctx = nullptr;
    Input choices{Bytes{}}; // what its callbacks do
    int depth = 0;
    std::array<ubus_method, 3> methods{};
    ubus_object_type type{};
    ubus_object object{};
    ubus_event_handler handler{};
    std::array<Request, 4> requests{};
    std::vector<ubus_request_data> deferred;
};
Client client;

void act(uint8_t what);

/// What a callback does besides looking at what it was given.
void actInside()
{
    if (client.depth >= MAX_DEPTH || client.choices.empty())
        return;
    ++client.depth;
    act(client.choices.byte());
    --client.depth;
}

constexpr blobmsg_policy POLICY[] = {{"a", BLOBMSG_TYPE_STRING}, {"b", BLOBMSG_TYPE_INT32}};

void look(blob_attr* message)
{
    free(blobmsg_format_json(message, true));
    blob_attr* found[std::size(POLICY)];
    (void)blobmsg_parse(POLICY, std::size(POLICY), found, blob_data(message), static_cast<unsigned>(blob_len(message)));
}

size_t lengthOf(const char* text)
{
    return text ? strlen(text) : 0;
}

int onCall(ubus_context* ctx, ubus_object*, ubus_request_data* request, const char* method, blob_attr* message)
{
    look(message);
    actInside();
    const size_t length = lengthOf(method) + lengthOf(request->acl.user) + lengthOf(request->acl.group);
    if (length % 3 == 0) {
        client.deferred.emplace_back();
        ubus_defer_request(ctx, request, &client.deferred.back());
    } else {
        (void)ubus_send_reply(ctx, request, message);
    }
    return static_cast<int>(length % 2);
}

void onEvent(ubus_context*, ubus_event_handler*, const char* name, blob_attr* message)
{
    RIG_CHECK(name && lengthOf(name) < MAX_STREAM, "an event without a name\n");
    look(message);
    actInside();
}

void onFound(ubus_context*, ubus_object_data* found, void*)
{
    RIG_CHECK(found->path && lengthOf(found->path) < MAX_STREAM, "an object without a path\n");
    blob_attr* method = nullptr;
    size_t rest = 0;
    if (found->signature) {
        blob_for_each_attr (method, found->signature, rest) {
            free(blobmsg_format_json(method, false));
        }
    }
    actInside();
}

Request& requestOf(ubus_request* record)
{
    return *reinterpret_cast<Request*>(record);
}

void onData(ubus_request* record, int, blob_attr* message)
{
    RIG_CHECK(requestOf(record).active, "data after the end\n");
    look(message);
    actInside();
}

void onComplete(ubus_request* record, int)
{
    RIG_CHECK(requestOf(record).active, "ended twice\n");
    requestOf(record).active = false;
    actInside();
}

void onLost(ubus_context* ctx)
{
    if (client.choices.byte() % 2 == 1)
        (void)ubus_reconnect(ctx, nullptr);
    uloop_end();
}

void invokeLater()
{
    const auto request = std::ranges::find(client.requests, false, &Request::active);
    if (request == client.requests.end() ||
        ubus_invoke_async(client.ctx, KNOWN_IDS[0], "later", nullptr, &request->record) != UBUS_STATUS_OK)
        return;
    request->active = true;
    request->record.data_cb = onData;
    request->record.complete_cb = onComplete;
    ubus_complete_request_async(client.ctx, &request->record);
}

void loop()
{
    uloop_timeout end{};
    end.cb = [](uloop_timeout*) { uloop_end(); };
    if (!client.ctx->sock.eof)
        ubus_add_uloop(client.ctx);
    uloop_timeout_set(&end, 1);
    uloop_run();
    uloop_timeout_cancel(&end);
    if (client.ctx->sock.registered)
        uloop_fd_delete(&client.ctx->sock);
}

constexpr void (*ACTIONS[])(ubus_context* ctx, bool odd) = {
    [](ubus_context* ctx, bool) { (void)ubus_add_object(ctx, &client.object); },
    [](ubus_context* ctx, bool) { (void)ubus_remove_object(ctx, &client.object); },
    [](ubus_context* ctx, bool odd) { (void)ubus_lookup(ctx, odd ? nullptr : "*", onFound, nullptr); },
    [](ubus_context* ctx, bool) {
        uint32_t id = 0;
        (void)ubus_lookup_id(ctx, "other", &id);
    },
    [](ubus_context* ctx, bool) {
        const auto onAnyData = [](ubus_request*, int, blob_attr* message) {
            look(message);
            actInside();
        };
        (void)ubus_invoke(ctx, KNOWN_IDS[1], "method", nullptr, onAnyData, nullptr, WAIT_MS);
    },
    [](ubus_context*, bool) { invokeLater(); },
    [](ubus_context* ctx, bool) { ubus_handle_event(ctx); },
    [](ubus_context* ctx, bool) { (void)ubus_register_event_handler(ctx, &client.handler, "event*"); },
    [](ubus_context* ctx, bool) { (void)ubus_unregister_event_handler(ctx, &client.handler); },
    [](ubus_context* ctx, bool) { (void)ubus_send_event(ctx, "event", nullptr); },
    [](ubus_context* ctx, bool) {
        for (Request& request : client.requests) {
            if (request.active)
                ubus_abort_request(ctx, &request.record);
            request.active = false;
        }
    },
    [](ubus_context* ctx, bool) {
        for (Request& request : client.requests)
            if (request.active)
                (void)ubus_complete_request(ctx, &request.record, WAIT_MS);
    },
    [](ubus_context* ctx, bool) {
        for (; !client.deferred.empty(); client.deferred.pop_back())
            ubus_complete_deferred_request(ctx, &client.deferred.back(), UBUS_STATUS_NOT_FOUND);
    },
    [](ubus_context* ctx, bool) { (void)(client.depth == 0 && ubus_reconnect(ctx, nullptr) == 0); },
    [](ubus_context*, bool) {
        if (client.depth == 0)
            loop();
    },
};

void act(uint8_t what)
{
    ACTIONS[what % std::size(ACTIONS)](client.ctx, what % 2 == 1);
}

void live(Bytes actions)
{
    client.methods[0] = UBUS_METHOD_NOARG("first", onCall);
    client.methods[1] = UBUS_METHOD("second", onCall, POLICY);
    client.methods[2] = UBUS_METHOD_NOARG(nullptr, onCall);
    client.type.methods = client.object.methods = client.methods.data();
    client.type.n_methods = 2;
    client.object.name = "fuzz";
    client.object.type = &client.type;
    client.object.n_methods = static_cast<int>(client.methods.size());
    client.handler.cb = onEvent;
    client.ctx = ubus_connect("/nowhere");
    if (!client.ctx)
        return;
    client.ctx->connection_lost = onLost;
    for (const uint8_t action : actions)
        act(action);
    ubus_handle_event(client.ctx);
    ubus_free(client.ctx);
}

} // namespace

// In the place of the system's calls, which the library takes from the program.

/// Gives the socket a peer that has sent the next stream and hung up.
extern "C" int connect(int fd, const sockaddr*, socklen_t)
{
    int pair[2];
    if (streams.empty() || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
        errno = ECONNREFUSED;
        return -1;
    }
    const std::vector<uint8_t>& bytes = streams.front();
    (void)send(pair[0], bytes.data(), bytes.size(), MSG_DONTWAIT);
    close(pair[0]);
    streams.pop_front();
    dup2(pair[1], fd);
    close(pair[1]);
    return 0;
}

/// Looks at the message that the client sends, and takes it.
extern "C" ssize_t sendmsg(int, const msghdr* message, int)
{
    std::vector<uint8_t> bytes;
    for (const iovec& part : std::span(message->msg_iov, message->msg_iovlen)) {
        const auto* begin = static_cast<const uint8_t*>(part.iov_base);
        bytes.insert(bytes.end(), begin, begin + part.iov_len);
    }
    RIG_CHECK(bytes.size() >= FRAME_SIZE && bytes[0] == 0, "no message\n");
    RIG_CHECK(readU32(&bytes[HEADER_SIZE]) == bytes.size() - HEADER_SIZE, "a wrong length\n");
    Bytes attributes = Bytes(bytes).subspan(FRAME_SIZE);
    for (Attribute attribute; takeAttribute(attributes, attribute);) {
    }
    RIG_CHECK(attributes.empty(), "%zu bytes that are no attribute\n", attributes.size());
    return static_cast<ssize_t>(bytes.size());
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    client = {};
    Input input(data, size);
    const Bytes actions = input.bytes(input.byte() % 32);
    client.choices = Input(input.bytes(input.byte() % 32));
    readStreams(input);
    live(actions);
    uloop_done();
    return 0;
}
