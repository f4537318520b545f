// Messages of the bus for inputs to send: the frame is right, the rest is as the input says.
#pragma once

#include "fuzz.h"
#include "host/ubusd/wire.h"

/// One of the numbers that the input may name, mostly ids that were seen; else a small one or any.
inline uint32_t busNumber(Input& input, const std::vector<uint32_t>& known)
{
    const uint8_t which = input.byte();
    if (which < 128 && !known.empty())
        return known[which % known.size()];
    return which == 255 ? static_cast<uint32_t>(input.word() << 16 | input.word()) : which & 127U;
}

/// What a call of the bus daemon's object for events needs, or something like it.
inline std::vector<uint8_t> busFields(Input& input, const std::vector<uint32_t>& known)
{
    std::vector<uint8_t> data;
    putField(data, input.byte() % 2 == 0 ? "object" : "x", busNumber(input, known));
    putField(data, input.byte() % 2 == 0 ? "pattern" : "id", asText(input.bytes(input.byte() % 16)));
    return data;
}

inline std::vector<uint8_t> busMessage(Input& input, const std::vector<uint32_t>& known)
{
    const auto type = static_cast<MessageType>(input.byte() % 9);
    const uint16_t seq = input.byte();
    MessageWriter writer(type, seq, busNumber(input, known));
    for (int count = input.byte() % 6; count > 0; --count) {
        const auto id = static_cast<AttrId>(input.byte() % 15);
        switch (input.byte() % 4) {
        case 0:
            writer.put(id, busNumber(input, known));
            break;
        case 1:
            writer.put(id, asText(input.bytes(input.byte())));
            break;
        case 2:
            writer.put(id, input.bytes(input.byte()));
            break;
        default:
            writer.put(id, busFields(input, known));
            break;
        }
    }
    const Bytes bytes = writer.finish();
    return {bytes.begin(), bytes.end()};
}
