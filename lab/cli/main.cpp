// ptzd-lab: a camera head on a PC, from the command line.

#include "commands.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

const struct Row {
    const char* name;
    const char* usage; // lines of "NAME ..." and explanation
    Command* command;
    bool takesFolder = false;
} ROWS[] = {
    {"up",
     "up [DIR] [--factor N] [--pan RANGE,MAXSPEED,STEPS] [--tilt RANGE,MAXSPEED,STEPS] [--speed N] [--ptzd FILE]\n"
     "   [--no-wait]\n"
     "       start a head in the background; returns once it answers and is calibrated",
     upCommand, true},
    {"down",
     "down [DIR]\n"
     "       end it",
     downCommand, true},
    {"run",
     "run [DIR] [options of up]\n"
     "       start a head, show its calibration, move it once, stay until interrupted",
     runCommand, true},
    {"status",
     "status [DIR]\n"
     "       what runs, where the motors are, what is set to go wrong",
     statusCommand, true},
    {"motor",
     "motor x|y [fail REQUEST [N|ever] [ERROR] | delay REQUEST MS | stuck on|off | capa RANGE MAXSPEED STEPS |\n"
     "   capa off | node on|off | speed N | journal | clear]\n"
     "       look at an axis, or let it go wrong. REQUEST: GET_CAPA, SET_POSITION, GET_STATUS, SET_SPEED, ROTATE,\n"
     "       MOVE, STOP. speed: steps per second for each unit of speed",
     motorCommand},
    {"power-loss",
     "power-loss\n"
     "       both drivers lose position, speed and motion; the head does not move",
     powerLossCommand},
    {"clock",
     "clock [speed N | set 'YYYY-MM-DD HH:MM:SS' | real]\n"
     "       look at the lab's time, let it run N times as fast, or set its wall clock",
     clockCommand},
    {"cet",
     "cet [ok | late MS | wrong | nocode | silent | stop | start]\n"
     "       what the CET object answers, or whether it is there",
     cetCommand},
    {"bus",
     "bus [stop | start | restart]\n"
     "       the bus daemon",
     busCommand},
    {"ptzd",
     "ptzd [kill | stop | start | restart | log]\n"
     "       the head's daemon; kill is kill -9, stop asks it to end",
     ptzdCommand},
    {"journal",
     "journal [-f]\n"
     "       every motor request; -f goes on with those to come",
     journalCommand},
    {"plot",
     "plot FILE.svg\n"
     "       draw pan and tilt over time",
     plotCommand},
    {"exec",
     "exec [--] COMMAND...\n"
     "       run a command inside the lab; ubus and uci are the lab's own",
     execCommand},
};

const Row* gRow;
std::string gNamedFolder;

int help(FILE* out)
{
    fprintf(out, "%sCOMMAND\n\n", typed("lab ").c_str());
    for (const Row& row : ROWS)
        fprintf(out, "  %s\n", row.usage);
    fputs("\nThe lab is the one in DIR, else in the folder that PTZD_LAB_DIR names, else in .lab here.\n", out);
    return out == stdout ? 0 : 2;
}

/// Finds the folder between the options, each of which but one has a value, and takes it out.
int carryOut(Arguments arguments)
{
    const char* variable = getenv("PTZD_LAB_DIR");
    std::string folder = variable && *variable ? variable : ".lab";
    for (size_t i = 0; gRow->takesFolder && i < arguments.size();) {
        const std::string word = arguments[i];
        if (word.starts_with("-")) {
            i += word == "--no-wait" ? 1 : 2;
            continue;
        }
        if (!gNamedFolder.empty())
            return wrongUse("more than one folder: " + folder + " and " + word);
        folder = word;
        gNamedFolder = " " + word;
        arguments.erase(arguments.begin() + static_cast<ptrdiff_t>(i));
    }
    Lab lab(folder);
    const bool startsLab = gRow->command == upCommand || gRow->command == runCommand;
    if (!startsLab && !lab.attach())
        return failed(lab.error() + " (" + typed("lab up") + " starts one)");
    return gRow->command(lab, arguments);
}

} // namespace

const std::string& namedFolder()
{
    return gNamedFolder;
}

int wrongUse(const std::string& problem)
{
    fprintf(stderr, "ptzd-lab %s: %s\nusage: %s%s\n", gRow->name, problem.c_str(), typed("lab ").c_str(), gRow->usage);
    return 2;
}

int main(int argc, char** argv)
{
    const std::string_view name = argc > 1 ? argv[1] : "";
    if (name == "help" || name == "--help" || name == "-h")
        return help(stdout);
    gRow = std::find_if(std::begin(ROWS), std::end(ROWS), [&](const Row& row) { return name == row.name; });
    if (gRow != std::end(ROWS))
        return carryOut(Arguments(argv + 2, argv + argc));
    if (name.empty())
        fputs("ptzd-lab: which command?\n", stderr);
    else
        fprintf(stderr, "ptzd-lab: there is no command %s\n", argv[1]);
    return help(stderr);
}
