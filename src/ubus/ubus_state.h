// The bus connection's state.
#pragma once

#include "core/bus_library.h"
#include "core/context.h"
#include "core/mutex.h"

#include <stdint.h>

#include <atomic>

/// Owner: ubus/. All but the buffers for notifications belongs to the event loop's thread.
struct UbusState {
    Mutex BusLock{LockRank::Bus};
    ubus_context* gUbusctx = nullptr;    // other threads use it for notifications, under BusLock
    std::atomic<bool> subscribed{false}; // whether anybody subscribes to the object
    blob_buf motionBuf{};                // used under BusLock
    blob_buf replyBuf{};
    bool replyComplete = false; // whether replyBuf holds all that was added to it
    blob_buf notifyBuf{};       // used under MotionStateLock
    int32_t ubusConnectAttempts = 0;
    uloop_timeout reconnectTimeout{};
};
