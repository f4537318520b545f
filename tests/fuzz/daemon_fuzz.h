// What the fuzzers of the daemon share besides its rig: messages of inputs, and what must hold whatever they do.
#pragma once

#include "fuzz.h"
#include "rig/daemon_rig.h"

/// Starts the daemon on settings, runs `inside` with time going on and no worker that goes on for ever.
/// @return what PtzdInit returned.
int32_t fuzzDaemon(const Settings& settings, const std::function<void()>& inside);

/// Runs the worker threads that were started, one after the other, each for a limited time.
void runWorkers();

/// Lets the armed one of the four timers (0..3) expire.
void expire(unsigned timer);

/// Attributes of a message, made of an input by its first byte: as they are, from JSON text, or from JSON text and then
/// damaged. Empty, without a value, when the text is no JSON object.
std::optional<std::vector<uint8_t>> messageFrom(Input input);

/// Checks what must hold at any time: the map of the presets names enabled slots that carry the id, and no motion is
/// announced twice.
void checkState();

/// Checks that the presets are listed as they are stored.
void checkPresetsStored();
