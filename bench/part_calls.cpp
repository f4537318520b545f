// Round trips on the bus, beside an object that only answers and one that makes the same device requests.

#include "bench.h"
#include "callers.h"
#include "head_pair.h"
#include "process_figures.h"
#include "statistics.h"

#include <initializer_list>
#include <iterator>

namespace {

constexpr double RATE_GOAL = 0.95;
constexpr const char* OWN_REQUESTS = "bare_requests";
constexpr const char* NONE = "bare";

struct Comparison {
    const char* method;
    const char* bare;
    const char* arguments[2];
    bool goal; // of a reading method, and of one that commits
};

constexpr const char* SPEEDS[] = {R"({"x_speed":"5","y_speed":"5"})", R"({"x_speed":"4","y_speed":"4"})"};
constexpr Comparison COMPARISONS[] = {
    {"getCapa", NONE, {"", ""}, true},
    {"checkMotorStatus", NONE, {"", ""}, true},
    {"getStatus", NONE, {"", ""}, false},
    {"getStatus", OWN_REQUESTS, {"", ""}, true},
    {"stop", NONE, {"", ""}, false},
    {"stop", OWN_REQUESTS, {"", ""}, false},
    {"setConfig", NONE, {SPEEDS[0], SPEEDS[1]}, false},
    {"setConfig", OWN_REQUESTS, {SPEEDS[0], SPEEDS[1]}, true},
};

void append(std::vector<double>& to, const std::vector<double>& from)
{
    to.insert(to.end(), from.begin(), from.end());
}

std::string nameOf(const Comparison& comparison)
{
    const bool alike = comparison.bare == OWN_REQUESTS;
    return std::string(comparison.method) + (alike ? ", bare with the same requests" : "");
}

/// Rates, times, and processor time of the object for each call, of both sides in alternation.
struct Measured {
    Sides rates;
    Sides us;
    Sides processorUs;
};

CallTimes watched(Callers& callers, const Target& target, pid_t pid, const Effort& effort, std::vector<double>& us)
{
    const int64_t before = processorNs(pid);
    CallTimes times = callers.run(target, effort.window);
    if (!times.us.empty())
        us.push_back(static_cast<double>(processorNs(pid) - before) / 1000 / static_cast<double>(times.us.size()));
    return times;
}

Measured alternate(HeadPair& pair, Callers& callers, const Target& ptzd, const Target& bare, const Effort& effort,
                   Report& report)
{
    const pid_t ptzdPid = pair.lab().programs.ptzdPid();
    Measured measured;
    for (int round = 0; round < effort.rounds; ++round) {
        const CallTimes ours = watched(callers, ptzd, ptzdPid, effort, measured.processorUs.ptzd);
        const CallTimes theirs = watched(callers, bare, pair.barePid(), effort, measured.processorUs.bare);
        report.require(ours.perSecond > 0 && theirs.perSecond > 0, std::string(ptzd.method) + " is answered");
        if (ours.perSecond <= 0 || theirs.perSecond <= 0)
            break;
        measured.rates.ptzd.push_back(ours.perSecond);
        measured.rates.bare.push_back(theirs.perSecond);
        append(measured.us.ptzd, ours.us);
        append(measured.us.bare, theirs.us);
    }
    return measured;
}

void compare(HeadPair& pair, const Comparison& comparison, int clients, const Effort& effort, Report& report)
{
    Callers callers(pair.lab().busSocket(), clients);
    const Target ptzd{"ptzd", comparison.method, {comparison.arguments[0], comparison.arguments[1]}};
    const Target bare{comparison.bare, comparison.method, {comparison.arguments[0], comparison.arguments[1]}};
    const Measured measured = alternate(pair, callers, ptzd, bare, effort, report);
    Row row{nameOf(comparison) + ", " + std::to_string(clients) + (clients == 1 ? " client" : " clients"), "µs"};
    row.ptzd = median(measured.us.ptzd);
    row.ptzd99 = percentile99(measured.us.ptzd);
    row.bare = median(measured.us.bare);
    row.bare99 = percentile99(measured.us.bare);
    row.ratio = measured.rates.ratio();
    if (comparison.goal) {
        row.goal = "rate ≥ 0.95";
        row.met = *row.ratio >= RATE_GOAL;
    }
    report.add(row);
    if (clients != 1)
        return;
    Row processor{nameOf(comparison) + ", processor time of the object", "µs"};
    processor.ptzd = median(measured.processorUs.ptzd);
    processor.bare = median(measured.processorUs.bare);
    processor.ratio = *processor.ptzd / *processor.bare;
    report.add(processor);
}

} // namespace

void benchCalls(const Effort& effort, Report& report)
{
    HeadPair pair;
    report.require(pair.valid(), "the lab starts");
    if (!pair.valid())
        return;
    report.section("Round trip of a call; the ratio is that of the rates");
    for (const Comparison& comparison : COMPARISONS) {
        if (comparison.arguments[0][0] == '\0')
            report.require(pair.sameShape(comparison.bare, comparison.method),
                           std::string(comparison.method) + " answers in the bare object's shape");
        for (const int clients : {1, 8, 64})
            compare(pair, comparison, clients, effort, report);
    }
    const uint32_t before =
        pair.lab().motors.served(LAB_PAN, LAB_GET_STATUS) + pair.lab().motors.served(LAB_TILT, LAB_GET_STATUS);
    report.require(pair.lab().call("getStatus").find("x_coord") != std::string::npos &&
                       pair.lab().motors.served(LAB_PAN, LAB_GET_STATUS) +
                               pair.lab().motors.served(LAB_TILT, LAB_GET_STATUS) ==
                           before + 2,
                   "getStatus makes two device requests");
}

void benchClients(const Effort& effort, Report& report)
{
    HeadPair pair;
    report.require(pair.valid(), "the lab starts");
    if (!pair.valid())
        return;
    report.section("More clients: calls of getStatus a second, bare with the same requests");
    for (const int clients : effort.clients) {
        Callers callers(pair.lab().busSocket(), clients);
        const Measured measured =
            alternate(pair, callers, {"ptzd", "getStatus"}, {OWN_REQUESTS, "getStatus"}, effort, report);
        Row row{std::to_string(clients) + (clients == 1 ? " client" : " clients"), "1/s"};
        row.ptzd = median(measured.rates.ptzd);
        row.bare = median(measured.rates.bare);
        row.ratio = measured.rates.ratio();
        report.add(row);
        report.point("getStatus a second, over clients", "ptzd", clients, *row.ptzd);
        report.point("getStatus a second, over clients", "bare object", clients, *row.bare);
    }
}
