#include "core/ptzd_init.h"

#include "config/uci_store.h"
#include "core/lens_mask_library.h"
#include "core/log.h"
#include "core/shutdown.h"
#include "core/worker.h"
#include "image/flip_config.h"
#include "motion/lens_mask.h"
#include "motion/track.h"
#include "motor/calibration.h"
#include "motor/motor_device.h"
#include "motor/motor_init.h"
#include "motor/position_store.h"
#include "preset/preset_store.h"
#include "tour/touring.h"
#include "ubus/ubus_service.h"
#include "ubus/ubus_state.h"

#include <stdlib.h>

#include <initializer_list>

namespace {

constexpr int32_t WORKER_END_MS = 1500; // what a worker gets before the daemon ends without it

void loadSwitches()
{
    const UciTransaction transaction(UCI_PTZD);
    cfg_uci_pkg_reload(UCI_PTZD);
    cfg_uci_pkg_reload(UCI_DIAGD);
    int32_t recover = gContext.position.power_off_recover.load();
    (void)cfg_uci_get_int_value(UCI_PTZD, "config", "power_off_recover", &recover); // missing: stays on
    gContext.position.power_off_recover.store(recover);
    lensMaskSetEnabled(lensMaskWanted());
}

void savePending()
{
    if (gContext.position.savePending.load())
        saveCurSteps(nullptr);
}

/// Ends the timers and the worker threads and frees everything, whichever way PtzdInit is left.
class Teardown {
public:
    Teardown() = default;
    ~Teardown()
    {
        for (DaemonTimer* timer : {&gContext.timers.saveStepsTimer, &gContext.timers.statusPollTimer,
                                   &gContext.timers.usrMoveStopTimer, &gContext.timers.scanMoveStopTimer})
            timerStop(timer);
        savePending(); // now already: a worker that does not end leaves no other moment
        if (!workersStop(WORKER_END_MS))
            return; // a thread inside a driver keeps what it uses until the process ends
        savePending();
        TourDeinit();
        free(gContext.calibrationArg);
        gContext.calibrationArg = nullptr;
        motorClose(PAN);
        motorClose(TILT);
        cfg_uci_deinit();
        blob_buf_free(&gContext.ubus.replyBuf);
        blob_buf_free(&gContext.ubus.notifyBuf);
        blob_buf_free(&gContext.ubus.motionBuf);
    }
    Teardown(const Teardown&) = delete;
    Teardown& operator=(const Teardown&) = delete;
};

/// @return false when a motor cannot be had, logged under the caller's name, or the daemon is asked to end meanwhile.
bool openMotors(LogSite caller = logSite())
{
    for (const AxisIndex axis : {PAN, TILT}) {
        if (motorInit(axis) >= 0)
            continue;
        if (!shutdownRequested())
            logWrite(LOG_LEVEL_ERROR, caller, "can't init %s-motor device file\n", axis == PAN ? "x" : "y");
        return false;
    }
    return true;
}

} // namespace

int32_t PtzdInit()
{
    uloop_init(); // before any other thread: a worker's connection would create the loop otherwise
    gContext.motion.simultaneous.store(0);
    const Teardown teardown;
    if (cfg_uci_init() < 0) {
        LOG_ERROR("error to init uci\n");
        return -1;
    }
    loadSwitches();
    (void)reloadPresetConfig(); // logged there, both: the daemon does without
    (void)reloadPresetList();
    gContext.motion.calibrating.store(1); // no tour moves a head that has not been calibrated yet
    if (TourInit() != 0)
        LOG_ERROR("init tour failed.\n");
    (void)loadImageFlipConfig(); // an unknown type leaves the image as it is
    gContext.calibrationArg = static_cast<CalibrationTarget*>(calloc(AXIS_COUNT, sizeof(CalibrationTarget)));
    if (!gContext.calibrationArg) {
        LOG_ERROR("failed in nomem\n");
        return -1;
    }
    if (!openMotors())
        return shutdownRequested() ? 0 : -1;
    if (lensMaskEnabled() != 0) {
        calibrationSetTarget(TILT, lensMaskTiltSteps());
        (void)savesInhibit(); // the stored position is the one from before
    }
    if (calibrationStart({}) != 0) // nobody can subscribe yet
        return -1;
    (void)cfg_uci_commit(UCI_PTZD); // logged there
    loadTargetTrackConfig();
    if (ubusInit() == -1) {
        LOG_ERROR("ubus error.\n");
        return -1;
    }
    return 0;
}
