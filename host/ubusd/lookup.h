#pragma once
// Answers to lookups. All the rest that a client is sent may be dropped when it does not read; the answer to a lookup
// waits instead, and the client's further input with it.

#include "registry.h"

/// Begins the answer to the lookup message of `client`; answerLookup() gives it. Also refuses an empty path.
void beginLookup(Client& client, const Message& message);

/// Sends as much of the answer as there is room for. True when it is complete, or when there is no lookup.
bool answerLookup(Client& client, const Registry& registry);
