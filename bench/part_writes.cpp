// What a saved position costs the flash, and how many saves a busy day makes: by the rule, and counted.

#include "bench.h"
#include "bench_paths.h"
#include "head_pair.h"

#include <algorithm>
#include <thread>

using namespace std::chrono_literals;

namespace {

constexpr const char* DONE = R"({"error_code":0})";
constexpr double SAVE_DELAY_S = 10; // after the last command
constexpr double MOTION_EVERY_S = 30;
constexpr double BURST_STEP_S = 3;
constexpr int BURST = 3;
constexpr double BUSY_HOURS = 8;
constexpr auto TIMEOUT = 20s;

/// What one save made durable.
struct Cost {
    double syncs = 0;
    double flashSyncs = 0; // of these, in the folder of the settings
    double flashBytes = 0;
};

bool inSettings(const Sync& sync)
{
    return sync.path.find("/etc/config") != std::string::npos;
}

Cost costOf(const std::vector<Sync>& syncs, size_t since)
{
    Cost cost;
    for (size_t i = since; i < syncs.size(); ++i) {
        cost.syncs += 1;
        cost.flashSyncs += inSettings(syncs[i]) ? 1 : 0;
        cost.flashBytes += inSettings(syncs[i]) ? static_cast<double>(syncs[i].bytes) : 0;
    }
    return cost;
}

/// New files among what was made durable: one for each commit.
int commits(const std::vector<Sync>& syncs)
{
    return static_cast<int>(
        std::count_if(syncs.begin(), syncs.end(), [](const Sync& sync) { return inSettings(sync) && sync.bytes > 0; }));
}

/// A motion that ends at once; the target alternates.
bool moveHead(Lab& lab, int number)
{
    return lab.call("moveTo",
                    number % 2 == 0 ? R"({"x_coord":"30","y_coord":"0"})" : R"({"x_coord":"0","y_coord":"0"})") == DONE;
}

void sleepLab(double seconds, const Effort& effort)
{
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds / effort.labSpeed));
}

/// Both sides store speeds first, then a position of as many digits, in the same package.
void oneSave(HeadPair& pair, Report& report)
{
    constexpr const char* SPEEDS = R"({"x_speed":"5","y_speed":"5"})";
    Lab& lab = pair.lab();
    const pid_t ptzd = lab.programs.ptzdPid();
    const size_t atStart = pair.syncs(ptzd).size();
    bool stored = lab.call("setConfig", SPEEDS) == DONE && lab.invoke("bare_requests", "setConfig", SPEEDS).status == 0;
    const size_t before = pair.syncs(ptzd).size();
    const size_t bareBefore = pair.syncs(pair.barePid()).size();
    const auto saved = [&] {
        return lab.settings.get("ptzd.x_motor.steps") == "1800";
    }; // 30 of -150..150 in 3000 steps
    const auto speeds = static_cast<double>(before - atStart);
    report.add({"files and directories synced by setConfig", "syncs", speeds, {}, static_cast<double>(bareBefore)});
    stored = stored && moveHead(lab, 0) && waitUntil(saved, TIMEOUT) && lab.invoke("bare_requests", "save").status == 0;
    report.require(stored, "a position is saved");
    const Cost cost = costOf(pair.syncs(ptzd), before);
    const Cost bare = costOf(pair.syncs(pair.barePid()), bareBefore);
    report.add({"files and directories synced by a saved position", "syncs", cost.syncs, {}, bare.syncs});
    report.add({"of these in the settings", "syncs", cost.flashSyncs, {}, bare.flashSyncs});
    Row bytes{"bytes that a saved position writes to the settings", "bytes", cost.flashBytes, {}, bare.flashBytes};
    bytes.ratio = cost.flashBytes / bare.flashBytes;
    report.add(bytes);
    report.add({"megabytes of a busy day, a motion every 30 s for 8 hours", "MB",
                cost.flashBytes * BUSY_HOURS * 3600 / MOTION_EVERY_S / 1e6});
    // The change file's mark, the new file, and the directory that gets its name.
    report.require(!BENCH_STANDIN_UCI || (speeds == 3 && bareBefore == 3), "both speeds take three syncs");
    report.require(!BENCH_STANDIN_UCI || (cost.syncs == 3 && bare.syncs == 3), "a saved position takes three syncs");
    report.require(cost.flashBytes == bare.flashBytes, "a saved position writes its package once");
}

/// Motions with pauses, `burst` of them close together each time. The commits that they led to. `number` counts the
/// pauses on: a position that is stored already would cost nothing.
int savesOf(HeadPair& pair, int times, int burst, int& number, const Effort& effort, Report& report)
{
    const pid_t ptzd = pair.lab().programs.ptzdPid();
    const int before = commits(pair.syncs(ptzd));
    for (const int end = number + times; number < end; ++number) {
        for (int motion = 0; motion < burst; ++motion) {
            report.require(moveHead(pair.lab(), number), "moveTo works");
            sleepLab(motion + 1 < burst ? BURST_STEP_S : MOTION_EVERY_S - (burst - 1) * BURST_STEP_S, effort);
        }
    }
    waitUntil([&] { return commits(pair.syncs(ptzd)) - before >= times; }, 5s);
    return commits(pair.syncs(ptzd)) - before;
}

} // namespace

void benchWrites(const Effort& effort, Report& report)
{
    LabOptions options = countedHead();
    options.clockSpeed = effort.labSpeed;
    HeadPair pair(options);
    report.require(pair.valid(), "the lab starts");
    if (!pair.valid())
        return;
    report.section("Writes: a save comes 10 s after the last command of a user");
    oneSave(pair, report);
    int number = 1;
    const int single = savesOf(pair, effort.saves, 1, number, effort, report);
    const int bursts = savesOf(pair, effort.saves, BURST, number, effort, report);
    report.add({"saves counted, " + std::to_string(effort.saves) + " motions, 30 s apart", "saves", single});
    report.add({"saves counted, " + std::to_string(effort.saves) + " times three motions within 6 s", "saves", bursts});
    report.add({"saves of a day, a motion every 30 s for 8 hours", "saves", BUSY_HOURS * 3600 / MOTION_EVERY_S});
    report.add({"saves of a day at most", "saves", 24 * 3600 / SAVE_DELAY_S});
    report.require(single == effort.saves && bursts == effort.saves, "each pause of 10 s makes one save");
}
