// A head in daily use on a fast clock: preset tours and scans in turn, a user every hour, and a power cut now and then.
// What the daemon holds must not change from the end of its first hour on.

#include "figure.h"
#include "lab/lab.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
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
    std::string samples;
    std::string figure;
};

class Soak {
public:
    explicit Soak(const Options& options) : options_(options)
    {
    }
    bool run();

private:
    bool start();
    bool spend(int hour);
    bool visit(int hour);
    bool visitAll();
    bool ask(const char* method, const std::string& arguments = "");
    bool mask(const char* value);
    bool switchTour(int type);
    bool planWeek();
    bool cutPower();
    bool sample();
    bool judge() const;
    void waitLab(int64_t untilNs) const;
    void write() const;
    double hoursNow() const
    {
        return static_cast<double>(lab_.clock.nowNs()) / 3600 / SECOND;
    }

    Options options_;
    Lab lab_;
    std::vector<Sample> samples_;
    int life_ = 1;
    double lifeBegan_ = 0;
    uint32_t timersBefore_ = 0;
    int asked_ = 0;
    int refused_ = 0;
};

/// A number of a line like "VmRSS:  1234 kB" of a process's status.
long statusOf(pid_t pid, const char* name)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with(name))
            return std::strtol(line.c_str() + strlen(name), nullptr, 10);
    return -1;
}

long descriptorsOf(pid_t pid)
{
    std::error_code problem;
    const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid) + "/fd", problem);
    return problem ? -1 : static_cast<long>(std::distance(all, {}));
}

void Soak::waitLab(int64_t untilNs) const
{
    while (lab_.clock.nowNs() < untilNs)
        std::this_thread::sleep_for(1ms);
}

bool Soak::start()
{
    LabOptions options;
    options.factor = 25000;
    options.clockSpeed = 100;
    options.wallClock = "2031-05-04 00:00:00"; // a Sunday
    options.config["tour"] = "config tour 'tour_info'\n\toption enabled 'on'\n\toption tour_type '2'\n"
                             "config scan_tour 'scan_tour'\n\toption x_coord_start '-150'\n\toption x_coord_end '150'\n"
                             "\toption start_time '0'\n\toption end_time '0'\n";
    // The fast clock lets dozens of expiries overlap, which never would. What the C library keeps for that many
    // threads, their stacks and a heap for each, is not to count.
    options.environment = {"GLIBC_TUNABLES=glibc.pthread.stack_cache_size=0:glibc.malloc.arena_max=1"};
    if (!lab_.up(options))
        return false;
    for (int id = 1; id <= 6; ++id) {
        const std::string x = std::to_string(40 * id - 140);
        if (!ask("moveTo", R"({"x_coord":")" + x + R"(","y_coord":"0"})"))
            return false;
        waitLab(lab_.clock.nowNs() + 30 * SECOND);
        if (!ask("setPreset", R"({"save_ptz":"1","id":")" + std::to_string(id) + "\"}"))
            return false;
    }
    return planWeek();
}

bool Soak::planWeek()
{
    std::string plan;
    const char* days[] = {"sunday", "monday", "tuesday", "wednesday", "thursday", "friday", "saturday"};
    for (int day = 0; day < 7; ++day) {
        std::string entries;
        for (int i = 1; i <= 10; ++i)
            entries += std::string(i > 1 ? ",{\"" : "{\"") + days[day] + "_" + std::to_string(i) +
                       R"(":{"start_time":)" + std::to_string(144 * (i - 1)) + R"(,"end_time":)" +
                       std::to_string(144 * i) + R"(,"action_type":"preset","action_id":")" +
                       std::to_string((i + day) % 6 + 1) + R"("}})";
        plan += (day > 0 ? ",\"" : "{\"") + std::string(days[day]) + "\":[" + entries + "]";
    }
    return ask("set_plan_config", plan + "}");
}

/// Asks for something that may be refused because the head is busy. False when there is no sensible answer.
bool Soak::ask(const char* method, const std::string& arguments)
{
    const std::string reply = lab_.call(method, arguments);
    const size_t code = reply.find("_code\":"); // err_code too
    ++asked_;
    if (code == std::string::npos) {
        std::fprintf(stderr, "%s: %s\n%s", method, reply.c_str(), lab_.records.ptzdLog().c_str());
        return false;
    }
    if (reply.compare(code, 8, "_code\":0") != 0)
        ++refused_;
    return true;
}

