// What the fuzzers share. A fuzzer is one file with a LLVMFuzzerTestOneInput: linked with libFuzzer it searches for
// inputs (./dev fuzz), linked with replay.cpp it runs its corpus as a test.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <span>
#include <string>
#include <string_view>

using Bytes = std::span<const uint8_t>;

/// One input. @return 0; what must not be ends the process.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

/// Ends the process, which is the finding, unless a condition holds.
#define FUZZ_CHECK(condition, ...)                                                                                     \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            fprintf(stderr, "%s:%d: not true: %s\n", __FILE__, __LINE__, #condition);                                  \
            fprintf(stderr, "" __VA_ARGS__);                                                                           \
            abort();                                                                                                   \
        }                                                                                                              \
    } while (false)

/// Takes an input apart from its front; past its end everything is 0 or empty.
class Input {
public:
    Input(const uint8_t* data, size_t size) : rest_(data, size)
    {
    }
    explicit Input(Bytes bytes) : rest_(bytes)
    {
    }

    [[nodiscard]] bool empty() const
    {
        return rest_.empty();
    }
    uint8_t byte()
    {
        const Bytes one = bytes(1);
        return one.empty() ? 0 : one[0];
    }
    /// Little-endian.
    uint16_t word()
    {
        const uint8_t low = byte();
        return static_cast<uint16_t>(byte() << 8 | low);
    }
    Bytes bytes(size_t count)
    {
        const Bytes taken = rest_.first(std::min(count, rest_.size()));
        rest_ = rest_.subspan(taken.size());
        return taken;
    }
    /// A run of bytes behind its length.
    Bytes block()
    {
        return bytes(word());
    }
    Bytes rest()
    {
        return bytes(rest_.size());
    }

private:
    Bytes rest_;
};

inline std::string asText(Bytes bytes)
{
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

/// A folder of this process in memory (/dev/shm) or /tmp, removed at its end. Null-terminated texts only.
const std::string& fuzzFolder();

/// A whole file; empty when it cannot be read.
std::string readFile(const std::string& path);
void writeFile(const std::string& path, std::string_view text);
