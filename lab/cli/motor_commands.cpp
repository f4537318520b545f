// Commands that look at motors and time, and interfere with them.

#include "commands.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>

namespace {

/// Upper or lower case, with hyphens or underscores.
bool parseRequest(std::string text, LabRequest& request)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return c == '-' ? '_' : static_cast<char>(toupper(c)); });
    const auto* found = std::find(std::begin(LAB_REQUEST_NAMES), std::end(LAB_REQUEST_NAMES), text);
    request = static_cast<LabRequest>(found - std::begin(LAB_REQUEST_NAMES));
    return request < LAB_REQUEST_COUNT;
}

/// A number, or a name as EIO.
bool parseErrno(const std::string& text, int& error)
{
    int64_t number = 0;
    if (parseNumber(text, 1, 4095, number)) {
        error = static_cast<int>(number);
        return true;
    }
    for (error = 1; error < 200; ++error) {
        const char* name = strerrorname_np(error);
        if (name && text == name)
            return true;
    }
    return false;
}

bool parseSwitch(const std::string& text, bool& on)
{
    on = text == "on";
    return on || text == "off";
}

/// What a motor command asks for, checked before the lab is looked for.
struct MotorOrder {
    std::string problem;
    std::function<bool(Lab&, LabAxisId)> carryOut;
};

MotorOrder failOrder(const Arguments& words)
{
    LabRequest request{};
    int64_t times = 1;
    int error = EIO;
    if (words.size() < 2 || words.size() > 4)
        return {"fail takes a request, how often and an error", nullptr};
    if (!parseRequest(words[1], request))
        return {"there is no request " + words[1], nullptr};
    if (words.size() > 2 && words[2] == "ever")
        times = LAB_FOR_EVER;
    else if (words.size() > 2 && !parseNumber(words[2], 0, 1'000'000, times))
        return {"not a number of times: " + words[2], nullptr};
    if (words.size() > 3 && !parseErrno(words[3], error))
        return {"not an error: " + words[3], nullptr};
    return {"", [=](Lab& lab, LabAxisId axis) {
                lab.motors.failRequest(axis, request, static_cast<int32_t>(times), error);
                return true;
            }};
}

MotorOrder delayOrder(const Arguments& words)
{
    LabRequest request{};
    int64_t ms = 0;
    if (words.size() != 3)
        return {"delay takes a request and a time in ms", nullptr};
    if (!parseRequest(words[1], request))
        return {"there is no request " + words[1], nullptr};
    if (!parseNumber(words[2], 0, 86'400'000, ms))
        return {"not a time in ms: " + words[2], nullptr};
    return {"", [=](Lab& lab, LabAxisId axis) {
                lab.motors.delayRequest(axis, request, static_cast<int32_t>(ms));
                return true;
            }};
}

MotorOrder capabilityOrder(const Arguments& words)
{
    if (words.size() == 2 && words[1] == "off")
        return {"", [](Lab& lab, LabAxisId axis) {
                    lab.motors.reportCapability(axis, std::nullopt);
                    return true;
                }};
    LabAxisSetting setting{};
    if (words.size() != 4 || !parseSetting(words[1] + " " + words[2] + " " + words[3], ' ', INT32_MIN, setting))
        return {"capa takes three whole numbers, or off", nullptr};
    return {"", [=](Lab& lab, LabAxisId axis) {
                lab.motors.reportCapability(axis, setting);
                return true;
            }};
}

MotorOrder switchOrder(const Arguments& words)
{
    bool on = false;
    if (words.size() != 2 || !parseSwitch(words[1], on))
        return {words[0] + " is on or off", nullptr};
    if (words[0] == "node")
        return {"", [=](Lab& lab, LabAxisId axis) { return lab.motors.setNode(axis, on); }};
    return {"", [=](Lab& lab, LabAxisId axis) {
                lab.motors.stuckRunning(axis, on);
                return true;
            }};
}

MotorOrder speedOrder(const Arguments& words)
{
    int64_t factor = 0;
    if (words.size() != 2 || !parseNumber(words[1], 1, 1'000'000, factor))
        return {"speed takes the steps per second for each unit of speed", nullptr};
    return {"", [=](Lab& lab, LabAxisId axis) {
                lab.motors.setFactor(axis, static_cast<int32_t>(factor));
                return true;
            }};
}

bool printJournal(const Lab& lab, LabAxisId axis)
{
    std::ifstream journal(lab.folder() + "/journal");
    const std::string mark = axis == LAB_PAN ? " x " : " y ";
    for (std::string line; std::getline(journal, line);) {
        if (line.find(mark) != std::string::npos)
            printf("%s\n", line.c_str());
    }
    return true;
}

