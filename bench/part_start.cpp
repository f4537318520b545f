// From the start of the program to its first answer. The head does not turn to calibrate: it is in factory mode.

#include "bench.h"
#include "callers.h"
#include "head_pair.h"
#include "lab/clock.h"
#include "statistics.h"

#include <signal.h>

#include <thread>

using namespace std::chrono_literals;

namespace {

constexpr auto TIMEOUT = 10s;
constexpr auto PAUSE = 100us;

/// Asks until the object answers. The ms since `startNs`; 0 when it never does.
double answeredAfter(Callers& callers, const char* object, int64_t startNs)
{
    for (;;) {
        const int64_t answered = callers.once({object, "getCapa"}).answeredNs;
        if (answered != 0)
            return static_cast<double>(answered - startNs) / NS_PER_MS;
        if (monotonicNs() - startNs > std::chrono::nanoseconds(TIMEOUT).count())
            return 0;
        std::this_thread::sleep_for(PAUSE);
    }
}

} // namespace

void benchStart(const Effort& effort, Report& report)
{
    LabOptions options = benchHead();
    options.config["diagd"] = "config factory_mode 'factory_mode'\n\toption enabled '1'\n";
    options.waitCalibrated = false;
    HeadPair pair(options);
    report.require(pair.valid(), "the lab starts");
    if (!pair.valid())
        return;
    Callers callers(pair.lab().busSocket(), 1);
    Sides ms;
    for (int start = 0; start < effort.starts; ++start) {
        pair.lab().programs.killPtzd(SIGTERM);
        int64_t begin = monotonicNs();
        pair.lab().programs.startPtzd();
        ms.ptzd.push_back(answeredAfter(callers, "ptzd", begin));
        pair.endBare();
        begin = monotonicNs();
        pair.launchBare();
        ms.bare.push_back(answeredAfter(callers, "bare", begin));
    }
    report.section("Start");
    Row row{"start of the program to its first answer",
            "ms",
            median(ms.ptzd),
            percentile99(ms.ptzd),
            median(ms.bare),
            percentile99(ms.bare)};
    row.ratio = ms.ratio();
    report.add(row);
    report.require(quantile(ms.ptzd, 0) > 0 && quantile(ms.bare, 0) > 0, "both answer after each start");
}
