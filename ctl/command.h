// What the commands share: options, arguments, how they end. All of it runs on the process's one thread.
#pragma once

#include "exit_status.h"

#include <stdint.h>

#include <span>

using Arguments = std::span<const char* const>; // each a text, never null

struct Options {
    const char* socket;
    int32_t timeoutMs = 10'000; // of one call
    bool json = false;
    bool wait = false;
    int64_t waitMs = 0; // 0: as long as the motion takes
    bool stopOnSignal = true;
};

/// As given; written before a command runs, and not afterwards.
[[nodiscard]] const Options& options();

/// A command's body. What fails ends the program by `die`; what returns has succeeded.
using CommandBody = void(Arguments arguments);

/// Prints "ptzctl: TEXT" on standard error and ends the program. The text says what to do.
[[noreturn, gnu::format(printf, 2, 3)]] void die(ExitStatus status, const char* format, ...);

/// What `die` prints before its text from now on: something that has happened all the same.
void setErrorPrefix(const char* prefix);

/// Ends the program by a status that a signal's number is part of, or whose text is already printed.
[[noreturn]] void quit(int status);

/// The whole text as a decimal integer within the range, else `die` with `what` as the argument's name.
[[nodiscard]] int32_t integerArgument(const char* text, int32_t low, int32_t high, const char* what);

/// The whole text as a finite decimal number within the range. @return false for any other text.
[[nodiscard]] bool parseDecimal(const char* text, double low, double high, double& out);

/// The nearest 32-bit integer; halves away from 0.
[[nodiscard]] int32_t rounded(double value);

/// The place of the text in a list of words, in any letter case, else `die`.
[[nodiscard]] size_t wordArgument(const char* text, std::span<const char* const> words, const char* what);

CommandBody showStatus;
CommandBody moveBy;
CommandBody goTo;
CommandBody stepTo;
CommandBody stopMotion;
CommandBody goHome;
CommandBody calibrate;
CommandBody showOrSetSpeed;
CommandBody startPanorama;
CommandBody stopPanorama;
CommandBody listPresets;
CommandBody goToPreset;
CommandBody setPreset;
CommandBody deletePresets;
CommandBody switchTourOn;
CommandBody switchTourOff;
CommandBody showTour;
CommandBody showPlan;
CommandBody setPlan;
CommandBody clearPlan;
CommandBody switchTracking;
CommandBody switchMask;
CommandBody setFlip;
CommandBody watchMotions;
CommandBody serveOnvif;
