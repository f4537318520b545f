#include "command.h"

#include <cstdio>

#include <algorithm>

extern "C" { // the header does not say so itself
#include <libubox/blobmsg_json.h>
}

namespace {

constexpr int DEFAULT_WAIT_S = 30;

// The event loop's callbacks carry nothing along.
struct {
    bool lost = false;   // the connection
    bool found = false;  // all that is waited for
    Arguments waitedFor; // names of objects
} gWait;

void noteLoss(ubus_context*)
{
    gWait.lost = true;
    uloop_end();
}

void endLoop(uloop_timeout*)
{
    uloop_end();
}

// Runs the event loop until a callback or a signal ends it, or for that long; 0 is without end. A signal that came
// before, since the bus was connected, counts too.
void runLoop(ubus_context& bus, int timeoutMs)
{
    bus.connection_lost = noteLoss;
    ubus_add_uloop(&bus);
    uloop_timeout timer{};
    timer.cb = endLoop;
    if (timeoutMs != 0)
        uloop_timeout_set(&timer, timeoutMs);
    if (!uloop_cancelled)
        uloop_run();
    uloop_timeout_cancel(&timer);
}

void printEvent(ubus_context*, ubus_event_handler*, const char* name, blob_attr* message)
{
    const Text content(message ? blobmsg_format_json(message, true) : nullptr);
    printf("{ \"%s\": %s }\n", name, content ? content.get() : "{}");
    if (fflush(stdout) != 0)
        uloop_end(); // nobody reads any more
}

bool allExist(ubus_context& bus)
{
    return std::ranges::all_of(gWait.waitedFor, [&](const char* name) {
        uint32_t id = 0;
        return ubus_lookup_id(&bus, name, &id) == UBUS_STATUS_OK;
    });
}

void lookAgain(ubus_context* bus, ubus_event_handler*, const char*, blob_attr*)
{
    if (!allExist(*bus))
        return;
    gWait.found = true;
    uloop_end();
}

} // namespace

Outcome listenToEvents(ubus_context& bus, const Options& options, Arguments arguments)
{
    static ubus_event_handler handler;
    static char everything[] = "*";
    static char* const all[] = {everything};
    handler.cb = printEvent;
    for (const char* pattern : arguments.empty() ? Arguments(all) : arguments) {
        if (const int status = ubus_register_event_handler(&bus, &handler, pattern))
            return {.status = status};
    }
    runLoop(bus, options.timeoutMs(0));
    return {.status = gWait.lost ? UBUS_STATUS_CONNECTION_FAILED : UBUS_STATUS_OK};
}

Outcome waitForObjects(ubus_context& bus, const Options& options, Arguments arguments)
{
    static ubus_event_handler handler;
    if (arguments.empty())
        return {.wrongUse = true};
    gWait.waitedFor = arguments;
    handler.cb = lookAgain;
    // First the registration, then the look: what is added in between is not missed.
    if (const int status = ubus_register_event_handler(&bus, &handler, "ubus.object.add"))
        return {.status = status};
    if (allExist(bus))
        return {};
    runLoop(bus, options.timeoutMs(DEFAULT_WAIT_S));
    if (gWait.found)
        return {};
    return {.status = gWait.lost ? UBUS_STATUS_CONNECTION_FAILED : UBUS_STATUS_TIMEOUT};
}
