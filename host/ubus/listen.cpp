#include "command.h"

#include <cstdio>

extern "C" { // the header does not say so itself
#include <libubox/blobmsg_json.h>
}

namespace {

bool connectionLost = false;

void noteLoss(ubus_context*)
{
    connectionLost = true;
    uloop_end();
}

void endLoop(uloop_timeout*)
{
    uloop_end();
}

void printEvent(ubus_context*, ubus_event_handler*, const char* name, blob_attr* message)
{
    const Text content(message ? blobmsg_format_json(message, true) : nullptr);
    printf("{ \"%s\": %s }\n", name, content ? content.get() : "{}");
    if (fflush(stdout) != 0)
        uloop_end(); // nobody reads any more
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
    bus.connection_lost = noteLoss;
    ubus_add_uloop(&bus);
    uloop_timeout timer{};
    timer.cb = endLoop;
    if (options.timeoutMs(0) != 0)
        uloop_timeout_set(&timer, options.timeoutMs(0));
    if (!uloop_cancelled) // by a signal that came since the bus was connected
        uloop_run();
    uloop_timeout_cancel(&timer);
    return {.status = connectionLost ? UBUS_STATUS_CONNECTION_FAILED : UBUS_STATUS_OK};
}
