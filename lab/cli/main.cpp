// ptzd-lab: a camera head on a PC, from the command line.

#include "commands.h"

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

struct Command {
    const char* name;
    const char* usage; // lines of "NAME ..." and explanation
    Order (*order)(Arguments arguments);
};

const Command COMMANDS[] = {
    {"up",
     "up [DIR] [--factor N] [--pan RANGE,MAXSPEED,STEPS] [--tilt RANGE,MAXSPEED,STEPS] [--speed N] [--ptzd FILE]\n"
     "   [--no-wait]\n"
     "       start a head in the background; returns once it answers and is calibrated",
     upOrder},
    {"down",
     "down [DIR]\n"
     "       end it",
     downOrder},
    {"run",
     "run [DIR] [options of up]\n"
     "       start a head, show its calibration, move it once, stay until interrupted",
     runOrder},
    {"status",
     "status [DIR]\n"
     "       what runs, where the motors are, what is set to go wrong",
     statusOrder},
    {"motor",
     "motor x|y [fail REQUEST [N|ever] [ERROR] | delay REQUEST MS | stuck on|off | capa RANGE MAXSPEED STEPS |\n"
     "   capa off | node on|off | speed N | journal | clear]\n"
     "       look at an axis, or let it go wrong. REQUEST: GET_CAPA, SET_POSITION, GET_STATUS, SET_SPEED, ROTATE,\n"
     "       MOVE, STOP. speed: steps per second for each unit of speed",
     motorOrder},
    {"power-loss",
     "power-loss\n"
     "       both drivers lose position, speed and motion; the head does not move",
     powerLossOrder},
    {"clock",
     "clock [speed N | set 'YYYY-MM-DD HH:MM:SS' | real]\n"
     "       look at the lab's time, let it run N times as fast, or set its wall clock",
     clockOrder},
    {"cet",
     "cet [ok | late MS | wrong | nocode | silent | stop | start]\n"
     "       what the CET object answers, or whether it is there",
     cetOrder},
    {"bus",
     "bus [stop | start | restart]\n"
     "       the bus daemon",
     busOrder},
    {"ptzd",
     "ptzd [kill | stop | start | restart | log]\n"
     "       the head's daemon; kill is kill -9, stop asks it to end",
     ptzdOrder},
    {"journal",
     "journal [-f]\n"
     "       every motor request; -f goes on with those to come",
     journalOrder},
    {"plot",
     "plot FILE.svg\n"
     "       draw pan and tilt over time",
     plotOrder},
    {"exec",
     "exec [--] COMMAND...\n"
     "       run a command inside the lab; ubus and uci are the lab's own",
     execOrder},
};

int help(FILE* out)
{
    fprintf(out, "%sCOMMAND\n\n", typed("lab ").c_str());
    for (const Command& command : COMMANDS)
        fprintf(out, "  %s\n", command.usage);
    fputs("\nThe lab is the one in DIR, else in the folder that PTZD_LAB_DIR names, else in .lab here.\n", out);
    return out == stdout ? 0 : 2;
}

int wrongUse(const Command& command, const std::string& problem)
{
    fprintf(stderr, "ptzd-lab %s: %s\nusage: %s%s\n", command.name, problem.c_str(), typed("lab ").c_str(),
            command.usage);
    return 2;
}

int carryOut(const Order& order)
{
    const char* named = getenv("PTZD_LAB_DIR");
    Lab lab(!order.folder.empty() ? order.folder : named && *named ? named : ".lab");
    if (!order.startsLab && !lab.attach())
        return failed(lab.error() + " (" + typed("lab up") + " starts one)");
    if (!order.locks)
        return order.carryOut(lab);
    const WorkLock lock(lab.folder());
    return lock.held() ? order.carryOut(lab) : 1;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string_view name = argc > 1 ? argv[1] : "";
    if (name == "help" || name == "--help" || name == "-h")
        return help(stdout);
    for (const Command& command : COMMANDS) {
        if (name != command.name)
            continue;
        const Order order = command.order(Arguments(argv + 2, argv + argc));
        return order.problem.empty() ? carryOut(order) : wrongUse(command, order.problem);
    }
    if (name.empty())
        fputs("ptzd-lab: which command?\n", stderr);
    else
        fprintf(stderr, "ptzd-lab: there is no command %s\n", argv[1]);
    return help(stderr);
}
