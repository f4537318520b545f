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
#include <memory>

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
    enum Item { RAW, MESSAGE, REPEATED, NEXT_CONNECTION, ITEM_COUNT };
    streams.assign(1, {});
    if (input.byte() % 8 != 7)
        streams.back() = GREETING;
    while (!input.empty()) {
        std::vector<uint8_t> bytes;
        int count = 1;
        switch (input.byte() % ITEM_COUNT) {
        case RAW: {
            const Bytes raw = input.block();
            bytes.assign(raw.begin(), raw.end());
            break;
        }
        case MESSAGE:
            bytes = busMessage(input, KNOWN_IDS);
            break;
        case REPEATED:
            count = input.byte();
            bytes = busMessage(input, KNOWN_IDS);
            break;
        case NEXT_CONNECTION:
            streams.push_back(GREETING);
            break;
        default:
            break;
        }
        for (std::vector<uint8_t>& stream = streams.back(); count > 0 && stream.size() < MAX_STREAM; --count)
            stream.insert(stream.end(), bytes.begin(), bytes.end());
    }
}

class Client;
Client* client; // of the input under way

struct Request {
    ubus_request record;
    bool active;
};

class Client {
public:
    explicit Client(Bytes choices) : choices_(choices)
    {
        methods_[0] = UBUS_METHOD_NOARG("first", onCall);
        methods_[1] = UBUS_METHOD("second", onCall, POLICY);
        methods_[2] = UBUS_METHOD_NOARG(nullptr, onCall);
        type_.methods = methods_.data();
        type_.n_methods = 2;
        object_.name = "fuzz";
        object_.type = &type_;
        object_.methods = methods_.data();
        object_.n_methods = static_cast<int>(methods_.size());
        handler_.cb = onEvent;
        client = this;
    }
    ~Client()
    {
        if (ctx_)
            ubus_free(ctx_);
        uloop_done();
        client = nullptr;
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void live(Bytes actions)
    {
        ctx_ = ubus_connect("/nowhere");
        if (!ctx_)
            return;
        ctx_->connection_lost = onLost;
        for (const uint8_t action : actions)
            act(action);
        ubus_handle_event(ctx_);
    }

private:
    static constexpr blobmsg_policy POLICY[] = {{"a", BLOBMSG_TYPE_STRING}, {"b", BLOBMSG_TYPE_INT32}};

    enum Action {
        ADD_OBJECT,
        REMOVE_OBJECT,
        LOOKUP,
        LOOKUP_ID,
        INVOKE,
        INVOKE_LATER,
        HANDLE,
        LISTEN,
        UNLISTEN,
        SEND_EVENT,
        ABORT,
        WAIT,
        ANSWER,
        RECONNECT,
        LOOP,
        ACTION_COUNT
    };

    void act(uint8_t what)
    {
        switch (what % ACTION_COUNT) {
        case ADD_OBJECT:
            (void)ubus_add_object(ctx_, &object_);
            break;
        case REMOVE_OBJECT:
            (void)ubus_remove_object(ctx_, &object_);
            break;
        case LOOKUP:
            (void)ubus_lookup(ctx_, what % 2 == 0 ? "*" : nullptr, onFound, nullptr);
            break;
        case LOOKUP_ID: {
            uint32_t id = 0;
            (void)ubus_lookup_id(ctx_, "other", &id);
            break;
        }
        case INVOKE:
            (void)ubus_invoke(ctx_, KNOWN_IDS[1], "method", nullptr, onAnyData, nullptr, WAIT_MS);
            break;
        case INVOKE_LATER:
            invokeLater();
            break;
        case HANDLE:
            ubus_handle_event(ctx_);
            break;
        case LISTEN:
            (void)ubus_register_event_handler(ctx_, &handler_, "event*");
            break;
        case UNLISTEN:
            (void)ubus_unregister_event_handler(ctx_, &handler_);
            break;
        case SEND_EVENT:
            (void)ubus_send_event(ctx_, "event", nullptr);
            break;
        default:
            actOnRequests(what % ACTION_COUNT);
            break;
        }
    }

    void actOnRequests(int what)
    {
        switch (what) {
        case ABORT:
            for (Request& request : requests_) {
                if (request.active)
                    ubus_abort_request(ctx_, &request.record);
                request.active = false;
            }
            break;
        case WAIT:
            for (Request& request : requests_)
                if (request.active)
                    (void)ubus_complete_request(ctx_, &request.record, WAIT_MS);
            break;
        case ANSWER:
            for (; !deferred_.empty(); deferred_.pop_back())
                ubus_complete_deferred_request(ctx_, &deferred_.back(), UBUS_STATUS_NOT_FOUND);
            break;
        case RECONNECT:
            if (depth_ == 0)
                (void)ubus_reconnect(ctx_, nullptr);
            break;
        case LOOP:
            if (depth_ == 0)
                loop();
            break;
        default:
            break;
        }
    }

    void invokeLater()
    {
        for (Request& request : requests_) {
            if (request.active)
                continue;
            if (ubus_invoke_async(ctx_, KNOWN_IDS[0], "later", nullptr, &request.record) != UBUS_STATUS_OK)
                return;
            request.active = true;
            request.record.data_cb = onData;
            request.record.complete_cb = onComplete;
            ubus_complete_request_async(ctx_, &request.record);
            return;
        }
    }

    void loop()
    {
        uloop_timeout end{};
        end.cb = [](uloop_timeout*) { uloop_end(); };
        if (!ctx_->sock.eof)
            ubus_add_uloop(ctx_);
        uloop_timeout_set(&end, 1);
        uloop_run();
        uloop_timeout_cancel(&end);
        if (ctx_->sock.registered)
            uloop_fd_delete(&ctx_->sock);
    }

    /// What a callback does besides looking at what it was given.
    void actInside()
    {
        if (depth_ >= MAX_DEPTH || choices_.empty())
            return;
        ++depth_;
        act(choices_.byte());
        --depth_;
    }

    static void look(blob_attr* message)
    {
        free(blobmsg_format_json(message, true));
        blob_attr* found[std::size(POLICY)];
        (void)blobmsg_parse(POLICY, std::size(POLICY), found, blob_data(message),
                            static_cast<unsigned>(blob_len(message)));
    }

    static size_t lengthOf(const char* text)
    {
        return text ? strlen(text) : 0;
    }

    static int onCall(ubus_context* ctx, ubus_object*, ubus_request_data* request, const char* method,
                      blob_attr* message)
    {
        look(message);
        client->actInside();
        const size_t length = lengthOf(method) + lengthOf(request->acl.user) + lengthOf(request->acl.group);
        if (length % 3 == 0) {
            client->deferred_.emplace_back();
            ubus_defer_request(ctx, request, &client->deferred_.back());
        } else {
            (void)ubus_send_reply(ctx, request, message);
        }
        return static_cast<int>(length % 2);
    }

    static void onEvent(ubus_context*, ubus_event_handler*, const char* name, blob_attr* message)
    {
        RIG_CHECK(name && lengthOf(name) < MAX_STREAM, "an event without a name\n");
        look(message);
        client->actInside();
    }

    static void onFound(ubus_context*, ubus_object_data* found, void*)
    {
        RIG_CHECK(found->path && lengthOf(found->path) < MAX_STREAM, "an object without a path\n");
        blob_attr* method = nullptr;
        size_t rest = 0;
        if (found->signature) {
            blob_for_each_attr (method, found->signature, rest) {
                free(blobmsg_format_json(method, false));
            }
        }
        client->actInside();
    }

    static void onAnyData(ubus_request*, int, blob_attr* message)
    {
        look(message);
        client->actInside();
    }

    static Request& requestOf(ubus_request* record)
    {
        return *reinterpret_cast<Request*>(record);
    }

    static void onData(ubus_request* record, int, blob_attr* message)
    {
        RIG_CHECK(requestOf(record).active, "data after the end\n");
        look(message);
        client->actInside();
    }

    static void onComplete(ubus_request* record, int)
    {
        RIG_CHECK(requestOf(record).active, "ended twice\n");
        requestOf(record).active = false;
        client->actInside();
    }

    static void onLost(ubus_context* ctx)
    {
        if (client->choices_.byte() % 2 == 1)
            (void)ubus_reconnect(ctx, nullptr);
        uloop_end();
    }

    Input choices_;
    int depth_ = 0;
    ubus_context* ctx_ = nullptr;
    std::array<ubus_method, 3> methods_{};
    ubus_object_type type_{};
    ubus_object object_{};
    ubus_event_handler handler_{};
    std::array<Request, 4> requests_{};
    std::vector<ubus_request_data> deferred_;
};

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
    Input input(data, size);
    const Bytes actions = input.bytes(input.byte() % 32);
    const Bytes choices = input.bytes(input.byte() % 32);
    readStreams(input);
    Client(choices).live(actions);
    return 0;
}