bool Soak::mask(const char* value)
{
    return lab_.settings.set("lens_mask.lens_mask_info.enabled", value) && ask("lensMask");
}

bool Soak::switchTour(int type)
{
    return lab_.settings.set("tour.tour_info.tour_type", std::to_string(type)) && ask("reload_tour_info");
}

/// What a user does in an hour's first half; something else in each of the next.
bool Soak::visit(int hour)
{
    const std::string id = std::to_string(hour % 8 + 1);
    const auto pause = [&] { waitLab(lab_.clock.nowNs() + 2 * MINUTE); };
    switch (hour % 9) {
    case 0:
        return ask("moveTo", R"({"x_coord":"-70","y_coord":"20"})") && ask("getStatus");
    case 1:
        return ask("gotoPreset", R"({"speed_pan":"0.5","id":")" + id + "\"}") && ask("getPresetAll");
    case 2:
        return ask("moveStep", R"({"direction":"135"})") && ask("getCapa");
    case 3:
        return ask("setPreset", R"({"name":"somewhere","save_ptz":"1","id":")" + id + "\"}") &&
               ask("delPreset", R"({"id":["8"]})");
    case 4:
        if (!ask("targetTrack", R"({"x_coord":"9","y_coord":"2","x_speed":"5","y_speed":"5"})"))
            return false;
        pause();
        return ask("targetTrackBack");
    case 5:
        if (!ask("startPanorama"))
            return false;
        pause();
        if (!ask("movePanorama", R"({"x_coord":"60","y_coord":"5"})"))
            return false;
        pause();
        return ask("stopPanorama");
    case 6:
        if (!mask("on"))
            return false;
        pause();
        return mask("off");
    case 7:
        return planWeek() && ask("setConfig", R"({"x_speed":"5","y_speed":"5"})");
    default:
        return ask("manualCalibrate");
    }
}

/// Whatever users do, so that the daemon has been through all of it within its first hour.
bool Soak::visitAll()
{
    bool done = true;
    for (int hour = 0; hour < 9 && done; ++hour)
        done = visit(hour);
    return done;
}

bool Soak::cutPower()
{
    if (!lab_.programs.killPtzd(SIGKILL))
        return false;
    lab_.motors.powerLoss();
    timersBefore_ = lab_.motors.timersCreated();
    ++life_;
    lifeBegan_ = hoursNow();
    return lab_.programs.startPtzd();
}

bool Soak::sample()
{
    const pid_t pid = lab_.programs.ptzdPid();
    // Expiries of timers are threads for a moment, and notifications connections. On a slow clock they pass.
    Sample least{hoursNow(), life_,    0,
                 LONG_MAX,   LONG_MAX, static_cast<long>(lab_.motors.timersCreated() - timersBefore_)};
    const bool first = samples_.empty() || samples_.back().life != life_;
    lab_.clock.setSpeed(20);
    for (int i = 0; i < 3000; ++i) {
        least.descriptors = std::min(least.descriptors, descriptorsOf(pid));
        least.threads = std::min(least.threads, statusOf(pid, "Threads:"));
        if (!first && least.descriptors <= samples_.back().descriptors && least.threads <= samples_.back().threads)
            break;
        std::this_thread::sleep_for(1ms);
    }
    least.residentKb = statusOf(pid, "VmRSS:");
    lab_.clock.setSpeed(options_.speed);
    samples_.push_back(least);
    lab_.records.clear();
    return pid != 0 && least.residentKb > 0;
}

bool Soak::spend(int hour)
{
    const int64_t begin = hour * 60 * MINUTE;
    if (hour % 24 == 0 && !switchTour(hour / 24 % 2 == 0 ? 2 : 1))
        return false;
    for (int minute = 20; minute <= 60; minute += 20) {
        if (minute == 20 && !visit(hour))
            return false;
        waitLab(begin + minute * MINUTE);
        if (!sample())
            return false;
    }
    return true;
}

