// The process entry of the pan/tilt motor daemon.

#include "core/log.h"
#include "core/ptzd_init.h"
#include "core/shutdown.h"
#include "motion/quiet_period.h"
#include "motor/motion_state.h"
#include "motor/position_store.h"

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

} // namespace

int main()
{
    openStandardDescriptors();
    setvbuf(stdout, nullptr, _IOLBF, 0); // whole lines, also into a pipe or a file
    if (shutdownInit() != 0) {
        perror("pipe2");
        return -1;
    }
    Timers& timers = gContext.timers;
    timers.saveStepsTimer = timerRecord(saveCurSteps, nullptr);
    if (timerCreate(&timers.saveStepsTimer) != 0) {
        LOG_ERROR("create timer failed.\n");
        return -1;
    }
    timers.statusPollTimer = timerRecord(motorStatusPoll, &gContext.motion.motion_origin);
    if (timerCreate(&timers.statusPollTimer) != 0) {
        LOG_ERROR("create timer failed.\n");
        return -1;
    }
    timers.usrMoveStopTimer = timerRecord(usrMoveStopTimeout, nullptr);
    if (timerCreate(&timers.usrMoveStopTimer) != 0) {
        LOG_ERROR("create usr move stop timer failed.\n");
        return -1;
    }
    timers.scanMoveStopTimer = timerRecord(scanMoveStopTimeout, nullptr);
    if (timerCreate(&timers.scanMoveStopTimer) != 0) {
        LOG_ERROR("create scan move stop timer failed.\n");
        return -1;
    }
    if (PtzdInit() == -1) {
        LOG_ERROR("initialize failed.\n");
        return -1;
    }
    return 0;
}
