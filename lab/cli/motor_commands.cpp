// Commands that look at motors and time, and interfere with them.

#include "commands.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

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

/// A number, or a name that a driver's error may have.
bool parseErrno(const std::string& text, int& error)
{
    const std::map<std::string, int> names = {{"EIO", EIO},       {"EBUSY", EBUSY},   {"EAGAIN", EAGAIN},
                                              {"EINTR", EINTR},   {"EINVAL", EINVAL}, {"ENODEV", ENODEV},
                                              {"ENOMEM", ENOMEM}, {"EPERM", EPERM},   {"ETIMEDOUT", ETIMEDOUT}};
    const auto named = names.find(text);
    if (named == names.end())
        return parseNumber(text, 1, 4095, error);
    error = named->second;
    return true;
}

/// Prints the lines of the journal that have the mark in them.
int printJournal(const Lab& lab, const char* mark)
{
    std::ifstream journal(lab.folder() + "/journal");
    for (std::string line; std::getline(journal, line);) {
        if (line.find(mark) != std::string::npos)
            puts(line.c_str());
    }
    return 0;
}

std::string faultText(const LabFaults& faults)
{
    std::string text;
    for (uint32_t request = 0; request < LAB_REQUEST_COUNT; ++request) {
        const LabFault& fault = faults.requests[request];
        const std::string name = LAB_REQUEST_NAMES[request];
        if (fault.failures != 0)
            text += ", " + name + " fails " +
                    (fault.failures < 0 ? "for ever" : std::to_string(fault.failures) + " more times") + " (" +
                    strerror(fault.error) + ")";
        if (fault.delayMs != 0)
            text += ", " + name + " answers " + std::to_string(fault.delayMs) + " ms late";
    }
    if (faults.stuckRunning)
        text += ", reports running for ever";
    if (faults.capaReplaced)
        text += ", reports range " + std::to_string(faults.capability[0]) + ", max_speed " +
                std::to_string(faults.capability[1]) + ", total_steps " + std::to_string(faults.capability[2]);
    return text.empty() ? "" : text.substr(2);
}

int printAxis(Lab& lab, LabAxisId axis)
{
    puts(axisText(lab, axis).c_str());
    const std::string faults = faultText(lab.motors.faults(axis));
    if (!faults.empty())
        printf("      faults: %s\n", faults.c_str());
    if (!lab.motors.hasNode(axis))
        printf("      /dev/%s is missing\n", axis == LAB_PAN ? "x-motor" : "y-motor");
    return 0;
}

int fail(Lab& lab, LabAxisId axis, const Arguments& words)
{
    LabRequest request{};
    int32_t times = 1;
    int error = EIO;
    if (!parseRequest(words[0], request))
        return wrongUse("there is no request " + words[0]);
    if (words.size() > 1 && words[1] == "ever")
        times = LAB_FOR_EVER;
    else if (words.size() > 1 && !parseNumber(words[1], 0, 1'000'000, times))
        return wrongUse("not a number of times: " + words[1]);
    if (words.size() > 2 && !parseErrno(words[2], error))
        return wrongUse("not an error: " + words[2]);
    lab.motors.failRequest(axis, request, times, error);
    return 0;
}

int delay(Lab& lab, LabAxisId axis, const Arguments& words)
{
    LabRequest request{};
    int32_t ms = 0;
    if (!parseRequest(words[0], request))
        return wrongUse("there is no request " + words[0]);
    if (!parseNumber(words[1], 0, 86'400'000, ms))
        return wrongUse("not a time in ms: " + words[1]);
    lab.motors.delayRequest(axis, request, ms);
    return 0;
}

int reportCapability(Lab& lab, LabAxisId axis, const Arguments& words)
{
    std::optional<LabAxisSetting> shown;
    if (words.size() == 3 ? !parseSetting(words[0] + "," + words[1] + "," + words[2], INT32_MIN, shown.emplace())
                          : words != Arguments{"off"})
        return wrongUse("capa takes three whole numbers, or off");
    lab.motors.reportCapability(axis, shown);
    return 0;
}

int stick(Lab& lab, LabAxisId axis, const Arguments& words)
{
    if (words[0] != "on" && words[0] != "off")
        return wrongUse("stuck is on or off");
    lab.motors.stuckRunning(axis, words[0] == "on");
    return 0;
}

int setNode(Lab& lab, LabAxisId axis, const Arguments& words)
{
    if (words[0] != "on" && words[0] != "off")
        return wrongUse("node is on or off");
    return statusOf(lab, lab.motors.setNode(axis, words[0] == "on"));
}

