// How soon a motion begins and ends after its call, by the journal's times, beside an object that makes the same bus
// connections, look-up, calls and event, and the same two device requests.

#include "bench.h"
#include "callers.h"
#include "head_pair.h"
#include "lab/clock.h"
#include "lab/core/files.h"
#include "lab/state_file.h"
#include "lab_paths.h"
#include "statistics.h"

#include <csignal>

#include <algorithm>
#include <fstream>
#include <initializer_list>
#include <sstream>
#include <thread>
#include <utility>

using namespace std::chrono_literals;

namespace {

constexpr double TIME_GOAL = 1.1;
constexpr int32_t SLOW = 1; // steps a second and unit of speed: no motion ends before it is stopped
constexpr auto CALM = 3ms;  // for the receivers of the notifications
constexpr const char* FAR = R"({"x_coord":"100","y_coord":"40"})";
constexpr const char* FAR_ELSEWHERE = R"({"x_coord":"-100","y_coord":"-30"})";
// Calls of moveTo amid a motion, two notifications each, whose messages the bus daemon does not keep all.
constexpr size_t MORE_THAN_A_QUEUE = 5000;

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

/// A head with subscribers in processes of their own. Those behind the readers never read: they are stopped, and the
/// bus daemon keeps as much for them as it ever does.
class WatchedHead {
public:
    WatchedHead(int subscribers, int readers) : journal_(pair_), callers_(pair_.lab().busSocket(), 1), readers_(readers)
    {
        started_ = pair_.valid() && journal_.valid();
        for (int i = 0; i < subscribers && started_; ++i)
            started_ = pair_.lab().programs.start(nameOf(i), {LAB_UBUS, "subscribe", "ptzd"});
        if (!started_)
            return;
        for (const LabAxisId axis : {LAB_PAN, LAB_TILT})
            pair_.lab().motors.setFactor(axis, SLOW);
        started_ = waitUntil([&] { return moveOnce() && std::ranges::count(heard(subscribers), 0) == 0; }, 5s);
        for (int i = readers_; i < subscribers && started_; ++i) {
            stopped_.push_back(pair_.lab().programs.pidOf(nameOf(i)));
            started_ = stopped_.back() > 0 && kill(stopped_.back(), SIGSTOP) == 0;
        }
        if (started_ && !stopped_.empty())
            started_ = fillQueues();
        // What the readers have not read yet is no part of what follows.
        for (std::vector<int> before{-1}; before != heardBefore_;) {
            before = std::exchange(heardBefore_, heard(readers_));
            std::this_thread::sleep_for(100ms);
        }
        side = {};
        motions_ = 0;
    }
    ~WatchedHead()
    {
        for (const pid_t pid : stopped_)
            (void)kill(pid, SIGCONT); // so that it ends when it is asked to
    }
    WatchedHead(const WatchedHead&) = delete;
    WatchedHead& operator=(const WatchedHead&) = delete;

    [[nodiscard]] bool valid() const
    {
        return started_;
    }
    bool moveOnce()
    {
        ++motions_;
        return moveAndStop(journal_, callers_, "ptzd", "ptzd", side);
    }
    /// Whether each that reads has heard of every motion.
    bool allHeard()
    {
        const auto hasAll = [this](int now, int before) { return now >= before + motions_; };
        return waitUntil([&] { return std::ranges::equal(heard(readers_), heardBefore_, hasAll); }, 5s);
    }

    Side side;

private:
    static std::string nameOf(int subscriber)
    {
        return "subscriber" + std::to_string(subscriber);
    }
    /// How many motions have begun, as the first subscribers have heard.
    std::vector<int> heard(int subscribers)
    {
        std::vector<int> counts;
        for (int i = 0; i < subscribers; ++i) {
            std::istringstream log(readFile(pair_.lab().folder() + "/log/" + nameOf(i) + ".log"));
            counts.push_back(0);
            for (std::string line; std::getline(log, line);)
                counts.back() += line.find("\"moving\"") != line.npos;
        }
        return counts;
    }
    bool fillQueues()
    {
        for (size_t calls = 0, made = 1; calls < MORE_THAN_A_QUEUE && made > 0; calls += made)
            made = callers_.run({"ptzd", "moveTo", {FAR, FAR_ELSEWHERE}}, 100ms).us.size();
        return moveOnce();
    }

    HeadPair pair_;
    Journal journal_;
    Callers callers_;
    int readers_;
    bool started_ = false;
    std::vector<pid_t> stopped_;
    int motions_ = 0;
    std::vector<int> heardBefore_;
};

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

void benchSubscribers(const Effort& effort, Report& report)
{
    WatchedHead none(0, 0);
    WatchedHead one(1, 1);
    WatchedHead eight(8, 7);
    WatchedHead unread(8, 0);
    bool good = none.valid() && one.valid() && eight.valid() && unread.valid();
    report.require(good, "the labs and the subscribers start, and these hear of motions");
    for (int motion = 0; motion < effort.motions && good; ++motion) {
        for (WatchedHead* head : {&none, &one, &eight, &unread})
            good = head->moveOnce() && good;
    }
    report.require(good && one.allHeard() && eight.allHeard(), "every subscriber that reads hears of every motion");
    report.section("With subscribers; beside it, in the place of bare, the daemon without");
    const auto row = [&](const std::string& subscribers, const WatchedHead& head) {
        compare(report, "moveTo to first MOVE, " + subscribers, head.side.first, none.side.first, false);
    };
    row("1 subscriber", one);
    row("8 subscribers, one of which never reads", eight);
    row("8 subscribers, none of which reads", unread);
}
