#pragma once
// Calls on the lab's bus from a process outside it.

#include "lab/lab.h"

/// Calls a method and waits for its end. Any thread: a lock covers every use of the bus library, which is not safe
/// across threads everywhere, but is not held while waiting, so calls of several threads run side by side.
LabReply callOnBus(const std::string& socket, const std::string& object, const std::string& method,
                   const std::string& json, std::chrono::milliseconds timeout);