bool Soak::run()
{
    if (!start()) {
        std::fprintf(stderr, "%s\n", lab_.error().c_str());
        return false;
    }
    lab_.clock.setSpeed(options_.speed);
    if (!visitAll()) {
        std::fprintf(stderr, "the daemon did not answer at first\n");
        return false;
    }
    double nextCut = options_.cut;
    for (int hour = static_cast<int>(hoursNow()) + 1; hour < options_.hours; ++hour) {
        if (hour >= nextCut) {
            nextCut += options_.cut;
            if (!cutPower() || !visitAll()) {
                std::fprintf(stderr, "no start after a power cut: %s\n", lab_.error().c_str());
                return false;
            }
        }
        if (!spend(hour)) {
            std::fprintf(stderr, "the daemon did not answer in hour %d\n", hour);
            return false;
        }
    }
    lab_.clock.setSpeed(1);
    write();
    const bool constant = judge();
    const bool ended = lab_.programs.killPtzd(SIGTERM) == 0;
    if (!ended)
        std::fprintf(stderr, "the daemon did not end well\n%s", lab_.records.ptzdLog().c_str());
    return constant && ended;
}

/// Whether each life holds, from its second hour on, what it held then.
bool Soak::judge() const
{
    bool constant = true;
    for (int life = 1; life <= life_; ++life) {
        std::vector<Sample> later;
        double began = -1;
        for (const Sample& one : samples_) {
            if (one.life != life)
                continue;
            began = began < 0 ? one.hours : began;
            if (one.hours >= began + 1)
                later.push_back(one);
        }
        if (later.empty())
            continue;
        std::set<long> descriptors;
        std::set<long> threads;
        std::set<long> timers;
        long most = 0;
        for (const Sample& one : later) {
            descriptors.insert(one.descriptors);
            threads.insert(one.threads);
            timers.insert(one.timers);
            most = std::max(most, one.residentKb);
        }
        const long grown = most - later.front().residentKb;
        std::printf("life %d: %zu samples, %ld to %ld kB, %ld to %ld descriptors, %ld to %ld threads, %ld to %ld "
                    "timers\n",
                    life, later.size(), later.front().residentKb, most, *descriptors.begin(), *descriptors.rbegin(),
                    *threads.begin(), *threads.rbegin(), *timers.begin(), *timers.rbegin());
        constant = constant && descriptors.size() == 1 && threads.size() == 1 && timers.size() == 1 &&
                   static_cast<double>(grown) <= options_.slack;
    }
    std::printf("%.0f hours, %d requests of users, %d of them refused: %s\n", hoursNow(), asked_, refused_,
                constant ? "constant" : "NOT CONSTANT");
    return constant;
}

void Soak::write() const
{
    if (!options_.samples.empty()) {
        std::ofstream out(options_.samples);
        out << "hours,life,resident_kb,descriptors,threads,timers\n";
        for (const Sample& one : samples_)
            out << one.hours << ',' << one.life << ',' << one.residentKb << ',' << one.descriptors << ',' << one.threads
                << ',' << one.timers << '\n';
    }
    if (!options_.figure.empty())
        std::ofstream(options_.figure) << drawSamples(samples_, "The daemon in daily use");
}

int usage(const char* program)
{
    std::fprintf(
        stderr,
        "Usage: %s [--hours N] [--cut HOURS] [--speed N] [--slack KB] [--samples FILE.csv] "
        "[--figure FILE.svg]\n"
        "Runs a head for N lab hours (720) on a clock of that speed (5000), with a power cut every so many\n"
        "hours (168), and fails unless what the daemon holds stays the same, its memory but for some kB (256).\n",
        program);
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    for (int i = 1; i < argc; i += 2) {
        const std::string name = argv[i];
        if (i + 1 == argc)
            return usage(argv[0]);
        const std::string value = argv[i + 1];
        const double number = std::strtod(value.c_str(), nullptr);
        if (name == "--hours" && number > 0)
            options.hours = number;
        else if (name == "--cut" && number > 0)
            options.cut = number;
        else if (name == "--speed" && number > 0)
            options.speed = number;
        else if (name == "--slack" && number > 0)
            options.slack = number;
        else if (name == "--samples")
            options.samples = value;
        else if (name == "--figure")
            options.figure = value;
        else
            return usage(argv[0]);
    }
    return Soak(options).run() ? 0 : 1;
}
