// What the program's exit status says; docs/ptzctl.md and the manual page have the same table.
#pragma once

enum ExitStatus {
    EXIT_DONE = 0,        // with --wait: the motion has reached its target
    EXIT_OTHER = 1,       // any other failure
    EXIT_USAGE = 2,       // wrong use, or an argument that was refused before anything was sent
    EXIT_NO_BUS = 3,      // the bus cannot be reached
    EXIT_NO_DAEMON = 4,   // the bus has no object "ptzd"
    EXIT_TIMEOUT = 5,     // no answer in time, or the motion goes on after the time of --wait
    EXIT_CALIBRATING = 6, // refused: the motors are being calibrated, or move
    EXIT_MASKED = 7,      // refused: the lens mask is on
    EXIT_PANORAMA = 8,    // refused: a panorama runs
    EXIT_ARGUMENT = 9,    // the daemon refused an argument
    EXIT_DEVICE = 10,     // a motor, or a setting that the daemon needs, failed
    EXIT_LIMIT = 11,      // an end of the travel stopped the motion, or kept it from beginning
    EXIT_STOPPED = 12,    // with --wait: the motion was stopped
    EXIT_SUPERSEDED = 13, // with --wait: another motion took over
    EXIT_LOST = 14,       // bus or daemon went away during the call or the motion
    EXIT_BY_SIGNAL = 128, // with --wait: plus the number of the signal
};
