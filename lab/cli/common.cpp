#include "commands.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
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

/// Takes the value of an option; what is wrong with it, or nothing.
std::string applyOption(const std::string& name, const std::string& value, LabOptions& options)
{
    bool good = false;
    if (name == "--pan") {
        good = parseSetting(value, ',', 1, options.pan);
    } else if (name == "--tilt") {
        good = parseSetting(value, ',', 1, options.tilt);
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
    return program_invocation_name + (words.starts_with("lab ") ? words.substr(3) : " exec -- " + words);
}

int failed(const std::string& reason)
{
    fprintf(stderr, "ptzd-lab: %s%s", reason.c_str(), reason.ends_with('\n') ? "" : "\n");
    return 1;
}

Order startOrder(const Arguments& arguments, LabOptions& options)
{
    Order order;
    order.startsLab = true;
    for (size_t i = 0; i < arguments.size() && order.problem.empty(); ++i) {
        const std::string& word = arguments[i];
        if (word == "--no-wait") {
            options.waitCalibrated = false;
        } else if (word.starts_with("-")) {
            order.problem = applyOption(word, i + 1 < arguments.size() ? arguments[i + 1] : "", options);
            ++i;
        } else if (!order.folder.empty()) {
            order.problem = "more than one folder: " + order.folder + " and " + word;
        } else {
            order.folder = word;
        }
    }
    return order;
}

bool parseSetting(const std::string& text, char separator, int32_t low, LabAxisSetting& setting)
{
    int32_t* const fields[] = {&setting.range, &setting.max_speed, &setting.total_steps};
    size_t start = 0;
    for (int32_t* field : fields) {
        const size_t end = text.find(separator, start);
        if (start > text.size() || !parseNumber(text.substr(start, end - start), low, INT32_MAX, *field))
            return false;
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
