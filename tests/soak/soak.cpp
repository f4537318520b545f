// A head in daily use on a fast clock: preset tours and scans in turn, a user every hour, and a power cut now and then.
// What the daemon holds must not change from the end of its first hour on.

#include "lab/core/picture.h"
#include "lab/lab.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <signal.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

enum Held { RESIDENT_KB, DESCRIPTORS, THREADS, TIMERS, HELD_COUNT }; // timers: created since the daemon's start

constexpr const char* UNITS[HELD_COUNT] = {"kB resident", "descriptors", "threads at rest", "timers created"};

struct Sample {
    double hours; // of the lab, since its start
    std::array<long, HELD_COUNT> held;
};

/// From a start of the daemon to the power cut that ends it.
using Life = std::vector<Sample>;

/// What users do every hour: calls of the daemon, "pause", and "mask". "#" is a preset's number, another every hour.
constexpr const char* VISIT[] = {R"(moveTo {"x_coord":"-70","y_coord":"20"})",
                                 "getStatus",
                                 R"(gotoPreset {"speed_pan":"0.5","id":"#"})",
                                 "getPresetAll",
                                 R"(moveStep {"direction":"135"})",
                                 "getCapa",
                                 R"(setPreset {"name":"somewhere","save_ptz":"1","id":"#"})",
                                 R"(delPreset {"id":["8"]})",
                                 R"(targetTrack {"x_coord":"9","y_coord":"2","x_speed":"5","y_speed":"5"})",
                                 "pause",
                                 "targetTrackBack",
                                 "startPanorama",
                                 "pause",
                                 R"(movePanorama {"x_coord":"60","y_coord":"5"})",
                                 "pause",
                                 "stopPanorama",
                                 "mask on",
                                 "pause",
                                 "mask off",
                                 R"(setConfig {"x_speed":"5","y_speed":"5"})",
                                 "manualCalibrate"};

/// A day "@" of the plan.
constexpr const char* DAY = R"("@":[{"@_1":{"start_time":0,"end_time":720,"action_type":"preset","action_id":"1"}},)"
                            R"({"@_2":{"start_time":720,"end_time":1440,"action_type":"preset","action_id":"2"}}])";

const std::string TOUR = "config tour 'tour_info'\n\toption enabled 'on'\n\toption tour_type '2'\n"
                         "config scan_tour 'scan_tour'\n\toption x_coord_start '-150'\n"
                         "\toption x_coord_end '150'\n\toption start_time '0'\n\toption end_time '0'\n";

/// How many entries a folder of the process in /proc has.
long entriesOf(pid_t pid, const char* folder)
{
    std::error_code problem;
    const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid) + "/" + folder, problem);
    return static_cast<long>(std::distance(all, {}));
}

/// A panel for each value, with a course for each life.
std::string draw(const std::vector<Life>& lives)
{
    constexpr const char* STYLE = ".course { fill: none; stroke: #2d7fc4; stroke-width: 1.5 }";
    Picture picture(1000, "The daemon in daily use", STYLE);
    picture.text(80, 26, "The daemon in daily use", "title");
    Panel panel{80, 72, 900, 90, 0, std::max(lives.back().back().hours / 24, 0.01)};
    for (size_t what = 0; what < HELD_COUNT; ++what) {
        panel.toY = 1;
        for (const Life& life : lives)
            for (const Sample& sample : life)
                panel.toY = std::max(panel.toY, 1.25 * static_cast<double>(sample.held[what]));
        picture.text(panel.left, panel.top - 8, UNITS[what]);
        panel.draw(picture, 0, panel.toY, std::max(roundStep(panel.toY, 4), 1.0));
        for (const Life& life : lives) {
            std::vector<std::pair<double, double>> points;
            for (const Sample& sample : life)
                points.emplace_back(panel.x(sample.hours / 24), panel.y(static_cast<double>(sample.held[what])));
            picture.course("course", points);
        }
        panel.top = panel.bottom() + 44;
    }
    for (double day = 0; day <= panel.toX; day += roundStep(panel.toX, 8))
        picture.text(panel.x(day), panel.top - 26, number(day), "", "middle");
    picture.text(530, panel.top - 6, "days of the lab; a course ends with a power cut", "unit", "middle");
    return picture.finish(panel.top + 10);
}