int setFactor(Lab& lab, LabAxisId axis, const Arguments& words)
{
    int32_t factor = 0;
    if (!parseNumber(words[0], 1, 1'000'000, factor))
        return wrongUse("speed takes the steps per second for each unit of speed");
    lab.motors.setFactor(axis, factor);
    return 0;
}

const struct {
    const char* name;
    size_t fewest; // arguments
    size_t most;
    int (*act)(Lab& lab, LabAxisId axis, const Arguments& words);
} ACTIONS[] = {
    {"fail", 1, 3, fail},
    {"delay", 2, 2, delay},
    {"capa", 1, 3, reportCapability},
    {"stuck", 1, 1, stick},
    {"node", 1, 1, setNode},
    {"speed", 1, 1, setFactor},
    {"clear", 0, 0,
     [](Lab& lab, LabAxisId axis, const Arguments&) { return statusOf(lab, lab.motors.clearFaults(axis)); }},
    {"journal", 0, 0,
     [](Lab& lab, LabAxisId axis, const Arguments&) { return printJournal(lab, axis == LAB_PAN ? " x " : " y "); }},
};

} // namespace

int motorCommand(Lab& lab, const Arguments& arguments)
{
    if (arguments.empty() || (arguments[0] != "x" && arguments[0] != "y"))
        return wrongUse(arguments.empty() ? "which axis, x or y?" : "the axis is x or y, not " + arguments[0]);
    const LabAxisId axis = arguments[0] == "x" ? LAB_PAN : LAB_TILT;
    if (arguments.size() == 1)
        return printAxis(lab, axis);
    const Arguments words(arguments.begin() + 2, arguments.end());
    for (const auto& action : ACTIONS) {
        if (arguments[1] != action.name)
            continue;
        if (words.size() < action.fewest || words.size() > action.most)
            return wrongUse(arguments[1] +
                            (words.size() > action.most ? " takes fewer arguments" : " needs arguments"));
        return action.act(lab, axis, words);
    }
    return wrongUse("there is no action " + arguments[1]);
}

int powerLossCommand(Lab& lab, const Arguments& arguments)
{
    if (!arguments.empty())
        return wrongUse("takes no argument");
    lab.motors.powerLoss();
    return 0;
}

int clockCommand(Lab& lab, const Arguments& arguments)
{
    const std::string action = arguments.empty() ? "" : arguments[0];
    if (action == "speed") {
        char* end = nullptr;
        const double speed = arguments.size() == 2 ? strtod(arguments[1].c_str(), &end) : 0;
        if (!end || *end != '\0' || !(speed >= 0.001 && speed <= 100'000))
            return wrongUse("speed takes a number from 0.001 to 100000");
        lab.clock.setSpeed(speed);
        return 0;
    }
    if (action == "set")
        return arguments.size() == 2 ? statusOf(lab, lab.clock.setWall(arguments[1]))
                                     : wrongUse("set takes a time in one argument");
    if (arguments.size() > 1)
        return wrongUse(action + " takes no argument");
    if (action == "")
        printf("%s, speed %g\n", lab.clock.wall().c_str(), lab.clock.speed());
    else if (action == "real")
        lab.clock.realTime();
    else
        return wrongUse("there is no action " + action);
    return 0;
}

int journalCommand(Lab& lab, const Arguments& arguments)
{
    if (arguments.empty())
        return printJournal(lab, "");
    if (arguments != Arguments{"-f"})
        return wrongUse("takes -f or nothing");
    execlp("tail", "tail", "-n", "+1", "-F", (lab.folder() + "/journal").c_str(), nullptr);
    return failed(std::string("tail: ") + strerror(errno));
}

int plotCommand(Lab& lab, const Arguments& arguments)
{
    if (arguments.size() != 1)
        return wrongUse("takes the name of the picture");
    const std::vector<LabJournalEntry> journal = lab.records.journal();
    if (journal.empty())
        return failed("nothing has happened in " + lab.folder() + " yet");
    const LabAxisSetting axes[] = {lab.motors.setting(LAB_PAN), lab.motors.setting(LAB_TILT)};
    std::ofstream picture(arguments[0]);
    picture << plotLab(journal, lab.records.cetLog(), axes, lab.clock.nowNs(), lab.clock.wallAtZeroNs());
    picture.close();
    if (!picture)
        return failed("cannot write " + arguments[0]);
    printf("pan and tilt are drawn in %s\n", arguments[0].c_str());
    return 0;
}
