// The bus connection's state.
#pragma once

#include "core/bus_library.h"
#include "core/context.h"
#include "core/mutex.h"

#include <stdint.h>

/// Owner: ubus/. All but notifyBuf belongs to the event loop's thread.
struct UbusState {
    Mutex BusLock{LockRank::Bus};
    ubus_context* gUbusctx = nullptr;
    blob_buf replyBuf{};
    bool replyComplete = false; // whether replyBuf holds all that was added to it
    blob_buf notifyBuf{};       // used under MotionStateLock
    int32_t ubusConnectAttempts = 0;
    uloop_timeout reconnectTimeout{};
};
