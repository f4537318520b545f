// What the preloaded library (inject.cpp) and the tests share: which calls of the daemon are to fail.
#pragma once

#include <atomic>
#include <cstdint>

// Enumerator and name of each call.
#define FAULT_CALLS(X)                                                                                                 \
    X(PIPE2, "pipe2")                                                                                                  \
    X(TIMER_CREATE, "timer_create")                                                                                    \
    X(TIMER_SETTIME, "timer_settime")                                                                                  \
    X(PTHREAD_CREATE, "pthread_create")                                                                                \
    X(MALLOC, "malloc")                                                                                                \
    X(CALLOC, "calloc")                                                                                                \
    X(ALLOCATION, "allocation") /* malloc, calloc, realloc, whoever calls: the libraries below the daemon too */       \
    X(FORMAT_JSON, "blobmsg_format_json")                                                                              \
    X(UBUS_CONNECT, "ubus_connect")                                                                                    \
    X(UBUS_RECONNECT, "ubus_reconnect")                                                                                \
    X(UBUS_RECONNECT_OBJECT, "object") /* a reconnection that works, without the object */                             \
    X(UBUS_ADD_OBJECT, "ubus_add_object")                                                                              \
    X(UBUS_LOOKUP_ID, "ubus_lookup_id")                                                                                \
    X(UBUS_INVOKE_ASYNC, "ubus_invoke_async")                                                                          \
    X(UBUS_SEND_REPLY, "ubus_send_reply")                                                                              \
    X(UCI_ALLOC_CONTEXT, "uci_alloc_context")                                                                          \
    X(UCI_LOAD, "uci_load")                                                                                            \
    X(UCI_SAVE, "uci_save")                                                                                            \
    X(UCI_COMMIT, "uci_commit")                                                                                        \
    X(UCI_SET, "uci_set")                                                                                              \
    X(UCI_DELETE, "uci_delete")                                                                                        \
    X(OPEN, "open") /* from here on by file, whoever calls */                                                          \
    X(CREATE, "create")                                                                                                \
    X(WRITE, "write")                                                                                                  \
    X(FSYNC, "fsync") /* this and the next by the path's last two names, a folder's with a slash behind it */          \
    X(FTRUNCATE, "ftruncate")

enum FaultCall : uint32_t {
#define FAULT_ENUMERATOR(enumerator, name) FAULT_##enumerator,
    FAULT_CALLS(FAULT_ENUMERATOR)
#undef FAULT_ENUMERATOR
        FAULT_CALL_COUNT
};

inline constexpr const char* FAULT_CALL_NAMES[FAULT_CALL_COUNT] = {
#define FAULT_NAME(enumerator, name) name,
    FAULT_CALLS(FAULT_NAME)
#undef FAULT_NAME
};

inline constexpr int32_t FAULT_EVER = -1;

/// One call. The test writes all but the last two; `failures` last, since that arms the fault.
struct FaultRecord {
    char subject[32];              // only calls whose subject contains this: a package, a path; empty: all
    std::atomic<int32_t> error;    // errno, or the library's status; below 0: succeeds, but so many ms (real time) late
    std::atomic<int32_t> passes;   // matching calls that still succeed first
    std::atomic<int32_t> failures; // the next so many fail; FAULT_EVER: all
    std::atomic<uint32_t> seen;    // matching calls
    std::atomic<uint32_t> met;     // those that failed
};

/// The file that PTZD_FAULTS names, mapped by both sides.
struct FaultControl {
    FaultRecord calls[FAULT_CALL_COUNT];
};