MotorOrder orderOf(const Arguments& words)
{
    if (words.empty())
        return {"", [](Lab& lab, LabAxisId axis) {
                    printAxis(lab, axis);
                    return true;
                }};
    const std::string& verb = words[0];
    if (verb == "fail")
        return failOrder(words);
    if (verb == "delay")
        return delayOrder(words);
    if (verb == "capa")
        return capabilityOrder(words);
    if (verb == "stuck" || verb == "node")
        return switchOrder(words);
    if (verb == "speed")
        return speedOrder(words);
    if ((verb == "heal" || verb == "journal") && words.size() > 1)
        return {verb + " takes no argument", nullptr};
    if (verb == "heal")
        return {"", [](Lab& lab, LabAxisId axis) { return lab.motors.clearFaults(axis); }};
    if (verb == "journal")
        return {"", printJournal};
    return {"there is no action " + verb, nullptr};
}

} // namespace

int motorCommand(const Command& self, Arguments arguments)
{
    if (arguments.empty() || (arguments[0] != "x" && arguments[0] != "y"))
        return wrongUse(self, arguments.empty() ? "which axis, x or y?" : "the axis is x or y, not " + arguments[0]);
    const LabAxisId axis = arguments[0] == "x" ? LAB_PAN : LAB_TILT;
    arguments.erase(arguments.begin());
    const MotorOrder order = orderOf(arguments);
    if (!order.problem.empty())
        return wrongUse(self, order.problem);
    Lab lab(labFolderFor({}, 0));
    if (!attached(lab))
        return 1;
    return order.carryOut(lab, axis) ? 0 : failed(lab.error());
}

int powerLossCommand(const Command& self, Arguments arguments)
{
    if (!arguments.empty())
        return wrongUse(self, "takes no argument");
    Lab lab(labFolderFor({}, 0));
    if (!attached(lab))
        return 1;
    lab.motors.powerLoss();
    return 0;
}

int clockCommand(const Command& self, Arguments arguments)
{
    const std::string action = arguments.empty() ? "" : arguments[0];
    char* end = nullptr;
    double speed = 0;
    if (action == "speed") {
        speed = arguments.size() == 2 ? strtod(arguments[1].c_str(), &end) : 0;
        if (arguments.size() != 2 || *end != '\0' || !(speed >= 0.001 && speed <= 100'000))
            return wrongUse(self, "speed takes a number from 0.001 to 100000");
    } else if (action == "set" && arguments.size() != 2) {
        return wrongUse(self, "set takes a time in one argument");
    } else if (action == "real" && arguments.size() != 1) {
        return wrongUse(self, "real takes no argument");
    } else if (action != "" && action != "set" && action != "real") {
        return wrongUse(self, "there is no action " + action);
    }
    Lab lab(labFolderFor({}, 0));
    if (!attached(lab))
        return 1;
    if (action == "speed")
        lab.clock.setSpeed(speed);
    else if (action == "real")
        lab.clock.realTime();
    else if (action == "set" && !lab.clock.setWall(arguments[1]))
        return wrongUse(self, lab.error());
    else if (action == "")
        printf("%s, speed %g\n", lab.clock.wall().c_str(), lab.clock.speed());
    return 0;
}

int journalCommand(const Command& self, Arguments arguments)
{
    const bool follow = arguments.size() == 1 && arguments[0] == "-f";
    if (!arguments.empty() && !follow)
        return wrongUse(self, "takes -f or nothing");
    Lab lab(labFolderFor({}, 0));
    if (!attached(lab))
        return 1;
    const std::string path = lab.folder() + "/journal";
    std::ifstream journal(path);
    off_t shown = 0;
    for (;;) {
        for (std::string line; std::getline(journal, line);)
            std::cout << line << '\n';
        std::cout.flush();
        if (!follow || !std::cout)
            return 0;
        journal.clear();
        const auto at = static_cast<off_t>(journal.tellg());
        shown = at >= 0 ? at : shown;
        struct stat info {};
        if (stat(path.c_str(), &info) == 0 && info.st_size < shown)
            journal.seekg(0); // emptied by a new start
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

int plotCommand(const Command& self, Arguments arguments)
{
    if (arguments.size() != 1)
        return wrongUse(self, "takes the name of the picture");
    Lab lab(labFolderFor({}, 0));
    if (!attached(lab))
        return 1;
    const std::vector<LabJournalEntry> journal = lab.records.journal();
    if (journal.empty())
        return failed("nothing has happened in " + lab.folder() + " yet");
    std::ofstream picture(arguments[0]);
    picture << plotLab(journal, lab.records.cetLog(), {lab.motors.setting(LAB_PAN), lab.motors.setting(LAB_TILT)},
                       lab.clock.nowNs(), lab.clock.wallAtZeroNs());
    picture.close();
    if (!picture)
        return failed("cannot write " + arguments[0]);
    printf("pan and tilt are drawn in %s\n", arguments[0].c_str());
    return 0;
}
