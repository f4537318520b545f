// How every method answers: one table in replyBuf with the result's code and whatever else the method answers.
//
// Thread: event loop only; replyBuf needs no lock. The sending calls take BusLock.
#pragma once

#include "core/bus_library.h"
#include "core/log.h"
#include "core/result_code.h"
#include "ubus/method_call.h"

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

/// Add a string field, and one that holds a decimal number, to any blob buffer. @return false when it cannot grow.
[[nodiscard]] bool addString(blob_buf& buffer, const char* name, const char* text);
[[nodiscard]] bool addDecimal(blob_buf& buffer, const char* name, int64_t value);

/// Sends the reply; one that something is missing from, for want of memory, becomes ERR_DEVICE alone, and without
/// memory for that nothing is sent.
void replySend(const Call& call);

/// Answers with a code alone, named "error_code" or, for the methods that call it so, "err_code".
void replyCode(const Call& call, int32_t code);
void replyErrCode(const Call& call, int32_t code);

/// Refuses a call for its arguments: logs so under the handler's name and answers ERR_PARAM.
void refuseParameter(const Call& call, LogSite handler = logSite());
