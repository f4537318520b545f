// The arguments of a method call. Thread: event loop; no lock.
#pragma once

#include "core/log.h"
#include "core/result_code.h"
#include "ubus/method_call.h"
#include "ubus/method_reply.h"

#include <stddef.h>
#include <stdint.h>

#include <array>
#include <tuple>

/// Finds a call's arguments by its policy; one that is missing or of another type is null.
template <size_t N>
void parseArgs(const blobmsg_policy (&policy)[N], blob_attr* (&args)[N], const Call& call)
{
    // The result says nothing that the table does not: a message without fields, say, counts as a failure to some
    // revisions of the library.
    (void)blobmsg_parse(policy, static_cast<int>(N), args, blob_data(call.arguments),
                        static_cast<unsigned int>(blob_len(call.arguments)));
}

/// A STRING argument's text, valid as long as the call.
[[nodiscard]] const char* textArg(const blob_attr* argument);

/// A STRING argument's text as a decimal integer: leading blanks and a sign are taken, what follows the digits is
/// ignored, text that is no number gives 0, and a number outside 32 bits saturates.
[[nodiscard]] int32_t decimalArg(const blob_attr* argument);

/// Whether arrays and tables nest in an ARRAY or TABLE argument beyond every use of them. The library's formatting
/// recurses once a level, so that a single message could exhaust the stack.
[[nodiscard]] bool nestedTooDeeply(blob_attr* argument);

/// The arguments of a call that needs all of its policy's, each a STRING that holds a decimal integer.
/// @return false, `values` unchanged, when one is missing.
template <size_t N>
[[nodiscard]] bool decimalArgs(const blobmsg_policy (&policy)[N], std::array<int32_t, N>& values, const Call& call)
{
    blob_attr* args[N];
    parseArgs(policy, args, call);
    for (const blob_attr* argument : args)
        if (!argument)
            return false;
    for (size_t i = 0; i < N; ++i)
        values[i] = decimalArg(args[i]);
    return true;
}

/// Serves a method whose arguments are all needed and decimal: answers with what `command` returns for them, in the
/// policy's order, or refuses the call under the handler's name when one is missing.
template <size_t N, typename... Numbers>
void serveNumbers(const Call& call, const blobmsg_policy (&policy)[N], ResultCode (*command)(Numbers...),
                  LogSite handler = logSite())
{
    std::array<int32_t, N> values{};
    if (!decimalArgs(policy, values, call))
        return refuseParameter(call, handler);
    replyCode(call, std::apply(command, values)); // compiles for as many parameters as arguments only
}
