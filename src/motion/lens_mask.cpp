#include "motion/lens_mask.h"

#include "config/uci_store.h"
#include "core/log.h"
#include "motion/stored_switch.h"
#include "motor/coordinates.h"
#include "motor/motion_state.h"
#include "motor/position_store.h"
#include "ubus/method_reply.h"

#include <initializer_list>

namespace {

constexpr int32_t MASK_TILT = -61; // coordinate units

} // namespace

int32_t lensMaskWanted()
{
    return storedSwitchOn(UCI_LENS_MASK, "lens_mask_info") ? 1 : 0;
}

int32_t lensMaskTiltSteps()
{
    return coordToSteps(TILT, MASK_TILT);
}

// Reports under its own name, so the writes and reads of both axes' positions stand here.
void ubusLensMask(const Call& call)
{
    if (const ResultCode busy = refusedBy(CALIBRATING | PANORAMA); busy != RESULT_OK)
        return replyErrCode(call, busy);
    const int32_t wanted = lensMaskWanted();
    if (wanted == lensMaskEnabled())
        return replyErrCode(call, wanted != 0 ? ERR_LENS_MASK : RESULT_OK);
    // Until it ends the status poll sees no rest: a mask off that this one halts has not come to its end, so saves stay
    // inhibited, and one that this begins allows them before its own end is seen.
    const MotionStartScope start;
    MotorStatus status[AXIS_COUNT] = {};
    ResultCode result = motionTakeOver(status[PAN], status[TILT]);
    if (result != RESULT_OK)
        return replyErrCode(call, result);

    motionBegin(MotionBegin::LensMask);
    int32_t target[AXIS_COUNT] = {status[PAN].position, lensMaskTiltSteps()};
    if (wanted != 0) {
        // No save may put the mask's position over the one stored here. Inhibiting and storing are one transaction, and
        // a save decides inside its own: one that comes before is overwritten here, and one that comes after finds
        // saves inhibited, whenever it looked at the head. A mask that is switched on again before the head is back, or
        // after half of its motion failed, stores nothing either.
        const UciTransaction transaction(UCI_PTZD);
        if (savesInhibit()) {
            for (const AxisIndex axis : {PAN, TILT}) {
                const char* section = gContext.axes[axis].section;
                if (cfg_uci_set_int_value(UCI_PTZD, section, "steps", status[axis].position) != 0)
                    LOG_ERROR("error to set option %s.steps\n", section);
            }
        }
        (void)transaction.commit(); // logged there; the lens is hidden all the same
    } else {
        const StoredPosition stored = storedPosition();
        for (const AxisIndex axis : {PAN, TILT}) {
            target[axis] = stored.axes[axis].steps;
            if (!stored.axes[axis].read)
                LOG_ERROR("error to get option %s.steps\n", gContext.axes[axis].section);
        }
    }
    result =
        driveAxes(fullSpeedCommand(PAN, status[PAN], target[PAN]), fullSpeedCommand(TILT, status[TILT], target[TILT]));
    if (result == RESULT_OK) {
        lensMaskSetEnabled(wanted);
        if (wanted == 0)
            savesAllowAtRest();
    }
    motionStarted();
    replyErrCode(call, result);
}
