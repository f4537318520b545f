// The process entry of the pan/tilt motor daemon.

#include "core/log.h"
#include "core/ptzd_init.h"
#include "core/shutdown.h"
#include "motor/motion_state.h"
#include "motor/position_store.h"
#include "motor/quiet_period.h"
#include "motor/status_poll.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

namespace {

/// Opens what is closed of the descriptors 0 to 2, so that no socket or pipe of ours becomes the standard output.
void openStandardDescriptors()
{
    int lowest = 0;
    do
        lowest = open("/dev/null", O_RDWR);
    while (lowest >= 0 && lowest <= STDERR_FILENO);
    if (lowest > STDERR_FILENO)
        close(lowest);
}

/// @return false when one cannot be created, logged under the caller's name.
bool createTimers(LogSite caller = logSite())
{
    const struct {
        DaemonTimer& timer;
        void (*callback)(void*);
        void* argument;
        const char* name; // in the log
    } all[] = {
        {gContext.timers.saveStepsTimer, saveCurSteps, nullptr, ""},
        {gContext.timers.statusPollTimer, motorStatusPoll, &gContext.motion.motion_origin, ""},
        {gContext.timers.usrMoveStopTimer, usrMoveStopTimeout, nullptr, "usr move stop "},
        {gContext.timers.scanMoveStopTimer, scanMoveStopTimeout, nullptr, "scan move stop "},
    };
    for (const auto& one : all) {
        one.timer = timerRecord(one.callback, one.argument);
        if (timerCreate(&one.timer) != 0) {
            logWrite(LOG_LEVEL_ERROR, caller, "create %stimer failed.\n", one.name);
            return false;
        }
    }
    return true;
}

} // namespace

int main()
{
    openStandardDescriptors();
    setvbuf(stdout, nullptr, _IOLBF, 0); // whole lines, also into a pipe or a file
    if (shutdownInit() != 0) {
        perror("pipe2");
        return -1;
    }
    if (!createTimers())
        return -1;
    if (PtzdInit() == -1) {
        LOG_ERROR("initialize failed.\n");
        return -1;
    }
    return 0;
}
