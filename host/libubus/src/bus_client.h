// What the parts of the client library share. A context and its connection belong to one thread at a time, so that no
// part takes a lock. Each part calls those above it here, and none below.
#pragma once

#include <cstddef>
#include <cstdint>

#include "libubus.h"

// A received message, or one that is being received. The root attribute lies behind the record.
struct Message {
    list_head list;
    size_t missing; // bytes of the root that have not arrived
    uint8_t type;
    uint16_t seq;
    uint32_t peer;
};

inline blob_attr* rootOf(Message* message)
{
    return reinterpret_cast<blob_attr*>(message + 1);
}

// A data callback that runs; answers to its request that arrive meanwhile wait for its return.
struct RunningCallback {
    ubus_request* req; // null once the request has been aborted
    list_head answers; // of Message
    int endStatus;     // what the request is to end with afterwards, or -1
    RunningCallback* outer;
};

// Precedes the root attribute; numbers are big-endian.
struct MessageHeader {
    uint8_t version;
    uint8_t type;
    uint16_t seq;
    uint32_t peer;
};

// What goes before the attributes of every message: the header and the root's word.
constexpr size_t HEADER_SIZE = sizeof(MessageHeader) + sizeof(blob_attr);
constexpr size_t MAX_ROOT = 1048576; // longest root attribute, padded

constexpr int PENDING_DELAY_MS = 1; // what a wait leaves undone is done in the loop's next turn

// Room for a message that is not long, so that calls are served without memory too.
struct SmallMessage {
    Message message;
    char root[512];
    bool taken;
};

struct ubus_connection {
    SmallMessage small[4];
    char header[HEADER_SIZE]; // of the next message
    size_t headerMissing;     // bytes of it that have not arrived
    Message* partial;         // whose header has arrived, but not all of it
    blob_buf output;          // the message that is being built
    RunningCallback* running;
    bool broken;      // no wait goes on, and nothing is read or sent
    bool lostPending; // the loss has not been reported
    bool reporting;
    bool* freed; // set by ubus_free for the report under way
};

// The wire (wire.cpp).

// Reads the next message, and nothing behind it, without waiting; it is to be given back with releaseMessage. Null when
// it has not arrived as a whole, and when the connection breaks; a peer that does not speak the protocol breaks it,
// too.
Message* nextMessage(ubus_context* ctx);
void releaseMessage(ubus_context* ctx, Message* message);
void releaseMessages(ubus_context* ctx, list_head* messages);
void discardInput(ubus_context* ctx);

// Waits until the socket can be read (POLLIN) or written (POLLOUT) or is broken, or the time is over. Below 0: without
// end. A signal ends the wait early.
void waitForSocket(const ubus_context* ctx, short events, int timeoutMs);

// Starts a message in the connection's buffer; null without memory.
blob_buf* startMessage(ubus_context* ctx);
// Appends the DATA attribute with the content of `msg`, none for null. False when it does not fit.
bool putData(blob_buf* buf, const blob_attr* msg);
// Sends the message that was built, waiting while the socket is full. False when it is too large or sending fails.
bool sendMessage(ubus_context* ctx, uint8_t type, uint16_t seq, uint32_t peer);

// Attributes of a message; one that is missing or malformed is null.
struct WireFields {
    blob_attr* at[UBUS_ATTR_MAX];
};
WireFields readFields(const blob_attr* root);

// 0, false or null for a missing attribute.
inline uint32_t numberIn(const WireFields& fields, ubus_msg_attr id)
{
    return fields.at[id] ? blob_get_u32(fields.at[id]) : 0;
}
inline bool isSet(const WireFields& fields, ubus_msg_attr id)
{
    return fields.at[id] && blob_get_u8(fields.at[id]) != 0;
}
inline const char* textIn(const WireFields& fields, ubus_msg_attr id)
{
    return fields.at[id] ? blob_get_string(fields.at[id]) : nullptr;
}

// Requests (request.cpp).

// Handles an answer at once, and queues what is for an object. Takes the message over.
void handleMessage(ubus_context* ctx, Message* message);
// Ends every request: waited ones with UBUS_STATUS_CONNECTION_FAILED, others with UBUS_STATUS_TIMEOUT.
void endAllRequests(ubus_context* ctx);
// Sends the message that was built as a request and fills the request's record. UBUS_STATUS_INVALID_ARGUMENT when it
// cannot be sent.
int startRequest(ubus_context* ctx, ubus_request* req, ubus_msg_type type, uint32_t peer);
// Starts the message of a method's call, to which only DATA is missing; null when it does not fit.
blob_buf* startCall(ubus_context* ctx, uint32_t obj, const char* method);

// Registers an object that is not registered (object.cpp).
int registerObject(ubus_context* ctx, ubus_object* obj);

// Reports to a subscriber that an object it had subscribed to is gone (subscribe.cpp). Nothing for other objects.
void reportRemoval(ubus_context* ctx, ubus_object* obj, uint32_t target);

// The context in its owner's loop (serve.cpp).

// Handles the calls and notices that were queued, unless a wait or a handler is under way. Those that arrive while one
// of their handlers waits are left to the loop if the socket is in it.
void dispatchPending(ubus_context* ctx);
// The socket's and the timer's callbacks. The timer handles what was queued and reports a loss; the context may be gone
// afterwards.
void handleSocket(uloop_fd* sock, unsigned int events);
void handlePendingTimer(uloop_timeout* timer);
