#include "commands.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace {

namespace fs = std::filesystem;

/// A folder that a lab may fill: new, empty, or a lab already.
bool mayHoldLab(const fs::path& folder)
{
    std::error_code problem;
    if (!fs::exists(folder, problem))
        return true;
    if (!fs::is_directory(folder, problem))
        return false;
    return fs::is_empty(folder, problem) || fs::exists(folder / "state", problem) ||
           fs::exists(folder / "lock", problem);
}

/// Takes the argument behind an option out as well.
bool takeValue(Arguments& arguments, size_t index, std::string& value)
{
    if (index + 1 >= arguments.size())
        return false;
    value = arguments[index + 1];
    const auto at = arguments.begin() + static_cast<std::ptrdiff_t>(index);
    arguments.erase(at, at + 2);
    return true;
}

bool applyOption(const std::string& name, const std::string& value, LabOptions& options)
{
    int64_t number = 0;
    if (name == "--pan")
        return parseSetting(value, ',', 1, options.pan);
    if (name == "--tilt")
        return parseSetting(value, ',', 1, options.tilt);
    if (name == "--factor" && parseNumber(value, 1, 1'000'000, number)) {
        options.factor = static_cast<int32_t>(number);
        return true;
    }
    if (name == "--speed" && parseNumber(value, 1, 100'000, number)) {
        options.clockSpeed = static_cast<double>(number);
        return true;
    }
    if (name == "--ptzd" && access(value.c_str(), X_OK) == 0) {
        options.ptzd = fs::absolute(value).string();
        return true;
    }
    return false;
}

} // namespace

std::string typed(const std::string& words)
{
    const char* dev = getenv("PTZD_DEV");
    if (dev && *dev)
        return std::string(dev) + " " + words;
    return program_invocation_name + (words.starts_with("lab ") ? words.substr(3) : " exec -- " + words);
}

int wrongUse(const Command& self, const std::string& problem)
{
    fprintf(stderr, "ptzd-lab %s: %s\nusage: %s%s\n", self.name, problem.c_str(), typed("lab ").c_str(), self.usage);
    return 2;
}

int failed(const std::string& reason)
{
    fprintf(stderr, "ptzd-lab: %s%s", reason.c_str(), reason.ends_with('\n') ? "" : "\n");
    return 1;
}

std::string labFolderFor(const Arguments& arguments, size_t index)
{
    if (index < arguments.size() && !arguments[index].empty())
        return arguments[index];
    const char* named = getenv("PTZD_LAB_DIR");
    return named && *named ? named : ".lab";
}

bool attached(Lab& lab)
{
    if (lab.attach())
        return true;
    failed(lab.error() + " (" + typed("lab up") + " starts one)");
    return false;
}

bool takeStartOptions(Arguments& arguments, LabOptions& options, std::string& problem)
{
    for (size_t i = 0; i < arguments.size();) {
        const std::string name = arguments[i];
        if (!name.starts_with("-")) {
            ++i;
            continue;
        }
        if (name == "--no-wait") {
            options.waitCalibrated = false;
            arguments.erase(arguments.begin() + static_cast<std::ptrdiff_t>(i));
            continue;
        }
        std::string value;
        const bool known =
            name == "--pan" || name == "--tilt" || name == "--factor" || name == "--speed" || name == "--ptzd";
        if (!known)
            problem = "there is no option " + name;
        else if (!takeValue(arguments, i, value))
            problem = name + " needs a value";
        else if (!applyOption(name, value, options))
            problem = name + " does not take \"" + value + "\"";
        if (!problem.empty())
            return false;
    }
    if (arguments.size() > 1)
        problem = "more than one folder: " + arguments[0] + " and " + arguments[1];
    return problem.empty();
}

bool parseNumber(const std::string& text, int64_t low, int64_t high, int64_t& value)
{
    const char* end = text.data() + text.size();
    const auto [stop, problem] = std::from_chars(text.data(), end, value);
    return problem == std::errc() && stop == end && value >= low && value <= high;
}

bool parseSetting(const std::string& text, char separator, int32_t low, LabAxisSetting& setting)
{
    int32_t* const fields[] = {&setting.range, &setting.max_speed, &setting.total_steps};
    size_t start = 0;
    for (int32_t* field : fields) {
        const size_t end = text.find(separator, start);
        int64_t value = 0;
        if (start > text.size() || !parseNumber(text.substr(start, end - start), low, INT32_MAX, value))
            return false;
        *field = static_cast<int32_t>(value);
        start = end == std::string::npos ? text.size() + 1 : end + 1;
    }
    return start > text.size();
}

const char* axisName(LabAxisId axis)
{
    return axis == LAB_PAN ? "pan" : "tilt";
}

int32_t coordinateOf(const LabAxisSetting& setting, int32_t steps)
{
    return static_cast<int32_t>(int64_t{setting.range} * steps / setting.total_steps) - setting.range / 2;
}

WorkLock::WorkLock(const std::string& folder)
{
    std::error_code problem;
    if (!mayHoldLab(folder)) {
        failed(folder + " is in use for something else than a lab");
        return;
    }
    fs::create_directories(folder, problem);
    fd_ = open((folder + "/lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd_ < 0) {
        failed("cannot write to " + folder + ": " + strerror(errno));
        return;
    }
    held_ = waitUntil([this] { return flock(fd_, LOCK_EX | LOCK_NB) == 0; }, std::chrono::seconds(30));
    if (!held_)
        failed("another ptzd-lab is busy with " + folder);
}

WorkLock::~WorkLock()
{
    if (fd_ >= 0)
        close(fd_);
}
