#include "motion/lens_mask.h"

#include "config/uci_store.h"
#include "core/lens_mask_library.h"
#include "motor/coordinates.h"
#include "motor/motion_state.h"
#include "motor/position_store.h"
#include "ubus/method_reply.h"

namespace {

constexpr int32_t MASK_TILT = -61; // coordinate units

/// Stores where the head is, to come back to, and inhibits saves: none may put the mask's position over this one.
///
/// Both are one transaction, and a save decides inside its own: one that comes before is overwritten here, and one that
/// comes after finds saves inhibited, whenever it looked at the head. A mask that is switched on again before the head
/// is back, or after half of its motion failed, stores nothing either.
void inhibitAndStore(const HeadStatus& head, LogSite handler)
{
    const UciTransaction transaction(UCI_PTZD);
    if (savesInhibit())
        setStoredPosition(head, handler);
    (void)transaction.commit(); // logged there; the lens is hidden all the same
}

/// Takes the head into the mask's position, or back out. Logs under the handler's name.
ResultCode followSwitch(bool on, LogSite handler = logSite())
{
    // Until it ends the status poll sees no rest: a mask off that this one halts has not come to its end, so saves stay
    // inhibited, and one that this begins allows them before its own end is seen.
    const MotionStartScope start;
    HeadStatus head{};
    if (const ResultCode result = motionTakeOver(head); result != RESULT_OK)
        return result;
    motionBegin(MotionBegin::LensMask);
    int32_t target[AXIS_COUNT] = {head[PAN].position, lensMaskTiltSteps()};
    if (on) {
        inhibitAndStore(head, handler);
    } else {
        const StoredPosition stored = storedPositionLogged(handler);
        target[PAN] = stored.axes[PAN].steps;
        target[TILT] = stored.axes[TILT].steps;
    }
    const HeadCommand command = fullSpeedCommands(head, target[PAN], target[TILT]);
    const ResultCode result = driveAxes(command);
    motionRecordBegin(MotionSource::User, targetOf(head, command), head);
    motionRecordDriven(result);
    if (result == RESULT_OK) {
        lensMaskSetEnabled(on ? 1 : 0);
        if (!on)
            savesAllowAtRest();
    }
    motionRecordSend();
    return result;
}

} // namespace

int32_t lensMaskWanted()
{
    return storedSwitchOn(UCI_LENS_MASK, "lens_mask_info") ? 1 : 0;
}

int32_t lensMaskTiltSteps()
{
    return coordToSteps(TILT, MASK_TILT);
}

void ubusLensMask(const Call& call)
{
    if (const ResultCode busy = refusedBy(CALIBRATING | PANORAMA); busy != RESULT_OK)
        return replyErrCode(call, busy);
    const int32_t wanted = lensMaskWanted();
    if (wanted == lensMaskEnabled())
        return replyErrCode(call, wanted != 0 ? ERR_LENS_MASK : RESULT_OK);
    replyErrCode(call, followSwitch(wanted != 0));
}
