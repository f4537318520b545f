// A head in daily use on a fast clock: preset tours and scans in turn, a user every hour, and a power cut now and then.
// What the daemon holds must not change from the end of its first hour on.

#include "figure.h"
#include "lab/core/files.h"
#include "lab/lab.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <signal.h>

namespace {

using namespace std::chrono_literals;

constexpr int64_t SECOND = 1'000'000'000;
constexpr int64_t MINUTE = 60 * SECOND;

struct Options {
    double hours = 30 * 24;
    double cut = 7 * 24; // between power cuts
    double speed = 5000;
    double slack = 256; // kB: pages that the C library's heap and thread stacks come to touch
    std::string figure;
};

/// A call of the daemon, or "pause", "mask" (with its value) or "plan". "#" is a preset's number, another every hour.
struct Act {
    const char* method;
    const char* arguments = "";
};

/// What users do, one line an hour.
const std::vector<std::vector<Act>> VISITS = {
    {{"moveTo", R"({"x_coord":"-70","y_coord":"20"})"}, {"getStatus"}},
    {{"gotoPreset", R"({"speed_pan":"0.5","id":"#"})"}, {"getPresetAll"}},
    {{"moveStep", R"({"direction":"135"})"}, {"getCapa"}},
    {{"setPreset", R"({"name":"somewhere","save_ptz":"1","id":"#"})"}, {"delPreset", R"({"id":["8"]})"}},
    {{"targetTrack", R"({"x_coord":"9","y_coord":"2","x_speed":"5","y_speed":"5"})"}, {"pause"}, {"targetTrackBack"}},
    {{"startPanorama"}, {"pause"}, {"movePanorama", R"({"x_coord":"60","y_coord":"5"})"}, {"pause"}, {"stopPanorama"}},
    {{"mask", "on"}, {"pause"}, {"mask", "off"}},
    {{"plan"}, {"setConfig", R"({"x_speed":"5","y_speed":"5"})"}},
    {{"manualCalibrate"}},
};

/// A number of a line like "VmRSS:  1234 kB" of a process's status.
long statusOf(pid_t pid, const std::string& name)
{
    const std::string status = readFile("/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find("\n" + name + ":");
    return at == std::string::npos ? -1 : std::strtol(status.c_str() + at + name.size() + 2, nullptr, 10);
}

long descriptorsOf(pid_t pid)
{
    std::error_code problem;
    const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid) + "/fd", problem);
    return problem ? -1 : static_cast<long>(std::distance(all, {}));
}

class Soak {
public:
    explicit Soak(const Options& options) : options_(options)
    {
    }

    /// The whole run; true when the daemon answered throughout and held what it held.
    bool run()
    {
        if (!live()) {
            std::fprintf(stderr, "hour %.1f: %s\n%s", hoursNow(), lab_.error().c_str(), lab_.records.ptzdLog().c_str());
            return false;
        }
        lab_.clock.setSpeed(1);
        if (!options_.figure.empty())
            std::ofstream(options_.figure) << drawSamples(samples_, "The daemon in daily use");
        const bool constant = judge();
        const bool ended = lab_.programs.killPtzd(SIGTERM) == 0;
        std::printf("%.0f hours, %d requests of users, %d of them refused: %s%s\n", hoursNow(), asked_, refused_,
                    constant ? "constant" : "NOT CONSTANT", ended ? "" : "; NO ORDERLY END");
        return constant && ended;
    }

private:
    double hoursNow() const
    {
        return static_cast<double>(lab_.clock.nowNs()) / 3600 / SECOND;
    }
    void waitLab(int64_t untilNs) const
    {
        while (lab_.clock.nowNs() < untilNs)
            std::this_thread::sleep_for(1ms);
    }

    bool live()
    {
        if (!start())
            return false;
        lab_.clock.setSpeed(options_.speed);
        bool well = visitAll();
        double nextCut = options_.cut;
        for (int hour = static_cast<int>(hoursNow()) + 1; well && hour < options_.hours; ++hour) {
            if (hour >= nextCut) {
                nextCut += options_.cut;
                well = cutPower() && visitAll();
            }
            well = well && spend(hour);
        }
        return well;
    }

    bool start()
    {
        LabOptions options;
        options.factor = 25000;
        options.clockSpeed = 100;
        options.wallClock = "2031-05-04 00:00:00"; // a Sunday
        options.config["tour"] = "config tour 'tour_info'\n\toption enabled 'on'\n\toption tour_type '2'\n"
                                 "config scan_tour 'scan_tour'\n\toption x_coord_start '-150'\n"
                                 "\toption x_coord_end '150'\n\toption start_time '0'\n\toption end_time '0'\n";
        // The fast clock lets dozens of expiries overlap, which never would. What the C library keeps for that many
        // threads, their stacks and a heap for each, is not to count.
        options.environment = {"GLIBC_TUNABLES=glibc.pthread.stack_cache_size=0:glibc.malloc.arena_max=1"};
        bool well = lab_.up(options);
        for (int id = 1; well && id <= 6; ++id) {
            well = ask("moveTo", R"({"x_coord":")" + std::to_string(40 * id - 140) + R"(","y_coord":"0"})");
            waitLab(lab_.clock.nowNs() + 30 * SECOND);
            well = well && ask("setPreset", R"({"save_ptz":"1","id":")" + std::to_string(id) + "\"}");
        }
        return well && planWeek();
    }

    /// Ten presets a day, in turn.
    bool planWeek()
    {
        std::string plan;
        const char* days[] = {"sunday", "monday", "tuesday", "wednesday", "thursday", "friday", "saturday"};
        for (int day = 0; day < 7; ++day) {
            plan += (day > 0 ? ",\"" : "{\"") + std::string(days[day]) + "\":[";
            for (int i = 0; i < 10; ++i) {
                char entry[160];
                (void)snprintf(entry, sizeof(entry),
                               R"(%s{"%s_%d":{"start_time":%d,"end_time":%d,"action_type":"preset","action_id":"%d"}})",
                               i > 0 ? "," : "", days[day], i + 1, 144 * i, 144 * (i + 1), (i + 1 + day) % 6 + 1);
                plan += entry;
            }
            plan += "]";
        }
        return ask("set_plan_config", plan + "}");
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

    bool act(const std::string& method, std::string arguments, int hour)
    {
        if (method == "plan")
            return planWeek();
        if (method == "mask")
            return lab_.settings.set("lens_mask.lens_mask_info.enabled", arguments) && ask("lensMask");
        if (method == "pause") {
            waitLab(lab_.clock.nowNs() + 2 * MINUTE);
            return true;
        }
        std::replace(arguments.begin(), arguments.end(), '#', static_cast<char>('1' + hour % 8));
        return ask(method, arguments);
    }

    bool visit(size_t hour)
    {
        const std::vector<Act>& acts = VISITS[hour % VISITS.size()];
        return std::all_of(acts.begin(), acts.end(),
                           [&](const Act& one) { return act(one.method, one.arguments, static_cast<int>(hour)); });
    }

    /// Whatever users do, so that the daemon has been through all of it within its first hour.
    bool visitAll()
    {
        size_t hour = 0;
        while (hour < VISITS.size() && visit(hour))
            ++hour;
        return hour == VISITS.size();
    }

    bool cutPower()
    {
        if (!lab_.programs.killPtzd(SIGKILL))
            return false;
        lab_.motors.powerLoss();
        timersBefore_ = lab_.motors.timersCreated();
        ++life_;
        return lab_.programs.startPtzd();
    }

    bool sample()
    {
        const pid_t pid = lab_.programs.ptzdPid();
        const bool first = samples_.empty() || samples_.back().life != life_;
        Sample now{
            hoursNow(), life_, {0, LONG_MAX, LONG_MAX, static_cast<long>(lab_.motors.timersCreated() - timersBefore_)}};
        // Expiries of timers are threads for a moment, and notifications connections. On a slow clock they pass.
        lab_.clock.setSpeed(20);
        for (int i = 0; i < 3000; ++i) {
            now.held[DESCRIPTORS] = std::min(now.held[DESCRIPTORS], descriptorsOf(pid));
            now.held[THREADS] = std::min(now.held[THREADS], statusOf(pid, "Threads"));
            if (!first && now.held[DESCRIPTORS] <= samples_.back().held[DESCRIPTORS] &&
                now.held[THREADS] <= samples_.back().held[THREADS])
                break;
            std::this_thread::sleep_for(1ms);
        }
        now.held[RESIDENT_KB] = statusOf(pid, "VmRSS");
        lab_.clock.setSpeed(options_.speed);
        samples_.push_back(now);
        lab_.records.clear();
        return pid != 0 && now.held[RESIDENT_KB] > 0;
    }

    bool spend(int hour)
    {
        if (hour % 24 == 0 &&
            !(lab_.settings.set("tour.tour_info.tour_type", hour / 24 % 2 == 0 ? "2" : "1") && ask("reload_tour_info")))
            return false;
        bool well = visit(static_cast<size_t>(hour));
        for (int minute = 20; well && minute <= 60; minute += 20) {
            waitLab((int64_t{hour} * 60 + minute) * MINUTE);
            well = sample();
        }
        return well;
    }

    /// Whether each life holds, from its second hour on, what it held then.
    bool judge() const
    {
        bool constant = true;
        for (int life = 1; life <= life_; ++life) {
            const auto began = std::find_if(samples_.begin(), samples_.end(), [&](auto& s) { return s.life == life; });
            std::array<long, HELD_COUNT> least{};
            std::array<long, HELD_COUNT> most{};
            int count = 0;
            for (auto one = began; one != samples_.end() && one->life == life; ++one) {
                if (one->hours < began->hours + 1)
                    continue;
                for (size_t i = 0; i < HELD_COUNT; ++i) {
                    least[i] = count == 0 || (i != RESIDENT_KB && one->held[i] < least[i]) ? one->held[i] : least[i];
                    most[i] = count == 0 ? one->held[i] : std::max(most[i], one->held[i]);
                }
                ++count;
            }
            std::printf("life %d: %d samples", life, count);
            constexpr const char* UNITS[] = {"kB", "descriptors", "threads", "timers"};
            for (size_t i = 0; i < HELD_COUNT; ++i) {
                std::printf(", %ld to %ld %s", least[i], most[i], UNITS[i]);
                constant =
                    constant && static_cast<double>(most[i] - least[i]) <= (i == RESIDENT_KB ? options_.slack : 0);
            }
            std::printf("\n");
        }
        return constant;
    }

    Options options_;
    Lab lab_;
    std::vector<Sample> samples_;
    int life_ = 1;
    uint32_t timersBefore_ = 0;
    int asked_ = 0;
    int refused_ = 0;
};

int usage(const char* program)
{
    std::fprintf(
        stderr,
        "Usage: %s [--hours N] [--cut HOURS] [--speed N] [--slack KB] [--figure FILE.svg]\n"
        "Runs a head for N lab hours (720) on a clock of that speed (5000), with a power cut every so many\n"
        "hours (168), and fails unless what the daemon holds stays the same, its memory but for some kB (256).\n",
        program);
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    const std::map<std::string, double*> numbers = {
        {"--hours", &options.hours}, {"--cut", &options.cut}, {"--speed", &options.speed}, {"--slack", &options.slack}};
    for (int i = 1; i < argc; i += 2) {
        const auto number = numbers.find(argv[i]);
        if (i + 1 == argc || (number == numbers.end() && strcmp(argv[i], "--figure") != 0))
            return usage(argv[0]);
        if (number == numbers.end())
            options.figure = argv[i + 1];
        else if ((*number->second = std::strtod(argv[i + 1], nullptr)) <= 0)
            return usage(argv[0]);
    }
    return Soak(options).run() ? 0 : 1;
}
