// The arguments of a method call. Thread: event loop; no lock.
#pragma once

#include "core/bus_library.h"

#include <stddef.h>
#include <stdint.h>

/// Finds a call's arguments by its policy; one that is missing or of another type is null.
template <size_t N>
void parseArgs(const blobmsg_policy (&policy)[N], blob_attr* (&args)[N], blob_attr* message)
{
    // The result says nothing that the table does not: a message without fields, say, counts as a failure to some
    // revisions of the library.
    (void)blobmsg_parse(policy, static_cast<int>(N), args, blob_data(message),
                        static_cast<unsigned int>(blob_len(message)));
}

/// A STRING argument's text as a decimal integer: leading blanks and a sign are taken, what follows the digits is
/// ignored, text that is no number gives 0, and a number outside 32 bits saturates.
[[nodiscard]] int32_t decimalArg(const blob_attr* argument);

/// Whether arrays and tables nest in an ARRAY or TABLE argument beyond every use of them. The library's formatting
/// recurses once a level, so that a single message could exhaust the stack.
[[nodiscard]] bool nestedTooDeeply(blob_attr* argument);

/// The arguments of a call that needs all of its policy's, each a STRING that holds a decimal integer.
/// @return false, `values` unchanged, when one is missing.
template <size_t N>
[[nodiscard]] bool decimalArgs(const blobmsg_policy (&policy)[N], int32_t (&values)[N], blob_attr* message)
{
    blob_attr* args[N];
    parseArgs(policy, args, message);
    for (const blob_attr* argument : args)
        if (!argument)
            return false;
    for (size_t i = 0; i < N; ++i)
        values[i] = decimalArg(args[i]);
    return true;
}
