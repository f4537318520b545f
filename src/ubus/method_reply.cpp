#include "ubus/method_reply.h"

#include "ubus/bus_door.h"

#include <charconv>

namespace {

int replyWith(const char* name, ubus_context* connection, ubus_request_data* request, int32_t code)
{
    replyBegin();
    replyAddInt(name, code);
    return replySend(connection, request);
}

} // namespace

void replyBegin()
{
    blob_buf_init(&gContext.ubus.replyBuf, 0);
}

void replyAddInt(const char* name, int32_t value)
{
    blobmsg_add_u32(&gContext.ubus.replyBuf, name, static_cast<uint32_t>(value));
}

void replyAddDecimal(const char* name, int64_t value)
{
    char text[24];
    *std::to_chars(text, text + sizeof(text) - 1, value).ptr = '\0'; // printf was half of what we add to a reading call
    addString(gContext.ubus.replyBuf, name, text);
}

void addString(blob_buf& buffer, const char* name, const char* text)
{
    blobmsg_add_string(&buffer, name, text);
}

int replySend(ubus_context* connection, ubus_request_data* request)
{
    const BusGuard hold;
    (void)busSendReply(connection, request, gContext.ubus.replyBuf.head); // a caller that is gone is not our failure
    return 0;
}

int replyCode(ubus_context* connection, ubus_request_data* request, int32_t code)
{
    return replyWith("error_code", connection, request, code);
}

int replyErrCode(ubus_context* connection, ubus_request_data* request, int32_t code)
{
    return replyWith("err_code", connection, request, code);
}
