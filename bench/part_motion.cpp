// How soon a motion begins and ends after its call, by the journal's times, beside an object that makes the same bus
// connections, look-up, calls and event, and the same two device requests.

#include "bench.h"
#include "callers.h"
#include "head_pair.h"
#include "lab/clock.h"
#include "lab/state_file.h"
#include "statistics.h"

#include <fstream>
#include <initializer_list>
#include <thread>

using namespace std::chrono_literals;

namespace {

constexpr double TIME_GOAL = 1.1;
constexpr int32_t SLOW = 1; // steps a second and unit of speed: no motion ends before it is stopped
constexpr auto CALM = 3ms;  // for the receivers of the notifications
constexpr const char* FAR = R"({"x_coord":"100","y_coord":"40"})";

/// Times from sending a call, in µs.
struct Timed {
    double first = 0;
    double second = 0;
    double reply = 0;
};

class Journal {
public:
    explicit Journal(HeadPair& pair) : pair_(pair), state_(mapLabState(pair.lab().folder().c_str()))
    {
    }
    [[nodiscard]] bool valid() const
    {
        return state_ != nullptr;
    }
    /// Calls, and looks for the two requests of that name that it makes; zeros unless it makes just two.
    Timed timed(Callers& callers, const Target& target, const std::string& request)
    {
        pair_.lab().records.clear();
        // An empty line, so that it is not the first request of either side that pays for the emptied file's new page.
        std::ofstream(pair_.lab().folder() + "/journal", std::ios::app) << std::endl;
        const CallMoment call = callers.once(target);
        std::vector<double> us;
        for (const LabJournalEntry& entry : pair_.lab().records.journal()) {
            if (entry.request == request)
                us.push_back(static_cast<double>(entry.realNs + state_->startNs - call.sentNs) / 1000);
        }
        if (us.size() != 2 || call.sentNs == 0)
            return {};
        return {us[0], us[1], static_cast<double>(call.answeredNs - call.sentNs) / 1000};
    }

private:
    HeadPair& pair_;
    const LabState* state_;
};

struct Side {
    std::vector<double> first;
    std::vector<double> second;
    std::vector<double> reply;
    std::vector<double> stop;

    void add(const Timed& move, const Timed& stopped)
    {
        first.push_back(move.first);
        second.push_back(move.second);
        reply.push_back(move.reply);
        stop.push_back(stopped.second);
    }
};

/// One motion by one object, stopped by another. False when either did not make its two requests.
bool moveAndStop(Journal& journal, Callers& callers, const char* mover, const char* stopper, Side& side)
{
    const Timed move = journal.timed(callers, {mover, "moveTo", {FAR, FAR}}, "MOVE");
    std::this_thread::sleep_for(CALM);
    const Timed stop = journal.timed(callers, {stopper, "stop"}, "STOP");
    std::this_thread::sleep_for(CALM);
    side.add(move, stop);
    return move.second > 0 && stop.second > 0;
}

void compare(Report& report, const std::string& what, const std::vector<double>& ptzd, const std::vector<double>& bare,
             bool goal)
{
    Row row{what, "µs", median(ptzd), percentile99(ptzd), median(bare), percentile99(bare)};
    row.ratio = Sides{ptzd, bare}.ratio();
    if (goal) {
        row.goal = "≤ 1.1";
        row.met = *row.ratio <= TIME_GOAL;
    }
    report.add(row);
}

} // namespace

void benchMotion(const Effort& effort, Report& report)
{
    HeadPair pair;
    Journal journal(pair);
    report.require(pair.valid() && journal.valid(), "the lab starts");
    if (!pair.valid() || !journal.valid())
        return;
    for (const LabAxisId axis : {LAB_PAN, LAB_TILT})
        pair.lab().motors.setFactor(axis, SLOW);
    Callers callers(pair.lab().busSocket(), 1);
    bool two = true;
    Side sides[2][2];
    const char* const bares[] = {"bare", "bare_requests"};
    for (size_t i = 0; i < std::size(bares); ++i) {
        for (int motion = 0; motion < effort.motions; ++motion) {
            two = moveAndStop(journal, callers, "ptzd", "ptzd", sides[i][0]) && two;
            two = moveAndStop(journal, callers, bares[i], "bare_requests", sides[i][1]) && two;
        }
    }
    report.require(two, "a moveTo makes two MOVE requests and a stop two STOP requests");
    const auto& [ptzd, bare] = sides[0];
    const auto& [ptzdAlike, alike] = sides[1];
    report.section("From the call of moveTo or stop, by the journal");
    compare(report, "moveTo to first MOVE", ptzd.first, bare.first, true);
    compare(report, "moveTo to second MOVE", ptzd.second, bare.second, true);
    compare(report, "moveTo to reply", ptzd.reply, bare.reply, true);
    compare(report, "moveTo to first MOVE, bare with the same requests", ptzdAlike.first, alike.first, false);
    compare(report, "moveTo to reply, bare with the same requests", ptzdAlike.reply, alike.reply, false);
    compare(report, "stop to second STOP", ptzd.stop, bare.stop, true);
}
