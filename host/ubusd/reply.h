#pragma once
// The daemon's own answers, which repeat the request's sequence number and peer.

#include "client.h"

/// Size of a message with a status and nothing else.
constexpr size_t STATUS_MESSAGE_SIZE = FRAME_SIZE + ATTR_SIZE + sizeof(uint32_t);

inline void sendStatus(Client& client, uint16_t seq, uint32_t peer, Status status)
{
    MessageWriter writer(MSG_STATUS, seq, peer);
    writer.put(ATTR_STATUS, static_cast<uint32_t>(status));
    client.send(writer.finish());
}
