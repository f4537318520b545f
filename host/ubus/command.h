#pragma once
// What the commands have in common: options, arguments, outcome. All of it runs on the process's one thread.

#include <cstdlib>

#include <memory>
#include <optional>
#include <span>

#include <libubus.h>

struct Options {
    const char* socket = nullptr;      // null: the library's default
    std::optional<int> timeoutSeconds; // as given; each command has its own default
    bool terse = false;
    bool verbose = false;

    /// In milliseconds, as long as fits; 0 is for ever.
    int timeoutMs(int defaultSeconds) const;
};

/// How a command ended.
struct Outcome {
    int status = UBUS_STATUS_OK;
    bool wrongUse = false;   // the arguments make no sense: show how to use it
    bool callFailed = false; // reported in the way that belongs to failed calls
    bool reported = false;   // by the command itself
};

using Arguments = std::span<char* const>;
using Command = Outcome(ubus_context& bus, const Options& options, Arguments arguments);

Command listObjects;    // [PATH]
Command callMethod;     // PATH METHOD [JSON]
Command listenToEvents; // [PATTERN ...]
Command subscribe;      // PATH ...
Command sendEvent;      // NAME [JSON]

struct FreeText {
    void operator()(char* text) const
    {
        free(text);
    }
};
using Text = std::unique_ptr<char, FreeText>;
