#include "ubus/ubus_service.h"

#include "core/log.h"
#include "core/shutdown.h"
#include "ubus/bus_adapter.h"
#include "ubus/method_table.h"
#include "ubus/motion_notify.h"

#include <fcntl.h>
#include <unistd.h>

#ifndef PTZD_UBUS_SOCKET
#define PTZD_UBUS_SOCKET "/var/run/ubus.sock"
#endif

#ifdef PTZD_HAVE_ULOOP_FD_PTR
extern "C" void uloop_set_uloop_fd_ptr(uloop_fd* descriptor);
#endif

namespace {

constexpr char UBUS_SOCKET[] = PTZD_UBUS_SOCKET;
constexpr char CONSOLE_PATH[] = "/dev/console";
constexpr char CONSOLE_NOTICE[] = "PTZD: can not connect to ubusd\n";
constexpr int RETRIES = 2;
constexpr int RETRY_PAUSE_MS = 1000;
constexpr int RECONNECT_MS = 2000;
constexpr int BUS_END_MS = 200; // in addition to what the workers get, within two seconds in all

/// The first connection, or null.
ubus_context* connectWithRetries()
{
    for (;;) {
        {
            const BusGuard hold;
            if (ubus_context* connection = busConnect(UBUS_SOCKET))
                return connection;
        }
        if (shutdownSleep(RETRY_PAUSE_MS) || ++gContext.ubus.ubusConnectAttempts > RETRIES)
            return nullptr;
    }
}

/// Writes to the console that there is no bus; logs under the caller's name what keeps it from that.
void writeConsoleNotice(LogSite caller = logSite())
{
    const int console = open(CONSOLE_PATH, O_WRONLY | O_NOCTTY | O_CLOEXEC);
    if (console < 0) {
        logWrite(LOG_LEVEL_ERROR, caller, "UBUS: open console file(%s) failed.\n", CONSOLE_PATH);
        return;
    }
    constexpr ssize_t length = sizeof(CONSOLE_NOTICE) - 1;
    if (write(console, CONSOLE_NOTICE, length) != length)
        logWrite(LOG_LEVEL_ERROR, caller, "UBUS: write to console failed.\n");
    close(console);
}

int32_t ubusInitObj() REQUIRES(gContext.ubus.BusLock)
{
    if (busAddObject(gContext.ubus.gUbusctx, &ptzdObject()) != UBUS_STATUS_OK) {
        LOG_ERROR("UBUS: add object(%s) failed.\n", ptzdObject().name);
        return -1;
    }
    return 0;
}

void addToLoop()
{
    uloop_fd_add(&gContext.ubus.gUbusctx->sock, ULOOP_READ | ULOOP_BLOCKING);
}

/// True when the connection is back with the object on it.
bool reconnect() REQUIRES(gContext.ubus.BusLock)
{
    ubus_context* connection = gContext.ubus.gUbusctx;
    if (busReconnect(connection, UBUS_SOCKET) != UBUS_STATUS_OK)
        return false;
    // The library registers its objects again but returns no error when that fails, and then drops the object.
    ubus_object& object = ptzdObject();
    return object.id != 0 || (busAddObject(connection, &object) == UBUS_STATUS_OK && object.id != 0);
}

void ubusConnectionLost() REQUIRES(gContext.ubus.BusLock)
{
    if (!gContext.ubus.gUbusctx) {
        LOG_ERROR("gUbusctx is NULL\n");
        return;
    }
    motionSubscribersGone(); // before the reconnection, after which new ones may come at once
    if (!reconnect()) {
        LOG_ERROR("failed to reconnect, trying again in %d microseconds\n", RECONNECT_MS);
        uloop_timeout_set(&gContext.ubus.reconnectTimeout, RECONNECT_MS);
        return;
    }
    LOG_TRACE("reconnected to ubus, new id: %08x\n", gContext.ubus.gUbusctx->local_id);
    busDispatchUnderLock(gContext.ubus.gUbusctx);
    addToLoop();
}

// The library's callback: BusLock is held by the dispatch of the connection that broke, which the analysis cannot see.
void onConnectionLost(ubus_context*) NO_THREAD_SAFETY_ANALYSIS
{
    ubusConnectionLost();
}

void onReconnectTimeout(uloop_timeout*)
{
    const BusGuard hold;
    ubusConnectionLost();
}

void onShutdown(uloop_fd*, unsigned int)
{
    uloop_end();
}

/// Runs the event loop until the daemon is asked to end.
void serve()
{
    static uloop_fd shutdownWake{};
    shutdownWake.fd = shutdownDescriptor();
    shutdownWake.cb = onShutdown;
    uloop_init();
    uloop_fd_add(&shutdownWake, ULOOP_READ | ULOOP_BLOCKING);
    gContext.ubus.reconnectTimeout.cb = onReconnectTimeout;
    addToLoop();
#ifdef PTZD_HAVE_ULOOP_FD_PTR
    uloop_set_uloop_fd_ptr(&gContext.ubus.gUbusctx->sock);
#endif
    uloop_run();
    uloop_fd_delete(&shutdownWake);
}

} // namespace

int32_t ubusInit()
{
    LOG_TRACE("ubus run.\n");
    gContext.ubus.gUbusctx = connectWithRetries();
    if (!gContext.ubus.gUbusctx) {
        if (shutdownRequested())
            return 0;
        LOG_ERROR("UBUS: connect to ubusd path(%s) failed.\n", UBUS_SOCKET);
        writeConsoleNotice();
        return -1;
    }
    int32_t registered = -1;
    {
        const BusGuard hold;
        gContext.ubus.gUbusctx->connection_lost = onConnectionLost;
        busDispatchUnderLock(gContext.ubus.gUbusctx);
        registered = ubusInitObj();
        if (registered != 0) {
            busFree(gContext.ubus.gUbusctx);
            gContext.ubus.gUbusctx = nullptr;
        }
    }
    if (registered != 0) {
        LOG_ERROR("UBUS: init object failed.\n");
        return -1;
    }
    serve();
    busEnd(BUS_END_MS);
    LOG_TRACE("ubus end.\n");
    return registered;
}
