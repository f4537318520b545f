// The bus at a prompt: lists objects, calls methods, sends events and listens to them.

#include "command.h"

#include <climits>
#include <cstdio>

#include <algorithm>
#include <string_view>

#include <unistd.h>

namespace {

constexpr int EXIT_USAGE = 1;
constexpr int EXIT_WRONG_USE = 254;
constexpr int EXIT_NO_CONNECTION = 255;

struct CommandEntry {
    std::string_view name;
    Command* run;
    bool usesLoop;
};

constexpr CommandEntry COMMANDS[] = {
    {.name = "list", .run = listObjects, .usesLoop = false},
    {.name = "call", .run = callMethod, .usesLoop = false},
    {.name = "listen", .run = listenToEvents, .usesLoop = true},
    {.name = "subscribe", .run = subscribe, .usesLoop = true},
    {.name = "send", .run = sendEvent, .usesLoop = false},
};

void printUsage(const char* program)
{
    fprintf(stderr,
            "Usage: %s [OPTIONS] COMMAND [ARGUMENTS]\n"
            "Options:\n"
            "  -s SOCKET   path of the bus daemon's socket\n"
            "  -t SECONDS  how long to wait: for an answer (30), for events and notifications (no end)\n"
            "  -S          terse: compact output, no error messages\n"
            "  -v          list: with the methods and their arguments\n"
            "Commands:\n"
            "  list [PATH]              names of the objects on the bus; PATH may end in *\n"
            "  call PATH METHOD [JSON]  call a method of an object\n"
            "  listen [PATTERN ...]     print the events of these names; PATTERN may end in *\n"
            "  subscribe PATH ...       print the notifications of these objects\n"
            "  send NAME [JSON]         send an event\n",
            program);
}

std::optional<int> wholeNumber(const char* text)
{
    char* end = nullptr;
    const long value = strtol(text, &end, 10);
    if (end == text || *end != '\0')
        return std::nullopt;
    return static_cast<int>(std::clamp<long>(value, INT_MIN, INT_MAX));
}

bool parseOptions(int argc, char** argv, Options& options)
{
    for (int option = 0; (option = getopt(argc, argv, "s:t:Sv")) != -1;) {
        switch (option) {
        case 's':
            options.socket = optarg;
            break;
        case 't':
            options.timeoutSeconds = wholeNumber(optarg);
            if (!options.timeoutSeconds)
                return false;
            break;
        case 'S':
            options.terse = true;
            break;
        case 'v':
            options.verbose = true;
            break;
        default:
            return false;
        }
    }
    return optind < argc;
}

// Prints what went wrong and gives the exit status. A script whose standard error is no terminal learns of a failed
// call from one line that holds the whole call, and from the status counted down from 256.
int report(const Outcome& outcome, const Options& options, Arguments arguments)
{
    int exitStatus = outcome.status;
    if (!options.terse && outcome.callFailed && !isatty(STDERR_FILENO)) {
        fprintf(stderr, "Command failed: ubus call ");
        for (const char* argument : arguments)
            fprintf(stderr, "%s ", argument);
        fprintf(stderr, "(%s)\n", ubus_strerror(outcome.status));
        exitStatus = -outcome.status;
    } else if (!options.terse && !outcome.reported) {
        fprintf(stderr, "Command failed: %s\n", ubus_strerror(outcome.status));
    }
    // Handlers may return any number; a failure must not look like success for its last 8 bits.
    return (exitStatus & 0xff) != 0 ? exitStatus & 0xff : UBUS_STATUS_UNKNOWN_ERROR;
}

} // namespace

int Options::timeoutMs(int defaultSeconds) const
{
    constexpr int LONGEST = INT_MAX / 1000;
    return std::clamp(timeoutSeconds.value_or(defaultSeconds), -LONGEST, LONGEST) * 1000;
}

int main(int argc, char** argv)
{
    Options options;
    if (!parseOptions(argc, argv, options)) {
        printUsage(argv[0]);
        return EXIT_USAGE;
    }
    ubus_context* bus = ubus_connect(options.socket);
    if (!bus) {
        if (!options.terse)
            fprintf(stderr, "Failed to connect to ubus\n");
        return EXIT_NO_CONNECTION;
    }
    const Arguments arguments(argv + optind + 1, argv + argc);
    const auto command = std::ranges::find(COMMANDS, std::string_view(argv[optind]), &CommandEntry::name);
    Outcome outcome{.wrongUse = true};
    if (command != std::end(COMMANDS)) {
        if (!command->usesLoop)
            uloop_done(); // connecting took SIGINT and SIGTERM over: without the loop they shall end the process
        outcome = command->run(*bus, options, arguments);
    }
    ubus_free(bus);

    if (outcome.wrongUse) {
        printUsage(argv[0]);
        return EXIT_WRONG_USE;
    }
    return outcome.status == UBUS_STATUS_OK ? EXIT_SUCCESS : report(outcome, options, arguments);
}
