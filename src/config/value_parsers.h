// Conversions of text that arrives from callers. No state, no allocation, any thread, no lock.
#pragma once

#include <stddef.h>
#include <stdint.h>

/// The whole text as a decimal integer; the empty text is 0, and a number outside 32 bits saturates.
/// @return 0; -1 when an argument is missing or characters remain. `out` is written on success only.
[[nodiscard]] int32_t string_to_int(const char* text, int32_t* out);

/// The same in 64 bits.
[[nodiscard]] int32_t string_to_long_long(const char* text, int64_t* out);

/// The whole text as a decimal floating-point number; otherwise as string_to_int.
[[nodiscard]] int32_t string_to_float(const char* text, float* out);

/// The comma-separated decimal numbers of a text; every character but digits and commas is skipped (so a minus sign is
/// lost), and a number outside 32 bits saturates. @return how many were found, at most `capacity`; -1 when an argument
/// is missing or `capacity` is below 1.
[[nodiscard]] int32_t string_to_int_list(const char* text, int32_t* out, int32_t capacity);

/// Percent-encodes everything but ASCII letters, digits, "-", "." and "_".
/// @return the text's length without its NUL; -1, with nothing written, unless size is above 3 * length.
[[nodiscard]] int32_t url_encode(const char* source, size_t length, char* out, size_t size);

/// Decodes `length` bytes in place and terminates them, so the buffer holds at least length + 1 bytes; a percent sign
/// without two hexadecimal digits behind it stays. @return the decoded length.
size_t url_decode(char* buffer, size_t length);
