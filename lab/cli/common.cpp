#include "commands.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>

namespace {

namespace fs = std::filesystem;

/// A folder that a lab may fill: new, empty, or a lab already.
bool mayHoldLab(const fs::path& folder)
{
    std::error_code problem;
    if (!fs::exists(folder, problem))
        return true;
    return fs::is_directory(folder, problem) &&
           (fs::is_empty(folder, problem) || fs::exists(folder / "state", problem) ||
            fs::exists(folder / "lock", problem));
}

/// Takes the value of an option; what is wrong with it, or nothing.
std::string applyOption(const std::string& name, const std::string& value, LabOptions& options)
{
    bool good = false;
    if (name == "--pan") {
        good = parseSetting(value, 1, options.pan);
    } else if (name == "--tilt") {
        good = parseSetting(value, 1, options.tilt);
    } else if (name == "--factor") {
        good = parseNumber(value, 1, 1'000'000, options.factor);
    } else if (name == "--speed") {
        int32_t speed = 1;
        good = parseNumber(value, 1, 100'000, speed);
        options.clockSpeed = speed;
    } else if (name == "--ptzd") {
        std::error_code problem;
        good = access(value.c_str(), X_OK) == 0;
        options.ptzd = fs::absolute(value, problem).string();
    } else {
        return "there is no option " + name;
    }
    return good ? "" : value.empty() ? name + " needs a value" : name + " does not take \"" + value + "\"";
}

} // namespace

std::string typed(const std::string& words)
{
    const char* dev = getenv("PTZD_DEV");
    if (dev && *dev)
        return std::string(dev) + " " + words;
    const std::string command = words.starts_with("ctl ") ? "ptz" + words : words; // the name of ./dev is shorter
    return program_invocation_name + (words.starts_with("lab ") ? words.substr(3) : " exec -- " + command);
}

int failed(const std::string& reason)
{
    fprintf(stderr, "ptzd-lab: %s%s", reason.c_str(), reason.ends_with('\n') ? "" : "\n");
    return 1;
}

int statusOf(const Lab& lab, bool succeeded)
{
    return succeeded ? 0 : failed(lab.error());
}

std::string parseOptions(const Arguments& arguments, LabOptions& options)
{
    std::string problem;
    for (size_t i = 0; i < arguments.size() && problem.empty(); ++i) {
        if (arguments[i] == "--no-wait") {
            options.waitCalibrated = false;
        } else {
            problem = applyOption(arguments[i], i + 1 < arguments.size() ? arguments[i + 1] : "", options);
            ++i;
        }
    }
    return problem;
}

bool parseSetting(const std::string& text, int32_t low, LabAxisSetting& setting)
{
    int32_t* const fields[] = {&setting.range, &setting.max_speed, &setting.total_steps};
    std::istringstream list(text);
    std::string word;
    const auto take = [&](int32_t* field) {
        return std::getline(list, word, ',') && parseNumber(word, low, INT32_MAX, *field);
    };
    return std::all_of(std::begin(fields), std::end(fields), take) && list.eof();
}

std::string axisText(Lab& lab, LabAxisId axis)
{
    const LabAxisSetting setting = lab.motors.setting(axis);
    const LabAxisNow now = lab.motors.now(axis);
    const auto coordinate = static_cast<int32_t>(int64_t{setting.range} * now.count / setting.total_steps);
    char text[192];
    (void)snprintf(text, sizeof(text), "%-5s at %d (step %d of %d, shaft at %d), %s, speed %d of %d",
                   axis == LAB_PAN ? "pan" : "tilt", coordinate - setting.range / 2, now.count, setting.total_steps,
                   now.shaft, now.running ? "turns" : "rests", now.speed, setting.max_speed);
    return text;
}

int lockLab(const std::string& folder)
{
    std::error_code problem;
    if (!mayHoldLab(folder)) {
        failed(folder + " is in use for something else than a lab");
        return -1;
    }
    fs::create_directories(folder, problem);
    const int lock = open((folder + "/lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (lock < 0) {
        failed("cannot write to " + folder + ": " + strerror(errno));
        return -1;
    }
    if (waitUntil([lock] { return flock(lock, LOCK_EX | LOCK_NB) == 0; }, std::chrono::seconds(30)))
        return lock;
    close(lock);
    failed("another ptzd-lab is busy with " + folder);
    return -1;
}
