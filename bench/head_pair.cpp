#include "head_pair.h"

#include "bench_paths.h"
#include "lab/core/files.h"
#include "lab_paths.h"

#include <cstdio>
#include <cstring>
#include <sstream>

namespace {

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
    const auto answers = [this] { return lab_.invoke("bare_requests", "none").status == 3; }; // no such method
    started_ = lab_.up(prepared) && launchBare() && lab_.programs.awaitAnswer("bare", answers);
    if (!started_)
        fprintf(stderr, "the lab does not start: %s\n", lab_.error().c_str());
}

HeadPair::~HeadPair()
{
    endBare();
}

bool HeadPair::launchBare()
{
    return lab_.programs.start("bare", {BENCH_BARE_OBJECT});
}

void HeadPair::endBare()
{
    (void)lab_.programs.stop("bare"); // which kills one that does not end
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
