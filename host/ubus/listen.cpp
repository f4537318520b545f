#include "command.h"

#include <cstdio>

extern "C" { // the header does not say so itself
#include <libubox/blobmsg_json.h>
}

namespace {

constexpr int SUBSCRIPTION_FAILED = -1;

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

void printLine(const char* name, blob_attr* message)
{
    const Text content(message ? blobmsg_format_json(message, true) : nullptr);
    printf("{ \"%s\": %s }\n", name, content ? content.get() : "{}");
    if (fflush(stdout) != 0)
        uloop_end(); // nobody reads any more
}

void printEvent(ubus_context*, ubus_event_handler*, const char* name, blob_attr* message)
{
    printLine(name, message);
}

int printNotification(ubus_context*, ubus_object*, ubus_request_data*, const char* type, blob_attr* message)
{
    printLine(type, message);
    return UBUS_STATUS_OK;
}

// Prints what comes until the time is over, a signal comes or the bus goes.
Outcome printUntilTheEnd(ubus_context& bus, const Options& options)
{
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

int subscribeTo(ubus_context& bus, ubus_subscriber& subscriber, const char* path)
{
    uint32_t id = 0;
    if (const int status = ubus_lookup_id(&bus, path, &id))
        return status;
    return ubus_subscribe(&bus, &subscriber, id);
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
    return printUntilTheEnd(bus, options);
}

// Lasts when an object goes: only what follows of the others is printed.
Outcome subscribe(ubus_context& bus, const Options& options, Arguments arguments)
{
    if (arguments.empty()) {
        if (!options.terse)
            fprintf(stderr, "You need to specify an object to subscribe to\n");
        return {.status = SUBSCRIPTION_FAILED, .reported = true};
    }
    static ubus_subscriber subscriber;
    subscriber.cb = printNotification;
    int status = ubus_register_subscriber(&bus, &subscriber);
    for (size_t i = 0; i < arguments.size() && status == UBUS_STATUS_OK; ++i)
        status = subscribeTo(bus, subscriber, arguments[i]);
    if (status == UBUS_STATUS_OK)
        return printUntilTheEnd(bus, options);
    if (!options.terse) // whichever it was
        fprintf(stderr, "Error while registering for event '%s': %s\n", arguments[0], ubus_strerror(status));
    return {.status = SUBSCRIPTION_FAILED, .reported = true};
}
