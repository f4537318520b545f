// How every method answers: one table in replyBuf with the result's code and whatever else the method reports.
//
// Thread: event loop only; replyBuf needs no lock. The sending calls take BusLock.
#pragma once

#include "core/bus_library.h"
#include "core/result_code.h"

#include <stdint.h>

/// Starts a new reply, discarding what the last one left.
void replyBegin();

/// Add a named 32-bit integer, a string field that holds a decimal number, and a string field.
void replyAddInt(const char* name, int32_t value);
void replyAddDecimal(const char* name, int64_t value);
void replyAddText(const char* name, const char* text);

/// Open a table or an array, in which the following is added until it is closed; null without memory.
[[nodiscard]] void* replyOpenTable(const char* name);
[[nodiscard]] void* replyOpenArray(const char* name);
void replyClose(void* container);

/// Adds a text field to any blob buffer. @return false when the buffer cannot grow.
[[nodiscard]] bool addString(blob_buf& buffer, const char* name, const char* text);

/// Sends the reply; one that something is missing from, for want of memory, becomes ERR_DEVICE alone, and without
/// memory for that nothing is sent. @return 0, always: a handler's outcome travels in the reply only.
int replySend(ubus_context* connection, ubus_request_data* request);

/// Answers with a code alone, named "error_code" or, for the methods that call it so, "err_code".
int replyCode(ubus_context* connection, ubus_request_data* request, int32_t code);
int replyErrCode(ubus_context* connection, ubus_request_data* request, int32_t code);
