#include "fakes/fake_surroundings.h"

#include "core/lens_mask_library.h"
#include "core/log.h"
#include "core/worker.h"
#include "fakes/fake_motor.h"
#include "motion/track.h"
#include "motor/coordinates.h"
#include "motor/motion_state.h"
#include "motor/position_store.h"
#include "ubus/notify.h"

#include <stdarg.h>
#include <stdio.h>
#include <time.h>

#include <gtest/gtest.h>

FakeSurroundings fakes;

void resetDaemon()
{
    fakes = {};
    gContext.motion.motion_active.store(0);
    gContext.motion.motion_origin.store(ORIGIN_USER);
    gContext.motion.user_moved_recently.store(0);
    gContext.motion.track_back_done.store(1);
    gContext.motion.motionsStarted.store(gContext.motion.motionsBegun.load());
    gContext.motion.calibrating.store(0);
    gContext.position.power_off_recover.store(1);
    gContext.position.savePending.store(false);
    gContext.position.saveEpoch.store(0);
    gContext.track.targetTrackEnabled.store(0);
    gContext.motion.stepSustainTicks.store(1000);
    stepMoveCancel();
    gContext.panorama.panoramaRunning.store(0);
    gContext.motion.tourCurrentPresetId.store(0);
    gContext.motion.scanStepDone.store(1);
    gContext.image.imageFlipType.store(0);
    lensMaskSetEnabled(0);
    giveAxesFakeMotors();
}

int32_t timerStart(DaemonTimer* timer, int64_t firstNs, int64_t intervalNs)
{
    if (fakes.beforeTimerStart)
        fakes.beforeTimerStart();
    fakes.timers[timer] = {firstNs, intervalNs};
    if (const auto command = fakes.afterTimerStart)
        command();
    return 0;
}

int32_t timerStop(DaemonTimer* timer)
{
    if (fakes.beforeTimerStop)
        fakes.beforeTimerStop();
    fakes.timers[timer] = {};
    return 0;
}

void motorNotifyState(int32_t state, int32_t origin)
{
    fakes.notifications.push_back({state, origin});
}

void logWrite(LogLevel, LogSite site, const char* format, ...)
{
    char text[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    fakes.reports.push_back({site.function, text});
}

int32_t workerStart(void* (*routine)(void*), void* argument)
{
    if (fakes.threadCreationFails)
        return -1;
    fakes.worker = routine;
    fakes.workerArgument = argument;
    return 0;
}

WorkerScope::WorkerScope(WorkerEntry) : entered_(!fakes.stopping)
{
}

WorkerScope::~WorkerScope() = default;

bool workersStopping()
{
    return fakes.stopping;
}

extern "C" int __wrap_nanosleep(const timespec* length, timespec*);

int __wrap_nanosleep(const timespec* length, timespec*)
{
    EXPECT_EQ(length->tv_sec, 0);
    EXPECT_EQ(length->tv_nsec, 1'000'000) << "a tick of a step";
    ++fakes.sleeps;
    if (fakes.onSleep)
        fakes.onSleep();
    return 0;
}
