// What the preloaded library (inject.cpp) and the tests share: which calls of the daemon are to fail.
#pragma once

#include <atomic>
#include <cstdint>

enum FaultCall : uint32_t {
    FAULT_PIPE2,
    FAULT_TIMER_CREATE,
    FAULT_TIMER_SETTIME,
    FAULT_PTHREAD_CREATE,
    FAULT_MALLOC,
    FAULT_CALLOC,
    FAULT_ALLOCATION, // malloc, calloc and realloc, whoever calls: the libraries below the daemon too
    FAULT_FORMAT_JSON,
    FAULT_UBUS_CONNECT,
    FAULT_UBUS_RECONNECT,
    FAULT_UBUS_ADD_OBJECT,
    FAULT_UBUS_LOOKUP_ID,
    FAULT_UBUS_INVOKE_ASYNC,
    FAULT_UBUS_SEND_REPLY,
    FAULT_UCI_ALLOC_CONTEXT,
    FAULT_UCI_LOAD,
    FAULT_UCI_SAVE,
    FAULT_UCI_COMMIT,
    FAULT_UCI_SET,
    FAULT_UCI_DELETE,
    FAULT_OPEN, // from here on by file, whoever calls
    FAULT_CREATE,
    FAULT_WRITE,
    FAULT_FSYNC, // this and the next by the path's last two names, a folder's with a slash behind it
    FAULT_FTRUNCATE,
    FAULT_RENAME,
    FAULT_CALL_COUNT
};

inline constexpr const char* FAULT_CALL_NAMES[FAULT_CALL_COUNT] = {
    "pipe2",
    "timer_create",
    "timer_settime",
    "pthread_create",
    "malloc",
    "calloc",
    "allocation",
    "blobmsg_format_json",
    "ubus_connect",
    "ubus_reconnect",
    "ubus_add_object",
    "ubus_lookup_id",
    "ubus_invoke_async",
    "ubus_send_reply",
    "uci_alloc_context",
    "uci_load",
    "uci_save",
    "uci_commit",
    "uci_set",
    "uci_delete",
    "open",
    "create",
    "write",
    "fsync",
    "ftruncate",
    "rename",
};

inline constexpr int32_t FAULT_EVER = -1;

/// One call. The test writes all but the last two; `failures` last, since that arms the fault.
struct FaultRecord {
    char subject[32];              // only calls whose subject contains this: a package, a path; empty: all
    std::atomic<int32_t> error;    // errno, or the library's status
    std::atomic<int32_t> passes;   // matching calls that still succeed first
    std::atomic<int32_t> failures; // the next so many fail; FAULT_EVER: all
    std::atomic<uint32_t> seen;    // matching calls
    std::atomic<uint32_t> met;     // those that failed
};

/// The file that PTZD_FAULTS names, mapped by both sides.
struct FaultControl {
    FaultRecord calls[FAULT_CALL_COUNT];
};
