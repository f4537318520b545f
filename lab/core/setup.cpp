// What a lab folder holds before its programs start.

#include "lab/lab.h"

#include "files.h"
#include "lab/clock.h"
#include "lab_paths.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

namespace {

namespace fs = std::filesystem;

constexpr const char* FOLDERS[] = {"etc/config",      "tmp/.uci", "var/run/uci", "var/run/ubus",
                                   "usr/share/acl.d", "dev",      "log",         "pid"};

std::string nodePath(const std::string& folder, LabAxisId axis)
{
    return folder + (axis == LAB_PAN ? "/dev/x-motor" : "/dev/y-motor");
}

/// Where the node waits while it is missing: the same file, so that open descriptors still are the axis.
std::string hiddenNodePath(const std::string& folder, LabAxisId axis)
{
    return nodePath(folder, axis) + ".gone";
}

bool moveFile(const std::string& from, const std::string& to)
{
    return rename(from.c_str(), to.c_str()) == 0;
}

/// Default settings that the folder does not have yet, then the given packages.
bool copySettings(const std::string& folder, const std::map<std::string, std::string>& packages)
{
    std::error_code problem;
    for (const auto& entry : fs::directory_iterator(LAB_CONFIG_FOLDER, problem)) {
        const fs::path target = fs::path(folder) / "etc/config" / entry.path().filename();
        if (!fs::exists(target))
            fs::copy_file(entry.path(), target, problem);
        if (problem)
            return false;
    }
    bool written = true;
    for (const auto& [name, text] : packages)
        written = writeFile(folder + "/etc/config/" + name, text) && written;
    return written && !problem;
}

void linkAnew(const std::string& target, const std::string& path)
{
    std::error_code ignored;
    fs::remove(path, ignored);
    fs::create_symlink(target, path, ignored);
}

/// Newer bus libraries look for the bus in a folder of its own; both names lead to the one socket.
void linkBusSocket(const std::string& folder)
{
    const bool below = std::string(LAB_BUS_SOCKET).ends_with("/ubus/ubus.sock");
    unlink((folder + "/var/run" + (below ? "/ubus/ubus.sock" : "/ubus.sock")).c_str());
    if (below)
        linkAnew("ubus/ubus.sock", folder + "/var/run/ubus.sock");
    else
        linkAnew("../ubus.sock", folder + "/var/run/ubus/ubus.sock");
}

/// A zone file whose rule counts for all times after 1901: the format's first part, for old readers, and its second.
std::string zoneFile(const std::string& rule)
{
    const auto number = [](size_t value) { return std::string(3, '\0') + static_cast<char>(value); };
    const auto part = [&](size_t changes) {
        const std::string counts = number(0) + number(0) + number(0) + number(changes) + number(1) + number(4);
        return "TZif2" + std::string(15, '\0') + counts;
    };
    const std::string type = std::string(6, '\0') + std::string("UTC", 4); // offset, no daylight saving, name
    const std::string since = std::string(4, '\xff') + '\x80' + std::string(3, '\0');
    return part(0) + type + part(1) + since + '\0' + type + "\n" + rule + "\n";
}

/// Where the shafts of an earlier lab in this folder stand; -1 without one.
std::array<int32_t, LAB_AXIS_COUNT> formerShafts(const std::string& folder)
{
    std::array<int32_t, LAB_AXIS_COUNT> shafts{-1, -1};
    LabState* former = mapLabState(folder.c_str());
    if (!former)
        return shafts;
    const int64_t now = labNow(*former);
    for (uint32_t axis = 0; axis < LAB_AXIS_COUNT; ++axis) {
        const LabAxisRecord& record = former->axes[axis];
        shafts[axis] = axisAt(record.slots[record.current.load() & 1], now).shaft;
    }
    munmap(former, sizeof(LabState));
    return shafts;
}

LabAxis axisWithoutPower(const LabAxisSetting& setting, int32_t factor, int32_t shaft)
{
    LabAxis axis{};
    axis.range = setting.range;
    axis.maxSpeed = setting.max_speed;
    axis.totalSteps = setting.total_steps;
    axis.factor = std::max(factor, 1);
    axis.shaft = shaft < 0 ? setting.total_steps / 2 : std::min(shaft, setting.total_steps);
    losePower(axis, 0);
    return axis;
}

} // namespace

bool Lab::prepare(const LabOptions& wanted)
{
    options = wanted;
    for (const char* name : FOLDERS) {
        std::error_code problem;
        fs::create_directories(folder() + "/" + name, problem);
        if (problem)
            return fail("cannot create " + folder() + "/" + name + ": " + problem.message());
    }
    if (!copySettings(folder(), options.config))
        return fail("cannot copy the settings to " + folder() + "/etc/config");
    linkBusSocket(folder());
    linkAnew(LAB_ZONE_FILE, folder() + LAB_ZONE_FILE); // the machine's; without a file it is UTC for both
    for (const LabAxisId axis : {LAB_PAN, LAB_TILT}) {
        if (!motors.hasNode(axis) && !moveFile(hiddenNodePath(folder(), axis), nodePath(folder(), axis)) &&
            !writeFile(nodePath(folder(), axis), ""))
            return fail("cannot create " + nodePath(folder(), axis));
    }
    std::string start = options.ptzd + "\n";
    for (const std::string& variable : options.environment)
        start += variable + "\n";
    if (!writeFile(folder() + "/dev/console", "") || !writeFile(folder() + "/start", start) || !createState())
        return fail("cannot write to " + folder());
    std::error_code ignored;
    for (const auto& log : fs::directory_iterator(folder() + "/log", ignored))
        fs::remove(log.path(), ignored);
    records.clear();
    clock.setSpeed(options.clockSpeed);
    return options.wallClock.empty() || clock.setWall(options.wallClock);
}

bool Lab::createState()
{
    const std::array<int32_t, LAB_AXIS_COUNT> shafts = formerShafts(folder());
    const std::string path = folder() + "/state";
    LabState* fresh = createLabState((path + ".new").c_str());
    if (!fresh)
        return false;
    if (state)
        munmap(state, sizeof(LabState));
    state = fresh;
    bool complete = true;
    const LabAxisSetting built[] = {options.pan, options.tilt};
    for (const LabAxisId axis : {LAB_PAN, LAB_TILT}) {
        LabAxisRecord& record = fresh->axes[axis];
        record.slots[record.current.load() & 1] = axisWithoutPower(built[axis], options.factor, shafts[axis]);
        record.slowdown = options.slowdown;
        record.slowdownLeft = 0;
        struct stat node {};
        complete = stat(nodePath(folder(), axis).c_str(), &node) == 0 && complete;
        record.nodeDevice = node.st_dev;
        record.nodeInode = node.st_ino;
    }
    return complete && moveFile(path + ".new", path);
}

bool LabTime::setZone(const std::string& rule)
{
    const std::string path = base_.folder() + LAB_ZONE_FILE;
    return (writeFile(path + ".new", zoneFile(rule)) && moveFile(path + ".new", path)) ||
           base_.fail("cannot write " + path);
}

bool LabMotors::hasNode(LabAxisId axis) const
{
    return access(nodePath(base_.folder(), axis).c_str(), F_OK) == 0;
}

bool LabMotors::setNode(LabAxisId axis, bool present)
{
    if (hasNode(axis) == present)
        return true;
    const std::string shown = nodePath(base_.folder(), axis);
    const std::string hidden = hiddenNodePath(base_.folder(), axis);
    return (present ? moveFile(hidden, shown) : moveFile(shown, hidden)) || base_.fail("cannot rename " + shown);
}
