#include "ubus/method_reply.h"

#include "ubus/bus_adapter.h"

#include <charconv>

namespace {

void replyWith(const char* name, const Call& call, int32_t code)
{
    replyBegin();
    replyAddInt(name, code);
    replySend(call);
}

} // namespace

void replyBegin()
{
    gContext.ubus.replyComplete = blob_buf_init(&gContext.ubus.replyBuf, 0) == 0;
}

void replyAddInt(const char* name, int32_t value)
{
    gContext.ubus.replyComplete = gContext.ubus.replyComplete &&
                                  blobmsg_add_u32(&gContext.ubus.replyBuf, name, static_cast<uint32_t>(value)) == 0;
}

void replyAddDecimal(const char* name, int64_t value)
{
    gContext.ubus.replyComplete = gContext.ubus.replyComplete && addDecimal(gContext.ubus.replyBuf, name, value);
}

void replyAddText(const char* name, const char* text)
{
    gContext.ubus.replyComplete = gContext.ubus.replyComplete && addString(gContext.ubus.replyBuf, name, text);
}

void* replyOpenTable(const char* name)
{
    void* table = gContext.ubus.replyComplete ? blobmsg_open_table(&gContext.ubus.replyBuf, name) : nullptr;
    gContext.ubus.replyComplete = table != nullptr;
    return table;
}

void* replyOpenArray(const char* name)
{
    void* array = gContext.ubus.replyComplete ? blobmsg_open_array(&gContext.ubus.replyBuf, name) : nullptr;
    gContext.ubus.replyComplete = array != nullptr;
    return array;
}

void replyClose(void* container)
{
    if (container)
        blobmsg_close_table(&gContext.ubus.replyBuf, container); // an array's end is the same
}

bool addString(blob_buf& buffer, const char* name, const char* text)
{
    return blobmsg_add_string(&buffer, name, text) == 0;
}

bool addDecimal(blob_buf& buffer, const char* name, int64_t value)
{
    char text[24];
    *std::to_chars(text, text + sizeof(text) - 1, value).ptr = '\0'; // printf was half of what we add to a reading call
    return addString(buffer, name, text);
}

void replySend(const Call& call)
{
    if (!gContext.ubus.replyComplete) {
        replyBegin(); // half an answer would mean something else; the code alone needs less memory
        replyAddInt("error_code", ERR_DEVICE);
    }
    if (!gContext.ubus.replyComplete)
        return;
    const BusGuard hold;
    // A caller that is gone is not our failure.
    (void)busSendReply(call.connection, call.request, gContext.ubus.replyBuf.head);
}

void replyCode(const Call& call, int32_t code)
{
    replyWith("error_code", call, code);
}

void replyErrCode(const Call& call, int32_t code)
{
    replyWith("err_code", call, code);
}

void refuseParameter(const Call& call, LogSite handler)
{
    logWrite(LOG_LEVEL_ERROR, handler, "UBUS: Invalied parameter.\n");
    replyCode(call, ERR_PARAM);
}