class Soak {
public:
    Soak(const char* figure, const double (&numbers)[4])
        : figure_(figure), hours_(numbers[0]), cut_(numbers[1]), speed_(numbers[2]), slack_(std::lround(numbers[3]))
    {
    }

    /// The whole run; true when the daemon answered throughout and held what it held.
    bool run()
    {
        bool well = start();
        double nextCut = cut_;
        for (int hour = static_cast<int>(hoursNow()) + 1; well && hour < hours_; ++hour) {
            if (hour >= nextCut) {
                nextCut += cut_;
                well = cutPower();
            }
            well = well && spend(hour);
        }
        if (!well) {
            std::fprintf(stderr, "hour %.1f: %s\n%s", hoursNow(), lab_.error().c_str(), lab_.records.ptzdLog().c_str());
            return false;
        }
        lab_.clock.setSpeed(1);
        std::ofstream(figure_) << draw(lives_);
        const bool constant = judge();
        const bool ended = lab_.programs.killPtzd(SIGTERM) == 0;
        std::printf("%.0f hours, %d requests of users, %d of them refused: %s%s\n", hoursNow(), asked_, refused_,
                    constant ? "constant" : "NOT CONSTANT", ended ? "" : "; NO ORDERLY END");
        return constant && ended;
    }

private:
    double hoursNow() const
    {
        return static_cast<double>(lab_.clock.nowNs()) / 3.6e12;
    }
    void waitLab(double hour) const
    {
        while (hoursNow() < hour)
            std::this_thread::sleep_for(1ms);
    }

