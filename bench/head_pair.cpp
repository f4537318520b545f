#include "head_pair.h"

#include "bench_paths.h"
#include "lab/core/files.h"
#include "lab/core/process.h"
#include "lab_paths.h"

#include <signal.h>

#include <cstdio>
#include <cstring>
#include <sstream>

using namespace std::chrono_literals;

namespace {

constexpr auto START_TIMEOUT = 10s;

std::string syncLog(const std::string& folder)
{
    return folder + "/log/syncs";
}

/// A reply without what its values say: field names, nesting, and whether a value is a text.
std::string shapeOf(const std::string& json)
{
    std::string shape;
    bool value = false;
    for (const char c : json) {
        const bool structure = strchr(":{},", c) != nullptr;
        if (structure || !value || c == '"') // a value keeps its quotes only
            shape += c;
        value = structure ? c == ':' : value;
    }
    return shape;
}

} // namespace

LabOptions benchHead()
{
    LabOptions options;
    options.factor = 25000;
    options.environment.emplace_back("PTZD_LAB_GLIBC_TIMERS=1");
    return options;
}

LabOptions countedHead()
{
    LabOptions options = benchHead();
    options.environment.clear(); // the lab's own timers follow its clock
    options.environment.push_back(std::string("LD_PRELOAD=") + LAB_PRELOAD + ":" + BENCH_COUNT_SYNCS);
    return options;
}

HeadPair::HeadPair(const LabOptions& options)
{
    LabOptions prepared = options;
    const auto given = options.config.find("ptzd");
    const std::string settings =
        given != options.config.end() ? given->second : readFile(std::string(LAB_CONFIG_FOLDER) + "/ptzd");
    prepared.config["bare"] = settings;
    prepared.environment.push_back("PTZD_SYNC_LOG=" + syncLog(lab_.folder()));
    if (!lab_.up(prepared))
        fprintf(stderr, "the lab does not start: %s\n", lab_.error().c_str());
    else if (launchBare())
        bareAnswers();
}

HeadPair::~HeadPair()
{
    endBare();
}

bool HeadPair::launchBare()
{
    ProgramStart start;
    start.command = {BENCH_BARE_OBJECT};
    start.environment = lab_.environment();
    start.logFile = lab_.folder() + "/log/bare.log";
    start.pidFile = lab_.folder() + "/pid/bare";
    start.endWithParent = true;
    std::string error;
    barePid_ = startProcess(start, error);
    if (barePid_ == 0)
        fprintf(stderr, "%s\n", error.c_str());
    return barePid_ != 0;
}

bool HeadPair::bareAnswers()
{
    const auto there = [this] { return lab_.invoke("bare_requests", "none").status == 3; }; // no such method
    if (waitUntil(there, START_TIMEOUT))
        return true;
    fprintf(stderr, "the bare object does not answer:\n%s", readFile(lab_.folder() + "/log/bare.log").c_str());
    endBare();
    return false;
}

void HeadPair::endBare()
{
    if (barePid_ == 0)
        return;
    sendSignal(barePid_, SIGTERM);
    if (!awaitEnd(barePid_, lab_.folder(), 5s))
        sendSignal(barePid_, SIGKILL);
    barePid_ = 0;
}

bool HeadPair::sameShape(const std::string& bare, const std::string& method)
{
    return shapeOf(lab_.invoke("ptzd", method).text) == shapeOf(lab_.invoke(bare, method).text);
}

std::vector<Sync> HeadPair::syncs(pid_t pid) const
{
    std::vector<Sync> result;
    std::istringstream lines(readFile(syncLog(lab_.folder())));
    for (Sync sync{}; lines >> sync.pid >> sync.bytes >> sync.path;) {
        if (sync.pid == pid)
            result.push_back(sync);
    }
    return result;
}
