// The bus library: a client that does what the input says, with a bus daemon that has sent anything already and hung
// up. An input: what to do and what its callbacks do, each behind its length; then what the daemon sent, a run of
// blocks with how often each comes. A zero in that place begins the next connection.

#include "fuzz.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <deque>
#include <utility>
#include <vector>

extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubus.h>
}

namespace {

constexpr size_t MAX_STREAM = 150000; // what a socket takes at once
constexpr int MAX_DEPTH = 3;          // of calls from inside callbacks
constexpr int WAIT_MS = 20;
constexpr uint32_t OTHER = 0x10001; // whom it calls
const std::vector<uint8_t> GREETING = {0, UBUS_MSG_HELLO, 0, 0, 0, 2, 0, 1, 0, 0, 0, 4};

std::deque<std::vector<uint8_t>> streams; // what the connections to come will have received

void readStreams(Input& input)
{
    streams.assign(1, {});
    if (input.byte() % 8 != 7)
        streams.back() = GREETING;
    while (!input.empty()) {
        int count = input.byte();
        if (count == 0) {
            streams.push_back(GREETING);
            continue;
        }
        const Bytes block = input.block();
        for (std::vector<uint8_t>& stream = streams.back(); count > 0 && stream.size() < MAX_STREAM; --count)
            stream.insert(stream.end(), block.begin(), block.end());
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
    ubus_object_type type{};
    ubus_object object{};
    ubus_event_handler handler{};
    ubus_subscriber subscriber{};
    std::array<Request, 4> requests{};
    std::vector<ubus_request_data> deferred;
};
Client client;

void act(uint8_t what);

constexpr blobmsg_policy POLICY[] = {
    {"a", BLOBMSG_TYPE_UNSPEC}, {"b", BLOBMSG_TYPE_ARRAY}, {"c", BLOBMSG_TYPE_TABLE},  {"d", BLOBMSG_TYPE_STRING},
    {"e", BLOBMSG_TYPE_INT64},  {"f", BLOBMSG_TYPE_INT32}, {"g", BLOBMSG_TYPE_INT16},  {"h", BLOBMSG_TYPE_INT8},
    {"i", BLOBMSG_TYPE_DOUBLE}, {"j", BLOBMSG_CAST_INT64}, {"a", BLOBMSG_TYPE_STRING},
};

/// Reads all of a message, in a copy as long as it is, so that a byte read behind it is found.
void readAll(const blob_attr* message)
{
    const auto* first = reinterpret_cast<const uint8_t*>(message);
    std::vector<uint8_t> bytes(first, first + sizeof(blob_attr) + blob_len(message));
    auto* copy = reinterpret_cast<blob_attr*>(bytes.data());
    blob_attr* found[std::size(POLICY)];
    (void)blobmsg_parse(POLICY, std::size(POLICY), found, blob_data(copy), static_cast<unsigned>(blob_len(copy)));
    for (size_t i = 0; i < std::size(POLICY); ++i) {
        const int wanted = POLICY[i].type, type = found[i] ? blobmsg_type(found[i]) : wanted;
        const bool number = type >= BLOBMSG_TYPE_INT64 && type <= BLOBMSG_TYPE_INT8;
        RIG_CHECK(wanted == BLOBMSG_TYPE_UNSPEC || wanted == type || (wanted == BLOBMSG_CAST_INT64 && number),
                  "entry %zu: type %d\n", i, type);
    }
    for (char* text : {blobmsg_format_json(copy, true), blobmsg_format_json_indent(copy, true, 0)}) {
        RIG_CHECK(text, "no text\n");
        free(text);
    }
}

/// What a callback does: reads the message, and acts again.
void look(blob_attr* message)
{
    if (message)
        readAll(message);
    if (client.depth >= MAX_DEPTH || client.choices.empty())
        return;
    ++client.depth;
    act(client.choices.byte());
    --client.depth;
}

size_t lengthOf(const char* text)
{
    return text ? strlen(text) : 0;
}

int onCall(ubus_context* ctx, ubus_object*, ubus_request_data* request, const char* method, blob_attr* message)
{
    look(message);
    const size_t length = lengthOf(method) + lengthOf(request->acl.user) + lengthOf(request->acl.group);
    if (length % 3 == 0) {
        client.deferred.emplace_back();
        ubus_defer_request(ctx, request, &client.deferred.back());
    } else {
        (void)ubus_send_reply(ctx, request, message);
    }
    return static_cast<int>(length % 2);
}

const ubus_method METHODS[] = {UBUS_METHOD_NOARG("first", onCall), UBUS_METHOD("second", onCall, POLICY),
                               UBUS_METHOD_NOARG(nullptr, onCall)};

void onFound(ubus_context*, ubus_object_data* found, void*)
{
    RIG_CHECK(found->path && lengthOf(found->path) < MAX_STREAM, "an object without a path\n");
    look(found->signature);
}

void onData(ubus_request* record, int, blob_attr* message)
{
    RIG_CHECK(reinterpret_cast<Request*>(record)->active, "data after the end\n");
    look(message);
}

void onComplete(ubus_request* record, int)
{
    RIG_CHECK(std::exchange(reinterpret_cast<Request*>(record)->active, false), "ended twice\n");
    look(nullptr);
}

void onLost(ubus_context* ctx)
{
    if (client.choices.byte() % 2 == 1)
        (void)ubus_reconnect(ctx, nullptr);
    uloop_end();
}

void invokeLater(ubus_context* ctx)
{
    const auto request = std::ranges::find(client.requests, false, &Request::active);
    if (request == client.requests.end() ||
        ubus_invoke_async(ctx, OTHER, "later", nullptr, &request->record) != UBUS_STATUS_OK)
        return;
    request->active = true;
    request->record.data_cb = onData;
    request->record.complete_cb = onComplete;
    ubus_complete_request_async(ctx, &request->record);
}

void loop(ubus_context* ctx)
{
    uloop_timeout end{};
    end.cb = [](uloop_timeout*) { uloop_end(); };
    if (!ctx->sock.eof)
        ubus_add_uloop(ctx);
    uloop_timeout_set(&end, 1);
    uloop_run();
    uloop_timeout_cancel(&end);
    if (ctx->sock.registered)
        uloop_fd_delete(&ctx->sock);
}

constexpr void (*ACTIONS[])(ubus_context* ctx) = {
    [](ubus_context* ctx) { (void)ubus_add_object(ctx, &client.object); },
    [](ubus_context* ctx) { (void)ubus_remove_object(ctx, &client.object); },
    [](ubus_context* ctx) { (void)ubus_lookup(ctx, "*", onFound, nullptr); },
    [](ubus_context* ctx) {
        uint32_t id = 0;
        (void)ubus_lookup_id(ctx, "other", &id);
    },
    [](ubus_context* ctx) {
        const auto onAnswer = [](ubus_request*, int, blob_attr* message) { look(message); };
        (void)ubus_invoke(ctx, OTHER, "method", nullptr, onAnswer, nullptr, WAIT_MS);
    },
    invokeLater,
    ubus_handle_event,
    [](ubus_context* ctx) { (void)ubus_register_event_handler(ctx, &client.handler, "event*"); },
    [](ubus_context* ctx) { (void)ubus_unregister_event_handler(ctx, &client.handler); },
    [](ubus_context* ctx) { (void)ubus_send_event(ctx, "event", nullptr); },
    [](ubus_context* ctx) {
        for (Request& request : client.requests)
            if (std::exchange(request.active, false))
                ubus_abort_request(ctx, &request.record);
    },
    [](ubus_context* ctx) {
        for (Request& request : client.requests)
            if (request.active)
                (void)ubus_complete_request(ctx, &request.record, WAIT_MS);
    },
    [](ubus_context* ctx) {
        for (; !client.deferred.empty(); client.deferred.pop_back())
            ubus_complete_deferred_request(ctx, &client.deferred.back(), UBUS_STATUS_NOT_FOUND);
    },
    [](ubus_context* ctx) { (void)(client.depth == 0 && ubus_reconnect(ctx, nullptr) == 0); },
    [](ubus_context* ctx) {
        if (client.depth == 0)
            loop(ctx);
    },
    [](ubus_context* ctx) {
        (void)ubus_register_subscriber(ctx, &client.subscriber);
        (void)ubus_subscribe(ctx, &client.subscriber, OTHER);
    },
    [](ubus_context* ctx) {
        (void)ubus_unsubscribe(ctx, &client.subscriber, OTHER);
        (void)ubus_unregister_subscriber(ctx, &client.subscriber);
    },
    [](ubus_context* ctx) { (void)ubus_notify(ctx, &client.object, "motion", nullptr, -1); },
};

void act(uint8_t what)
{
    ACTIONS[what % std::size(ACTIONS)](client.ctx);
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
    (void)send(pair[0], streams.front().data(), streams.front().size(), MSG_DONTWAIT);
    streams.pop_front();
    dup2(pair[1], fd);
    close(pair[0]);
    close(pair[1]);
    return 0;
}

/// Takes what the client sends, all of which would go out.
extern "C" ssize_t sendmsg(int, const msghdr* message, int)
{
    size_t size = 0;
    for (const iovec& part : std::span(message->msg_iov, message->msg_iovlen))
        size += part.iov_len;
    return static_cast<ssize_t>(size);
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    client = {};
    Input input(data, size);
    const Bytes actions = input.bytes(input.byte() % 32);
    client.choices = Input(input.bytes(input.byte() % 32));
    readStreams(input);
    client.type.methods = client.object.methods = METHODS;
    client.type.n_methods = 2;
    client.object.name = "fuzz";
    client.object.type = &client.type;
    client.object.n_methods = static_cast<int>(std::size(METHODS));
    client.handler.cb = [](ubus_context*, ubus_event_handler*, const char* name, blob_attr* message) {
        RIG_CHECK(name && lengthOf(name) < MAX_STREAM, "an event without a name\n");
        look(message);
    };
    client.object.subscribe_cb = [](ubus_context*, ubus_object*) { look(nullptr); };
    client.subscriber.cb = onCall;
    client.subscriber.remove_cb = [](ubus_context*, ubus_subscriber*, uint32_t) { look(nullptr); };
    client.ctx = ubus_connect("/nowhere");
    if (client.ctx) {
        client.ctx->connection_lost = onLost;
        for (const uint8_t action : actions)
            act(action);
        ubus_handle_event(client.ctx);
        ubus_free(client.ctx);
    }
    uloop_done();
    return 0;
}
