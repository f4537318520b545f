// Memory and program file of the daemon, beside the bare object.

#include "bench.h"
#include "bench_paths.h"
#include "head_pair.h"
#include "lab_paths.h"
#include "process_figures.h"

#include <initializer_list>
#include <thread>

using namespace std::chrono_literals;

namespace {

constexpr double MEMORY_GOAL_KIB = 1024;

/// What a daemon has gone through before it is looked at: every kind of thread has run, and every buffer has grown.
bool useHead(Lab& lab)
{
    for (int i = 0; i < 20; ++i) {
        const std::string sign = i % 2 == 0 ? "" : "-";
        if (lab.call("moveTo", R"({"x_coord":")" + sign + R"(50","y_coord":"0"})") != R"({"error_code":0})")
            return false;
        std::this_thread::sleep_for(20ms);
        for (const char* method : {"getCapa", "getStatus", "getPresetAll", "stop"})
            lab.call(method);
    }
    return lab.call("setConfig", R"({"x_speed":"5","y_speed":"5"})") == R"({"error_code":0})" &&
           lab.call("moveStep", R"({"direction":"90"})") == R"({"error_code":0})" &&
           lab.call("stop") == R"({"error_code":0})";
}

void compare(Report& report, const char* what, const char* unit, double ptzd, double bare, bool goal)
{
    Row row{what, unit, ptzd, {}, bare};
    row.ratio = ptzd / bare;
    if (goal) {
        row.goal = "< 1 MiB more";
        row.met = ptzd - bare < MEMORY_GOAL_KIB;
    }
    report.add(row);
    report.require(ptzd > 0 && bare > 0, what);
}

} // namespace

void benchMemory(const Effort&, Report& report)
{
    HeadPair pair;
    report.require(pair.valid() && useHead(pair.lab()), "the lab starts");
    if (!pair.valid())
        return;
    const MemoryUse ptzd = memoryOf(pair.lab().programs.ptzdPid());
    const MemoryUse bare = memoryOf(pair.barePid());
    report.section("Memory after use, and the program file");
    compare(report, "resident", "KiB", ptzd.resident, bare.resident, true);
    compare(report, "private dirty", "KiB", ptzd.privateDirty, bare.privateDirty, true);
    compare(report, "resident stacks of all threads", "KiB", ptzd.stack, bare.stack, false);
    const ProgramFile ptzdFile = programFile(LAB_PTZD);
    const ProgramFile bareFile = programFile(BENCH_BARE_OBJECT);
    compare(report, "stripped program", "bytes", ptzdFile.strippedBytes, bareFile.strippedBytes, false);
    compare(report, "relocations", "entries", ptzdFile.relocations, bareFile.relocations, false);
}
