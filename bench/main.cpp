// ./dev bench: what the daemon costs, as one table of comparisons made within one run.

#include "bench.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

using namespace std::chrono_literals;

namespace {

constexpr const char* MEMORY_FOLDER = "/dev/shm";

struct NamedPart {
    const char* name;
    Part* run;
    const char* what;
};

constexpr NamedPart PARTS[] = {
    {"calls", benchCalls, "round trips with 1, 8 and 64 clients"},
    {"motion", benchMotion, "from moveTo and stop to the motors"},
    {"rest", benchRest, "wake-ups and processor time, at rest and moving"},
    {"memory", benchMemory, "memory and program file"},
    {"start", benchStart, "start to the first answer"},
    {"writes", benchWrites, "what saved positions write"},
    {"clients", benchClients, "getStatus with 1 to 64 clients"},
    {"settings", benchSettings, "0 to 8 presets, 0 to 70 plan entries"},
    {"daemons", benchDaemons, "1 to 50 daemons on 50 buses"},
};

const Effort FULL = {.rounds = 41,
                     .window = 25ms,
                     .motions = 200,
                     .starts = 15,
                     .rest = 16s,
                     .saves = 20,
                     .labSpeed = 60,
                     .clients = {1, 2, 4, 8, 16, 32, 64},
                     .daemons = {1, 10, 50}};
const Effort QUICK = {.rounds = 11,
                      .window = 25ms,
                      .motions = 50,
                      .starts = 5,
                      .rest = 4s,
                      .saves = 10,
                      .labSpeed = 60,
                      .clients = {1, 8, 64},
                      .daemons = {1, 10}};
const Effort SMOKE = {.rounds = 1,
                      .window = 10ms,
                      .motions = 5,
                      .starts = 1,
                      .rest = 1s,
                      .saves = 1,
                      .labSpeed = 10,
                      .clients = {1, 4},
                      .daemons = {1, 2}};

struct Options {
    const Effort* effort = &FULL;
    std::string picture{};
    std::vector<const NamedPart*> parts{};
};

[[noreturn]] void usage()
{
    fprintf(stderr, "ptzd_bench [--quick | --smoke] [--plot FILE.svg] [PART...]\n");
    for (const NamedPart& part : PARTS)
        fprintf(stderr, "  %-10s %s\n", part.name, part.what);
    exit(2);
}

const NamedPart* partNamed(const char* name)
{
    for (const NamedPart& part : PARTS) {
        if (strcmp(part.name, name) == 0)
            return &part;
    }
    usage();
}

Options optionsFrom(int count, char** arguments)
{
    Options options;
    for (int i = 1; i < count; ++i) {
        if (strcmp(arguments[i], "--quick") == 0)
            options.effort = &QUICK;
        else if (strcmp(arguments[i], "--smoke") == 0)
            options.effort = &SMOKE;
        else if (strcmp(arguments[i], "--plot") == 0 && i + 1 < count)
            options.picture = arguments[++i];
        else
            options.parts.push_back(partNamed(arguments[i]));
    }
    if (options.parts.empty()) {
        for (const NamedPart& part : PARTS)
            options.parts.push_back(&part);
    }
    return options;
}

} // namespace

int main(int count, char** arguments)
{
    const Options options = optionsFrom(count, arguments);
    // In memory: then a commit costs what the daemon does for it, not what this machine's disk does.
    if (!getenv("TMPDIR") && access(MEMORY_FOLDER, W_OK) == 0)
        setenv("TMPDIR", MEMORY_FOLDER, 1);
    Report report;
    for (const NamedPart* part : options.parts) {
        fprintf(stderr, "bench: %s\n", part->what);
        part->run(*options.effort, report);
    }
    fputs(tableOf(report).c_str(), stdout);
    return report.failed() ? 1 : 0;
}
