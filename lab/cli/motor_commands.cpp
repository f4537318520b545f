// Commands that look at motors and time, and interfere with them.

#include "commands.h"

#include <sys/stat.h>

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
    if (parseNumber(text, 1, 4095, error))
        return true;
    for (error = 1; error < 200; ++error) {
        const char* name = strerrorname_np(error);
        if (name && text == name)
            return true;
    }
    return false;
}

void printJournal(const Lab& lab, LabAxisId axis)
{
    std::ifstream journal(lab.folder() + "/journal");
    const std::string mark = axis == LAB_PAN ? " x " : " y ";
    for (std::string line; std::getline(journal, line);) {
        if (line.find(mark) != std::string::npos)
            printf("%s\n", line.c_str());
    }
}

Order failOrder(LabAxisId axis, const Arguments& words)
{
    LabRequest request{};
    int32_t times = 1;
    int error = EIO;
    if (words.size() < 2 || words.size() > 4)
        return {"fail takes a request, how often and an error"};
    if (!parseRequest(words[1], request))
        return {"there is no request " + words[1]};
    if (words.size() > 2 && words[2] == "ever")
        times = LAB_FOR_EVER;
    else if (words.size() > 2 && !parseNumber(words[2], 0, 1'000'000, times))
        return {"not a number of times: " + words[2]};
    if (words.size() > 3 && !parseErrno(words[3], error))
        return {"not an error: " + words[3]};
    return toDo([=](Lab& lab) { lab.motors.failRequest(axis, request, times, error); });
}

Order delayOrder(LabAxisId axis, const Arguments& words)
{
    LabRequest request{};
    int32_t ms = 0;
    if (words.size() != 3)
        return {"delay takes a request and a time in ms"};
    if (!parseRequest(words[1], request))
        return {"there is no request " + words[1]};
    if (!parseNumber(words[2], 0, 86'400'000, ms))
        return {"not a time in ms: " + words[2]};
    return toDo([=](Lab& lab) { lab.motors.delayRequest(axis, request, ms); });
}

Order capabilityOrder(LabAxisId axis, const Arguments& words)
{
    std::optional<LabAxisSetting> shown;
    const bool off = words.size() == 2 && words[1] == "off";
    if (!off && (words.size() != 4 ||
                 !parseSetting(words[1] + " " + words[2] + " " + words[3], ' ', INT32_MIN, shown.emplace())))
        return {"capa takes three whole numbers, or off"};
    return toDo([=](Lab& lab) { lab.motors.reportCapability(axis, shown); });
}

Order switchOrder(LabAxisId axis, const Arguments& words)
{
    if (words.size() != 2 || (words[1] != "on" && words[1] != "off"))
        return {words[0] + " is on or off"};
    const bool on = words[1] == "on";
    if (words[0] == "node")
        return toDo([=](Lab& lab) { return lab.motors.setNode(axis, on); });
    return toDo([=](Lab& lab) { lab.motors.stuckRunning(axis, on); });
}

Order speedOrder(LabAxisId axis, const Arguments& words)
{
    int32_t factor = 0;
    if (words.size() != 2 || !parseNumber(words[1], 1, 1'000'000, factor))
        return {"speed takes the steps per second for each unit of speed"};
    return toDo([=](Lab& lab) { lab.motors.setFactor(axis, factor); });
}

} // namespace

Order motorOrder(Arguments words)
{
    if (words.empty() || (words[0] != "x" && words[0] != "y"))
        return {words.empty() ? "which axis, x or y?" : "the axis is x or y, not " + words[0]};
    const LabAxisId axis = words[0] == "x" ? LAB_PAN : LAB_TILT;
    words.erase(words.begin());
    if (words.empty())
        return toDo([=](Lab& lab) { printAxis(lab, axis); });
    const std::string& verb = words[0];
    if (verb == "fail")
        return failOrder(axis, words);
    if (verb == "delay")
        return delayOrder(axis, words);
    if (verb == "capa")
        return capabilityOrder(axis, words);
    if (verb == "stuck" || verb == "node")
        return switchOrder(axis, words);
    if (verb == "speed")
        return speedOrder(axis, words);
    if (verb != "clear" && verb != "journal")
        return {"there is no action " + verb};
    if (words.size() > 1)
        return {verb + " takes no argument"};
    if (verb == "clear")
        return toDo([=](Lab& lab) { return lab.motors.clearFaults(axis); });
    return toDo([=](Lab& lab) { printJournal(lab, axis); });
}

Order powerLossOrder(Arguments arguments)
{
    if (!arguments.empty())
        return {"takes no argument"};
    return toDo([](Lab& lab) { lab.motors.powerLoss(); });
}

Order clockOrder(Arguments arguments)
{
    const std::string action = arguments.empty() ? "" : arguments[0];
    if (action == "speed") {
        char* end = nullptr;
        const double speed = arguments.size() == 2 ? strtod(arguments[1].c_str(), &end) : 0;
        if (!end || *end != '\0' || !(speed >= 0.001 && speed <= 100'000))
            return {"speed takes a number from 0.001 to 100000"};
        return toDo([=](Lab& lab) { lab.clock.setSpeed(speed); });
    }
    if (action == "set" && arguments.size() != 2)
        return {"set takes a time in one argument"};
    if (action == "set")
        return toDo([=](Lab& lab) { return lab.clock.setWall(arguments[1]); });
    if (arguments.size() > 1)
        return {action + " takes no argument"};
    if (action == "real")
        return toDo([](Lab& lab) { lab.clock.realTime(); });
    if (action != "")
        return {"there is no action " + action};
    return toDo([](Lab& lab) { printf("%s, speed %g\n", lab.clock.wall().c_str(), lab.clock.speed()); });
}

Order journalOrder(Arguments arguments)
{
    const bool follow = arguments.size() == 1 && arguments[0] == "-f";
    if (!arguments.empty() && !follow)
        return {"takes -f or nothing"};
    return toDo([follow](Lab& lab) {
        const std::string path = lab.folder() + "/journal";
        std::ifstream journal(path);
        for (off_t shown = 0;;) {
            for (std::string line; std::getline(journal, line);)
                std::cout << line << '\n';
            std::cout.flush();
            if (!follow || !std::cout)
                return;
            journal.clear();
            const auto at = static_cast<off_t>(journal.tellg());
            shown = at >= 0 ? at : shown;
            struct stat info {};
            if (stat(path.c_str(), &info) == 0 && info.st_size < shown)
                journal.seekg(0); // emptied by a new start
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    });
}

Order plotOrder(Arguments arguments)
{
    if (arguments.size() != 1)
        return {"takes the name of the picture"};
    return toDo([file = arguments[0]](Lab& lab) {
        const std::vector<LabJournalEntry> journal = lab.records.journal();
        if (journal.empty())
            return failed("nothing has happened in " + lab.folder() + " yet");
        const LabAxisSetting axes[] = {lab.motors.setting(LAB_PAN), lab.motors.setting(LAB_TILT)};
        std::ofstream picture(file);
        picture << plotLab(journal, lab.records.cetLog(), axes, lab.clock.nowNs(), lab.clock.wallAtZeroNs());
        picture.close();
        if (!picture)
            return failed("cannot write " + file);
        printf("pan and tilt are drawn in %s\n", file.c_str());
        return 0;
    });
}
