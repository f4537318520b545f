// Many daemons on one machine, each on a bus of its own with the bare object beside it.

#include "bench.h"
#include "callers.h"
#include "head_pair.h"
#include "process_figures.h"
#include "statistics.h"

#include <memory>
#include <thread>

using namespace std::chrono_literals;

namespace {

constexpr auto WINDOW = 20ms;

using Pairs = std::vector<std::unique_ptr<HeadPair>>;

struct Sums {
    double proportional = 0;
    double privateDirty = 0;
    double wakeUps = 0;
    double processorMs = 0;
};

enum Program { PTZD, BARE };

pid_t pidOf(HeadPair& pair, Program program)
{
    return program == PTZD ? pair.lab().programs.ptzdPid() : pair.barePid();
}

/// What all of one kind take while all rest for that long, of a single one on the average.
Sums atRest(const Pairs& pairs, const Program (&programs)[2], std::chrono::milliseconds rest, Sums& bare)
{
    Sums sums[2];
    const auto count = [&](double sign) {
        for (const Program program : programs) {
            for (const auto& pair : pairs) {
                sums[program].wakeUps += sign * static_cast<double>(wakeUps(pidOf(*pair, program)));
                sums[program].processorMs += sign * static_cast<double>(processorNs(pidOf(*pair, program))) / 1e6;
            }
        }
    };
    count(-1);
    std::this_thread::sleep_for(rest);
    count(1);
    const double seconds = std::chrono::duration<double>(rest).count();
    const auto labs = static_cast<double>(pairs.size());
    for (const Program program : programs) {
        for (const auto& pair : pairs) {
            const MemoryUse use = memoryOf(pidOf(*pair, program));
            sums[program].proportional += use.proportional / labs;
            sums[program].privateDirty += use.privateDirty / labs;
        }
        sums[program].wakeUps /= labs * seconds;
        sums[program].processorMs /= labs * seconds;
    }
    bare = sums[BARE];
    return sums[PTZD];
}

/// Each lab's daemon and bare object in turn.
Sides roundTrips(const Pairs& pairs)
{
    Sides us;
    for (const auto& pair : pairs) {
        Callers callers(pair->lab().busSocket(), 1);
        us.ptzd.push_back(median(callers.run({"ptzd", "getStatus"}, WINDOW).us));
        us.bare.push_back(median(callers.run({"bare_requests", "getStatus"}, WINDOW).us));
    }
    return us;
}

void with(int count, const Effort& effort, Report& report)
{
    Pairs pairs;
    bool valid = true;
    for (int i = 0; i < count && valid; ++i) {
        pairs.push_back(std::make_unique<HeadPair>());
        valid = pairs.back()->valid();
    }
    report.require(valid, std::to_string(count) + " labs start");
    if (!valid)
        return;
    const std::string name = std::to_string(count) + (count == 1 ? " daemon: " : " daemons: ");
    Sums bare;
    const Sums ptzd = atRest(pairs, {PTZD, BARE}, effort.rest / 4, bare);
    const Sides us = roundTrips(pairs);
    report.add({name + "memory of one, shared pages by part", "KiB", ptzd.proportional, {}, bare.proportional});
    report.add({name + "private dirty of one", "KiB", ptzd.privateDirty, {}, bare.privateDirty});
    report.add({name + "wake-ups of one at rest", "1/s", ptzd.wakeUps, {}, bare.wakeUps});
    report.add({name + "processor time of one at rest", "‰", ptzd.processorMs, {}, bare.processorMs});
    Row row{name + "getStatus", "µs", median(us.ptzd), percentile99(us.ptzd), median(us.bare), percentile99(us.bare)};
    row.ratio = us.ratio();
    report.add(row);
    report.require(quantile(us.ptzd, 0) > 0 && ptzd.privateDirty > 0, "every daemon answers");
    report.point("KiB of memory of each, over daemons", "ptzd", count, ptzd.proportional);
    report.point("KiB of memory of each, over daemons", "bare object", count, bare.proportional);
}

} // namespace

void benchDaemons(const Effort& effort, Report& report)
{
    report.section("More daemons, each on its own bus; bare with the same requests");
    for (const int count : effort.daemons)
        with(count, effort, report);
}
