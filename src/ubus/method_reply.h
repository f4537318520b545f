// How every method answers: one table in replyBuf with the result's code and whatever else the method reports.
//
// Thread: event loop only; replyBuf needs no lock. The sending calls take BusLock.
#pragma once

#include "core/context.h"
#include "core/result_code.h"

#include <stdint.h>

/// Starts a new reply, discarding what the last one left.
void replyBegin();

/// Adds a named 32-bit integer, and a string field that holds a decimal number.
void replyAddInt(const char* name, int32_t value);
void replyAddDecimal(const char* name, int64_t value);

/// Adds a text field to any blob buffer. A buffer that cannot grow loses the field.
void addString(blob_buf& buffer, const char* name, const char* text);

/// Sends the reply as it stands. @return 0, always: a handler's outcome travels in the reply only.
int replySend(ubus_context* connection, ubus_request_data* request);

/// Answers with a code alone, named "error_code" or, for the methods that call it so, "err_code".
int replyCode(ubus_context* connection, ubus_request_data* request, int32_t code);
int replyErrCode(ubus_context* connection, ubus_request_data* request, int32_t code);
