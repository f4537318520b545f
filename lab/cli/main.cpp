// ptzd-lab: a camera head on a PC, from the command line.

#include "commands.h"

#include <cstdio>
#include <string_view>

namespace {

const Command COMMANDS[] = {
    {"up",
     "up [DIR] [--factor N] [--pan RANGE,MAXSPEED,STEPS] [--tilt RANGE,MAXSPEED,STEPS] [--speed N] [--ptzd FILE]\n"
     "   [--no-wait]\n"
     "       start a head in the background; returns once it answers and is calibrated",
     upCommand},
    {"down",
     "down [DIR]\n"
     "       end it",
     downCommand},
    {"run",
     "run [DIR] [options of up]\n"
     "       start a head, show its calibration, move it once, stay until interrupted",
     runCommand},
    {"status",
     "status [DIR]\n"
     "       what runs, where the motors are, what is set to go wrong",
     statusCommand},
    {"motor",
     "motor x|y [fail REQUEST [N|ever] [ERROR] | delay REQUEST MS | stuck on|off | capa RANGE MAXSPEED STEPS |\n"
     "   capa off | node on|off | speed N | journal | heal]\n"
     "       look at an axis, or let it go wrong. REQUEST: GET_CAPA, SET_POSITION, GET_STATUS, SET_SPEED, ROTATE,\n"
     "       MOVE, STOP. speed: steps per second for each unit of speed",
     motorCommand},
    {"power-loss",
     "power-loss\n"
     "       both drivers forget position, speed and motion; the head does not move",
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

int help(FILE* out)
{
    fprintf(out, "%sCOMMAND\n\n", typed("lab ").c_str());
    for (const Command& command : COMMANDS)
        fprintf(out, "  %s\n", command.usage);
    fputs("\nThe lab is the one in DIR, else in the folder that PTZD_LAB_DIR names, else in .lab here.\n", out);
    return out == stdout ? 0 : 2;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string_view name = argc > 1 ? argv[1] : "";
    if (name == "help" || name == "--help" || name == "-h")
        return help(stdout);
    for (const Command& command : COMMANDS) {
        if (name == command.name)
            return command.run(command, Arguments(argv + 2, argv + argc));
    }
    if (name.empty())
        fputs("ptzd-lab: which command?\n", stderr);
    else
        fprintf(stderr, "ptzd-lab: there is no command %s\n", argv[1]);
    return help(stderr);
}