    /// A head with two presets and a plan that goes through them every day.
    bool start()
    {
        // The fast clock lets dozens of expiries overlap, which never would. What the C library keeps for that many
        // threads, their stacks and a heap for each, is not to count.
        bool well = lab_.up({.factor = 25000,
                             .clockSpeed = 100,
                             .wallClock = "2031-05-04 00:00:00", // a Sunday
                             .config = {{"tour", TOUR}},
                             .environment = {"GLIBC_TUNABLES=glibc.pthread.stack_cache_size=0:"
                                             "glibc.malloc.arena_max=1"}});
        std::string plan;
        for (const char* day : {"sunday", "monday", "tuesday", "wednesday", "thursday", "friday", "saturday"})
            plan += (plan.empty() ? "{" : ",") + std::regex_replace(DAY, std::regex("@"), day);
        for (int id = 1; well && id <= 2; ++id) {
            well = ask("moveTo", R"({"x_coord":")" + std::to_string(40 * id - 140) + R"(","y_coord":"0"})");
            waitLab(hoursNow() + 0.01);
            well = well && ask("setPreset", R"({"save_ptz":"1","id":")" + std::to_string(id) + "\"}");
        }
        well = well && ask("set_plan_config", plan + "}");
        lab_.clock.setSpeed(speed_);
        return well && visit(0); // the daemon is to have been through all of it within its first hour
    }

    /// Asks for something that may be refused because the head is busy. False when there is no sensible answer.
    bool ask(const std::string& method, const std::string& arguments = "")
    {
        const std::string reply = lab_.call(method, arguments);
        const size_t code = reply.find("_code\":"); // err_code too
        ++asked_;
        refused_ += code != std::string::npos && reply.compare(code, 8, "_code\":0") != 0 ? 1 : 0;
        if (code == std::string::npos)
            std::fprintf(stderr, "%s: %s\n", method.c_str(), reply.c_str());
        return code != std::string::npos;
    }

    bool visit(int hour)
    {
        bool well = true;
        for (const std::string act : VISIT) {
            const std::string method = act.substr(0, act.find(' '));
            std::string arguments = act.substr(std::min(method.size() + 1, act.size()));
            std::replace(arguments.begin(), arguments.end(), '#', static_cast<char>('1' + hour % 8));
            if (method == "pause")
                waitLab(hoursNow() + 0.03);
            else if (method == "mask")
                well = well && lab_.settings.set("lens_mask.lens_mask_info.enabled", arguments) && ask("lensMask");
            else
                well = well && ask(method, arguments);
        }
        return well;
    }

    bool cutPower()
    {
        lives_.emplace_back();
        if (!lab_.programs.killPtzd(SIGKILL))
            return false;
        lab_.motors.powerLoss();
        timersBefore_ = lab_.motors.timersCreated();
        return lab_.programs.startPtzd() && visit(0);
    }

    bool sample()
    {
        const pid_t pid = lab_.programs.ptzdPid();
        Life& life = lives_.back();
        Sample now{hoursNow(), {0, LONG_MAX, LONG_MAX, static_cast<long>(lab_.motors.timersCreated() - timersBefore_)}};
        // Expiries of timers are threads for a moment, and notifications connections. On a slow clock they pass.
        lab_.clock.setSpeed(20);
        const auto smallest = [&] {
            now.held[DESCRIPTORS] = std::min(now.held[DESCRIPTORS], entriesOf(pid, "fd"));
            now.held[THREADS] = std::min(now.held[THREADS], entriesOf(pid, "task"));
            return !life.empty() && now.held[DESCRIPTORS] <= life.back().held[DESCRIPTORS] &&
                   now.held[THREADS] <= life.back().held[THREADS];
        };
        waitUntil(smallest, 3s);
        std::ifstream pages("/proc/" + std::to_string(pid) + "/statm");
        pages >> now.held[RESIDENT_KB] >> now.held[RESIDENT_KB]; // the first is of all that is mapped
        now.held[RESIDENT_KB] *= sysconf(_SC_PAGESIZE) / 1024;
        lab_.clock.setSpeed(speed_);
        life.push_back(now);
        lab_.records.clear();
        return pid != 0 && pages;
    }

    bool spend(int hour)
    {
        if (hour % 24 == 0 &&
            !(lab_.settings.set("tour.tour_info.tour_type", hour / 24 % 2 == 0 ? "2" : "1") && ask("reload_tour_info")))
            return false;
        bool well = visit(hour);
        for (const double half : {0.5, 1.0}) {
            waitLab(hour + half);
            well = well && sample();
        }
        return well;
    }

    /// Whether each life holds, from its second hour on, what it held then.
    bool judge() const
    {
        bool constant = true;
        for (const Life& life : lives_) {
            const auto settled = std::find_if(life.begin(), life.end(),
                                              [&](const Sample& one) { return one.hours >= life.front().hours + 1; });
            for (size_t what = 0; settled != life.end() && what < HELD_COUNT; ++what) {
                const auto less = [what](const Sample& a, const Sample& b) { return a.held[what] < b.held[what]; };
                const auto [least, most] = std::minmax_element(settled, life.end(), less);
                // Memory may be given back.
                const long before = what == RESIDENT_KB ? settled->held[what] : least->held[what];
                std::printf("%ld to %ld %s%s", before, most->held[what], UNITS[what],
                            what + 1 < HELD_COUNT ? ", " : "\n");
                constant = constant && most->held[what] - before <= (what == RESIDENT_KB ? slack_ : 0);
            }
        }
        return constant;
    }

    const char* figure_;
    double hours_;
    double cut_;   // hours between power cuts
    double speed_; // of the clock
    long slack_;   // kB: pages that the C library's heap and thread stacks come to touch
    Lab lab_;
    std::vector<Life> lives_{1};
    uint32_t timersBefore_ = 0;
    int asked_ = 0;
    int refused_ = 0;
};

} // namespace

int main(int argc, char** argv)
{
    double numbers[] = {30 * 24, 7 * 24, 5000, 256};
    bool known = argc >= 2 && argc <= 6;
    for (int i = 2; known && i < argc; ++i)
        known = (numbers[i - 2] = std::strtod(argv[i], nullptr)) > 0;
    if (!known)
        std::fputs("soak FIGURE.svg [HOURS [HOURS-BETWEEN-POWER-CUTS [CLOCK-SPEED [SLACK-IN-KB]]]]\n", stderr);
    return !known ? 2 : Soak(argv[1], numbers).run() ? 0 : 1;
}
