// What the fuzzers share. A fuzzer is one file with a LLVMFuzzerTestOneInput: linked with libFuzzer it searches for
// inputs (./dev fuzz), linked with replay.cpp it runs its corpus as a test.
#pragma once

#include "rig/files.h"

#include <algorithm>

/// One input. @return 0; what must not be ends the process.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

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
