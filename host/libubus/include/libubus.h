/* The bus client. A context belongs to one thread at a time; separate contexts may be used on separate threads. Calls
 * return a status of enum ubus_msg_status, UBUS_STATUS_OK on success, unless something else is said. */
#ifndef LIBUBUS_H
#define LIBUBUS_H

#ifdef __cplusplus
extern "C" {
#endif

#include <stdbool.h>
#include <stdint.h>

#include <libubox/avl.h>
#include <libubox/blobmsg.h>
#include <libubox/list.h>
#include <libubox/uloop.h>

#include "ubus_common.h"
#include "ubusmsg.h"

struct ubus_context;
struct ubus_connection;
struct ubus_request;
struct ubus_request_data;
struct ubus_object;
struct ubus_object_data;
struct ubus_event_handler;
struct ubus_subscriber;

/* Handles a call of a method; the returned status goes to the caller unless the request was deferred. `msg` is the DATA
 * attribute: fields at blob_data(msg), blob_len(msg) bytes of them. */
typedef int (*ubus_handler_t)(struct ubus_context* ctx, struct ubus_object* obj, struct ubus_request_data* req,
                              const char* method, struct blob_attr* msg);
typedef void (*ubus_state_handler_t)(struct ubus_context* ctx, struct ubus_object* obj);
typedef void (*ubus_lookup_handler_t)(struct ubus_context* ctx, struct ubus_object_data* obj, void* priv);
typedef void (*ubus_event_handler_t)(struct ubus_context* ctx, struct ubus_event_handler* ev, const char* type,
                                     struct blob_attr* msg);
typedef void (*ubus_remove_handler_t)(struct ubus_context* ctx, struct ubus_subscriber* sub, uint32_t id);
typedef bool (*ubus_new_object_handler_t)(struct ubus_context* ctx, struct ubus_subscriber* sub, const char* path);
typedef void (*ubus_data_handler_t)(struct ubus_request* req, int type, struct blob_attr* msg);
typedef void (*ubus_fd_handler_t)(struct ubus_request* req, int fd);
typedef void (*ubus_complete_handler_t)(struct ubus_request* req, int ret);
typedef void (*ubus_connect_handler_t)(struct ubus_context* ctx);

struct ubus_method {
    const char* name;
    ubus_handler_t handler;
    unsigned long mask;
    unsigned long tags;
    const struct blobmsg_policy* policy;
    int n_policy;
};

#define UBUS_METHOD(method_name, method_handler, method_policy)                                                        \
    {                                                                                                                  \
        .name = method_name, .handler = method_handler, .mask = 0, .tags = 0, .policy = method_policy,                 \
        .n_policy = ARRAY_SIZE(method_policy)                                                                          \
    }

#define UBUS_METHOD_NOARG(method_name, method_handler)                                                                 \
    {                                                                                                                  \
        .name = method_name, .handler = method_handler, .mask = 0, .tags = 0, .policy = NULL, .n_policy = 0            \
    }

struct ubus_object_type {
    const char* name; /* never sent */
    uint32_t id;      /* 0 until registered */
    const struct ubus_method* methods;
    int n_methods;
};

#define UBUS_OBJECT_TYPE(type_name, type_methods)                                                                      \
    {                                                                                                                  \
        .name = type_name, .id = 0, .methods = type_methods, .n_methods = ARRAY_SIZE(type_methods)                     \
    }

/* The methods of the type are advertised; those of the object take the calls. Without a name or a type the object is
 * registered without a name. */
struct ubus_object {
    struct avl_node avl;

    const char* name;
    uint32_t id;

    const char* path;
    struct ubus_object_type* type;

    /* Called, as a handler is, when the first subscriber has come and when the last one has gone, with the flag set.
     * After a reconnection the flag is false again, without a call. */
    ubus_state_handler_t subscribe_cb;
    bool has_subscribers;

    const struct ubus_method* methods;
    int n_methods;
};

struct ubus_event_handler {
    struct ubus_object obj;

    ubus_event_handler_t cb;
};

/* Zero it, then set the callbacks; the library sets the rest. */
struct ubus_subscriber {
    struct list_head list;
    struct ubus_object obj;

    ubus_handler_t cb; /* gets each notification, its type in the place of the method */
    /* The object of that id has left the bus, and the subscription with it. May subscribe to another. */
    ubus_remove_handler_t remove_cb;
    ubus_new_object_handler_t new_obj_cb; /* never called: listen to the event ubus.object.add instead */
};

struct ubus_context {
    struct list_head requests;
    struct avl_tree objects;
    struct list_head pending;

    struct uloop_fd sock;
    struct uloop_timeout pending_timer;

    uint32_t local_id; /* in network byte order */
    uint16_t request_seq;
    bool cancel_poll; /* a waiting call has ended: the socket's callback handles one message a call from then on */
    int stack_depth;  /* waits and handlers under way */

    /* Called once when the connection is gone and the socket out of the loop. The default does nothing: the loop goes
     * on. May call ubus_reconnect or ubus_free. */
    ubus_connect_handler_t connection_lost;

    struct ubus_connection* connection;
};

/* A lookup's result. */
struct ubus_object_data {
    uint32_t id;
    uint32_t type_id;
    const char* path;
    struct blob_attr* signature;
};

struct ubus_acl_key {
    const char* user;
    const char* group;
    const char* object;
};

/* An incoming call; the texts in `acl` live as long as the handler runs. */
struct ubus_request_data {
    uint32_t object;
    uint32_t peer;
    uint16_t seq;

    struct ubus_acl_key acl;

    bool deferred;
};

/* An outgoing request. */
struct ubus_request {
    struct list_head list;

    int status_code;
    bool status_msg; /* the request has ended */
    bool waited;     /* a waiting call asks for its end */
    uint32_t peer;
    uint16_t seq;

    ubus_data_handler_t raw_data_cb; /* gets the message's root attribute */
    ubus_data_handler_t data_cb;     /* gets the message's DATA attribute */
    ubus_fd_handler_t fd_cb;         /* never called: descriptors are not passed */
    ubus_complete_handler_t complete_cb;

    struct ubus_context* ctx;
    void* priv;
};

/* Connects and waits for the greeting. A null path is UBUS_UNIX_SOCKET. Calls uloop_init. Null on failure. */
struct ubus_context* ubus_connect(const char* path);

/* Closes the old connection, connects, and registers every object of the context again under new ids; an object that is
 * refused is dropped and keeps the id 0. Event patterns are not registered again, and the socket is not in the loop.
 * UBUS_STATUS_CONNECTION_FAILED when it cannot connect, UBUS_STATUS_UNKNOWN_ERROR without a valid greeting. */
int ubus_reconnect(struct ubus_context* ctx, const char* path);

/* Takes the socket out of the loop, closes it and frees the context. Not to be called from a handler or a data
 * callback.
 */
void ubus_free(struct ubus_context* ctx);

/* The text of a status; another number's is valid until the thread's next call. */
const char* ubus_strerror(int error);

/* Loop's thread. */
static inline void ubus_add_uloop(struct ubus_context* ctx)
{
    uloop_fd_add(&ctx->sock, ULOOP_BLOCKING | ULOOP_READ);
}

/* Reads and handles what has arrived, but only one message of it once a waiting call has ended on the context, without
 * waiting; for contexts that are not in the loop. When the connection is gone `ctx->sock.eof` is set afterwards. */
static inline void ubus_handle_event(struct ubus_context* ctx)
{
    ctx->sock.cb(&ctx->sock, ULOOP_READ);
}

/* The calls below send a request and, but for the asynchronous ones, wait for its end on the context's own socket.
 * Calls and events that arrive meanwhile are handled afterwards. UBUS_STATUS_INVALID_ARGUMENT when sending fails. */

int ubus_add_object(struct ubus_context* ctx, struct ubus_object* obj);
int ubus_remove_object(struct ubus_context* ctx, struct ubus_object* obj);

/* Calls back for each object of that path, or of that prefix when it ends in a star, or for all when it is null. */
int ubus_lookup(struct ubus_context* ctx, const char* path, ubus_lookup_handler_t cb, void* priv);

/* Leaves `*id` alone when the bus names no object, which it may do with a status of 0. */
int ubus_lookup_id(struct ubus_context* ctx, const char* path, uint32_t* id);

/* Calls a method; a null `msg` is an empty table. A timeout of 0 ms waits for ever, a negative one is over at once.
 * Descriptors are not passed: `fd` is -1. */
int ubus_invoke_fd(struct ubus_context* ctx, uint32_t obj, const char* method, struct blob_attr* msg,
                   ubus_data_handler_t cb, void* priv, int timeout, int fd);

static inline int ubus_invoke(struct ubus_context* ctx, uint32_t obj, const char* method, struct blob_attr* msg,
                              ubus_data_handler_t cb, void* priv, int timeout)
{
    return ubus_invoke_fd(ctx, obj, method, msg, cb, priv, timeout, -1);
}

/* Only sends the call, and zeroes and fills `req`. Set its callbacks, then hand it to one of the next two. */
int ubus_invoke_async_fd(struct ubus_context* ctx, uint32_t obj, const char* method, struct blob_attr* msg,
                         struct ubus_request* req, int fd);

static inline int ubus_invoke_async(struct ubus_context* ctx, uint32_t obj, const char* method, struct blob_attr* msg,
                                    struct ubus_request* req)
{
    return ubus_invoke_async_fd(ctx, obj, method, msg, req, -1);
}

/* Has the request's answers handled as they arrive, and `complete_cb` called at its end. */
void ubus_complete_request_async(struct ubus_context* ctx, struct ubus_request* req);
int ubus_complete_request(struct ubus_context* ctx, struct ubus_request* req, int timeout);

/* Drops the request: none of its callbacks is called any more. */
void ubus_abort_request(struct ubus_context* ctx, struct ubus_request* req);

/* Sends one DATA message at once; any number for a call. UBUS_STATUS_NO_DATA when sending fails. */
int ubus_send_reply(struct ubus_context* ctx, struct ubus_request_data* req, struct blob_attr* msg);

/* Keeps the handler's return value from being sent; ubus_complete_deferred_request with `new_req` sends a status later.
 */
void ubus_defer_request(struct ubus_context* ctx, struct ubus_request_data* req, struct ubus_request_data* new_req);
void ubus_complete_deferred_request(struct ubus_context* ctx, struct ubus_request_data* req, int ret);

int ubus_send_event(struct ubus_context* ctx, const char* id, struct blob_attr* data);

/* Listens to the events of that name, or of that prefix when the pattern ends in a star. */
int ubus_register_event_handler(struct ubus_context* ctx, struct ubus_event_handler* ev, const char* pattern);
int ubus_unregister_event_handler(struct ubus_context* ctx, struct ubus_event_handler* ev);

/* Registers the subscriber's object, once and for any number of subscriptions. After a reconnection the object is
 * registered again, and its subscriptions are gone. */
int ubus_register_subscriber(struct ubus_context* ctx, struct ubus_subscriber* sub);
/* Ends its subscriptions, too. */
int ubus_unregister_subscriber(struct ubus_context* ctx, struct ubus_subscriber* sub);

/* Subscribes to the notifications of the object of that id, which must be another client's. UBUS_STATUS_NOT_FOUND when
 * there is none. */
int ubus_subscribe(struct ubus_context* ctx, struct ubus_subscriber* sub, uint32_t id);
int ubus_unsubscribe(struct ubus_context* ctx, struct ubus_subscriber* sub, uint32_t id);

/* Sends a notification to the subscribers of an own object; a null `msg` is an empty table. With a negative timeout
 * nobody answers, nothing waits for a subscriber, and the result is always UBUS_STATUS_OK, also when nothing could be
 * sent. To wait for the subscribers' answers is not supported: any other timeout sends nothing and gives
 * UBUS_STATUS_NOT_SUPPORTED. */
int ubus_notify(struct ubus_context* ctx, struct ubus_object* obj, const char* type, struct blob_attr* msg,
                int timeout);

#ifdef __cplusplus
}
#endif

#endif
