// At rest, and while the head moves: wake-ups and processor time.

#include "bench.h"
#include "callers.h"
#include "head_pair.h"
#include "process_figures.h"

#include <initializer_list>
#include <thread>

namespace {

constexpr double CYCLES_A_SECOND = 5; // of the touring thread
constexpr double HOUR = 3600;
constexpr int32_t SLOW = 1;

/// What a process has spent since it was first looked at.
class Watch {
public:
    explicit Watch(pid_t pid) : pid_(pid), wakeUps_(wakeUps(pid)), ns_(processorNs(pid))
    {
    }
    [[nodiscard]] double woken() const
    {
        return static_cast<double>(wakeUps(pid_) - wakeUps_);
    }
    [[nodiscard]] double ms() const
    {
        return static_cast<double>(processorNs(pid_) - ns_) / 1e6;
    }

private:
    pid_t pid_;
    int64_t wakeUps_;
    int64_t ns_;
};

int64_t statusRequests(Lab& lab)
{
    return int64_t{lab.motors.served(LAB_PAN, LAB_GET_STATUS)} + lab.motors.served(LAB_TILT, LAB_GET_STATUS);
}

void atRest(HeadPair& pair, const Effort& effort, Report& report)
{
    const Watch ptzd(pair.lab().programs.ptzdPid());
    const Watch bare(pair.barePid());
    const int64_t requests = statusRequests(pair.lab());
    std::this_thread::sleep_for(effort.rest);
    const double seconds = std::chrono::duration<double>(effort.rest).count();
    const double woken = ptzd.woken();
    Row row{"wake-ups a second at rest", "1/s", woken / seconds, {}, bare.woken() / seconds};
    row.goal = "≤ 5";
    row.met = woken <= CYCLES_A_SECOND * seconds + 1; // one may have been due at the beginning
    report.add(row);
    report.add({"processor time of an hour at rest", "ms", ptzd.ms() / seconds * HOUR, {}, bare.ms() / seconds * HOUR});
    report.require(woken > 0, "the touring thread wakes");
    report.require(statusRequests(pair.lab()) == requests, "a head at rest is not asked for its status");
}

void moving(HeadPair& pair, const Effort& effort, Report& report)
{
    Lab& lab = pair.lab();
    for (const LabAxisId axis : {LAB_PAN, LAB_TILT})
        lab.motors.setFactor(axis, SLOW);
    const double seconds = std::chrono::duration<double>(effort.rest).count();
    report.require(lab.call("moveTo", R"({"x_coord":"100","y_coord":"40"})") == R"({"error_code":0})", "moveTo works");
    const Watch ptzd(lab.programs.ptzdPid());
    int64_t requests = statusRequests(lab);
    std::this_thread::sleep_for(effort.rest);
    const double ours = ptzd.ms();
    const double polls = static_cast<double>(statusRequests(lab) - requests) / 2;
    lab.call("stop");
    lab.invoke("bare_requests", "poll");
    const Watch bare(pair.barePid());
    requests = statusRequests(lab);
    std::this_thread::sleep_for(effort.rest);
    const double theirs = bare.ms();
    const double barePolls = static_cast<double>(statusRequests(lab) - requests) / 2;
    lab.invoke("bare_requests", "poll");
    report.require(polls > 0 && barePolls > 0, "a moving head is asked for its status");
    report.add({"polls a second while the head moves", "1/s", polls / seconds, {}, barePolls / seconds});
    Row row{"processor time of a poll", "µs", ours * 1000 / polls, {}, theirs * 1000 / barePolls};
    row.ratio = *row.ptzd / *row.bare;
    report.add(row);
    report.add({"processor time while the head moves", "‰", ours / seconds, {}, theirs / seconds});
}

} // namespace

void benchRest(const Effort& effort, Report& report)
{
    HeadPair pair;
    report.require(pair.valid(), "the lab starts");
    if (!pair.valid())
        return;
    report.section("At rest, and while the head moves; the bare object polls in its event loop");
    atRest(pair, effort, report);
    moving(pair, effort, report);
}
