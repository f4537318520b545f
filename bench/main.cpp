// ./dev bench: what the daemon costs, as one table of comparisons made within one run.

#include "bench.h"

#include <sched.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
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
    {"subscribers", benchSubscribers, "moveTo with 0, 1 and 8 subscribers of the daemon"},
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

/// The value behind a name in a file of NAME=VALUE or NAME : VALUE lines, without quotes.
std::string valueIn(const char* path, const std::string& name)
{
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        const size_t from = line.find_first_not_of(" \t:=\"", name.size());
        if (line.starts_with(name) && from != std::string::npos)
            return line.substr(from, line.find_last_not_of('"') + 1 - from);
    }
    return "unknown";
}

/// Against whatever else this machine does; the labs' programs inherit both. A single processor is what many a camera
/// has, and saves the ratios from the luck of who runs beside whom.
void steady()
{
    cpu_set_t allowed;
    cpu_set_t last;
    CPU_ZERO(&last);
    if (sched_getaffinity(0, sizeof(allowed), &allowed) == 0) {
        int processor = CPU_SETSIZE - 1;
        while (processor > 0 && !CPU_ISSET(processor, &allowed))
            --processor;
        CPU_SET(processor, &last);
        (void)sched_setaffinity(0, sizeof(last), &last);
    }
    const sched_param lowest{.sched_priority = 1};
    (void)sched_setscheduler(0, SCHED_RR, &lowest); // without the right to, it stays as it is
}

std::string machine()
{
    char day[16] = "";
    const time_t now = time(nullptr);
    tm local{};
    strftime(day, sizeof(day), "%Y-%m-%d", localtime_r(&now, &local));
    return valueIn("/proc/cpuinfo", "model name") + ", " + std::to_string(sysconf(_SC_NPROCESSORS_ONLN)) +
           " processors, " + valueIn("/etc/os-release", "PRETTY_NAME") + ", " + day;
}

[[noreturn]] void usage()
{
    fprintf(stderr, "ptzd_bench [--quick | --smoke] [--plot FILE.svg] [PART...]\n");
    for (const NamedPart& part : PARTS)
        fprintf(stderr, "  %-12s %s\n", part.name, part.what);
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
    if (options.effort != &SMOKE)
        steady();
    Report report;
    for (const NamedPart* part : options.parts) {
        fprintf(stderr, "bench: %s\n", part->what);
        part->run(*options.effort, report);
    }
    printf("%s\n\n%s", machine().c_str(), tableOf(report).c_str());
    if (!options.picture.empty() && !(std::ofstream(options.picture) << pictureOf(report)).flush()) {
        fprintf(stderr, "cannot write %s\n", options.picture.c_str());
        return 1;
    }
    return report.failed() ? 1 : 0;
}
