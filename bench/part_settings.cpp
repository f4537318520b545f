// How costs grow with the presets and with the weekly plan.

#include "bench.h"
#include "callers.h"
#include "head_pair.h"
#include "process_figures.h"
#include "statistics.h"

#include <algorithm>
#include <thread>

using namespace std::chrono_literals;

namespace {

constexpr const char* DONE = R"({"error_code":0})";
constexpr const char* DAYS[] = {"sunday", "monday", "tuesday", "wednesday", "thursday", "friday", "saturday"};
constexpr int DAY_ENTRIES = 10;
constexpr int DAY_MINUTES = 1440;

std::string option(const std::string& name, const std::string& value)
{
    return "\toption " + name + " '" + value + "'\n";
}

/// The daemon's own package with so many presets, and with what the first start adds.
std::string settingsWithPresets(int count)
{
    std::string text = "config ptzd 'config'\n" + option("power_off_recover", "1") + "config preset_config " +
                       "'preset_config'\n" + option("speed", "1.000000") + option("image_freeze_enabled", "0");
    for (const char* section : {"x_motor", "y_motor"})
        text += "config motor '" + std::string(section) + "'\n" + option("speed", "4") + option("steps", "600");
    for (int slot = 1; slot <= count; ++slot) {
        const std::string number = std::to_string(slot);
        text += "config preset 'preset_" + number + "'\n" + option("id", number) + option("read_only", "0") +
                option("name", "a view of the yard " + number) + option("position_pan", "0.500000") +
                option("position_tilt", "0.491803") + option("position_zoom", "0.000000") + option("enabled", "1");
    }
    return text;
}

/// So many entries, evenly over the week, none of which moves the head.
std::string planWith(int entries)
{
    std::string text;
    for (int i = 0; i < entries; ++i) {
        const std::string day = DAYS[i % 7];
        const int number = i / 7;
        text += "config " + day + " '" + day + "_" + std::to_string(number + 1) + "'\n" +
                option("start_time", std::to_string(number * 144)) +
                option("end_time", std::to_string((number + 1) * 144)) + option("action_type", "disable");
    }
    return text;
}

/// A request that sets a whole day.
std::string dayRequest(const std::string& action)
{
    std::string ranges;
    for (int i = 0; i < DAY_ENTRIES; ++i) {
        const int length = DAY_MINUTES / DAY_ENTRIES;
        ranges += (i == 0 ? R"({"sunday_)" : R"(,{"sunday_)") + std::to_string(i + 1) + R"(":{"start_time":)" +
                  std::to_string(i * length) + R"(,"end_time":)" + std::to_string((i + 1) * length) +
                  R"(,"action_type":")" + action + R"(","action_id":"1"}})";
    }
    return R"({"sunday":[)" + ranges + "]}";
}

/// Size of the file that a commit of the settings writes.
double bytesOfACommit(HeadPair& pair, Report& report)
{
    const size_t before = pair.syncs(pair.lab().programs.ptzdPid()).size();
    report.require(pair.lab().call("setConfig", R"({"x_speed":"3"})") == DONE, "setConfig works");
    double bytes = 0;
    const std::vector<Sync> syncs = pair.syncs(pair.lab().programs.ptzdPid());
    for (size_t i = before; i < syncs.size(); ++i)
        bytes = std::max(bytes, static_cast<double>(syncs[i].bytes));
    return bytes;
}

void withPresets(int count, const Effort& effort, Report& report)
{
    LabOptions options = countedHead();
    options.config["ptzd"] = settingsWithPresets(count);
    HeadPair pair(options);
    report.require(pair.valid(), "the lab starts");
    if (!pair.valid())
        return;
    Callers callers(pair.lab().busSocket(), 1);
    const std::vector<double> all = callers.run({"ptzd", "getPresetAll"}, effort.window * effort.rounds).us;
    const std::string presets = std::to_string(count) + " presets: ";
    const double bytes = bytesOfACommit(pair, report);
    report.require(!all.empty() && bytes > 0, "getPresetAll is answered");
    report.add({presets + "getPresetAll", "µs", median(all), percentile99(all)});
    report.add({presets + "bytes that a saved position writes", "bytes", bytes});
    report.add({presets + "private dirty", "KiB", memoryOf(pair.lab().programs.ptzdPid()).privateDirty});
    report.point("µs of getPresetAll, over presets", "ptzd", count, median(all));
    report.point("bytes that a saved position writes, over presets", "ptzd", count, bytes);
}

void withPlan(int entries, const Effort& effort, Report& report)
{
    LabOptions options = benchHead();
    options.config["ptz_plan"] = planWith(entries);
    options.config["tour"] = "config tour 'tour_info'\n" + option("enabled", "on") + option("tour_type", "2") +
                             "config scan_tour 'scan_tour'\n" + option("x_coord_start", "-100") +
                             option("x_coord_end", "100") + option("start_time", "0") + option("end_time", "0");
    HeadPair pair(options);
    report.require(pair.valid() && pair.lab().call("reload_tour_info") == DONE, "the lab starts"); // tours at once
    if (!pair.valid())
        return;
    std::this_thread::sleep_for(500ms);
    const pid_t ptzd = pair.lab().programs.ptzdPid();
    const int64_t before = processorNs(ptzd);
    const auto watched = effort.rest / 4;
    std::this_thread::sleep_for(watched);
    const double share = static_cast<double>(processorNs(ptzd) - before) / 1e6 /
                         std::chrono::duration<double, std::milli>(watched).count();
    Callers callers(pair.lab().busSocket(), 1);
    const std::string requests[] = {dayRequest("preset"), dayRequest("disable")};
    const std::vector<double> set =
        callers.run({"ptzd", "set_plan_config", {requests[0].c_str(), requests[1].c_str()}}, effort.window).us;
    report.require(!set.empty(), "set_plan_config is answered");
    const std::string plan = std::to_string(entries) + " plan entries: ";
    report.add({plan + "set_plan_config of a day", "µs", median(set), percentile99(set)});
    report.add({plan + "processor time of an hour of touring at rest", "ms", share * 3600 * 1000});
    report.add({plan + "private dirty", "KiB", memoryOf(ptzd).privateDirty});
    report.point("µs of set_plan_config, over plan entries", "ptzd", entries, median(set));
    report.point("ms of processor time of an hour, over plan entries", "ptzd", entries, share * 3600 * 1000);
}

} // namespace

void benchSettings(const Effort& effort, Report& report)
{
    report.section("More presets, a longer plan");
    for (const int presets : {0, 2, 4, 8})
        withPresets(presets, effort, report);
    for (const int entries : {0, 7, 35, 70})
        withPlan(entries, effort, report);
}
