#include "command.h"

#include <cstdio>

extern "C" { // the header does not say so itself
#include <libubox/blobmsg_json.h>
}

namespace {

constexpr int DEFAULT_TIMEOUT_S = 30;

// The fields of a message; empty to begin with.
class Fields {
public:
    Fields()
    {
        blob_buf_init(&buffer_, 0);
    }
    ~Fields()
    {
        blob_buf_free(&buffer_);
    }
    Fields(const Fields&) = delete;
    Fields& operator=(const Fields&) = delete;

    // Adds the members of the JSON object behind the first `count` arguments, if there is one.
    [[nodiscard]] bool addFrom(Arguments arguments, size_t count)
    {
        return arguments.size() <= count || blobmsg_add_json_from_string(&buffer_, arguments[count]);
    }
    blob_attr* message()
    {
        return buffer_.head;
    }

private:
    blob_buf buffer_{};
};

void printReply(ubus_request* request, int, blob_attr* message)
{
    if (!message)
        return;
    const auto& options = *static_cast<const Options*>(request->priv);
    const Text text(blobmsg_format_json_indent(message, true, options.terse ? -1 : 0));
    if (text)
        printf("%s\n", text.get());
    fflush(stdout); // a method may answer in parts, with time between them
}

} // namespace

Outcome callMethod(ubus_context& bus, const Options& options, Arguments arguments)
{
    if (arguments.size() < 2 || arguments.size() > 3)
        return {.wrongUse = true};
    Fields fields;
    if (!fields.addFrom(arguments, 2))
        return {.status = UBUS_STATUS_PARSE_ERROR, .callFailed = true};
    uint32_t id = 0;
    if (const int status = ubus_lookup_id(&bus, arguments[0], &id))
        return {.status = status};
    if (id == 0)
        return {.status = UBUS_STATUS_NOT_FOUND}; // it exists, but does not show itself
    Options forReply = options;
    const int status = ubus_invoke(&bus, id, arguments[1], fields.message(), printReply, &forReply,
                                   options.timeoutMs(DEFAULT_TIMEOUT_S));
    return {.status = status, .callFailed = true};
}

Outcome sendEvent(ubus_context& bus, const Options&, Arguments arguments)
{
    if (arguments.empty() || arguments.size() > 2)
        return {.wrongUse = true};
    Fields fields;
    if (!fields.addFrom(arguments, 1))
        return {.status = UBUS_STATUS_PARSE_ERROR};
    return {.status = ubus_send_event(&bus, arguments[0], fields.message())};
}
