#include "motor/speed_config.h"

#include "config/uci_store.h"
#include "core/log.h"
#include "motor/motion_state.h"
#include "motor/motor_device.h"
#include "ubus/method_args.h"
#include "ubus/method_reply.h"

#include <initializer_list>
#include <iterator>

namespace {

enum SpeedArg { SPEED_PAN = PAN, SPEED_TILT = TILT, SPEED_SUSTAIN, SPEED_ARG_COUNT };
static_assert(std::size(speedPolicy) == SPEED_ARG_COUNT);

bool storeSpeed(AxisIndex axis, int32_t speed)
{
    return cfg_uci_set_int_value(UCI_PTZD, gContext.axes[axis].section, "speed", speed) == 0;
}

/// Hands a speed to the driver and sets the option. @return false when the option cannot be set.
bool setSpeed(AxisIndex axis, int32_t speed)
{
    (void)motorSetSpeed(axis, speed); // stored all the same: the next calibration tries again
    const UciTransaction transaction(UCI_PTZD);
    return storeSpeed(axis, speed);
}

/// Commits on every path, once: a calibration leaves what it corrected to the next commit.
void commitSpeeds(const int32_t (&set)[AXIS_COUNT])
{
    const UciTransaction transaction(UCI_PTZD);
    // No transaction is held across a device request, so a save on another thread whose commit failed may have
    // discarded an option meanwhile.
    for (const AxisIndex axis : {PAN, TILT}) {
        int32_t stored = 0;
        const bool there = cfg_uci_get_int_value(UCI_PTZD, gContext.axes[axis].section, "speed", &stored) == 0;
        if (set[axis] != 0 && (!there || stored != set[axis]))
            (void)storeSpeed(axis, set[axis]); // it could be set a moment ago
    }
    (void)transaction.commit(); // logged there
}

/// Sets what the call asks for; `set` receives the speeds that are to be committed. Logs under the handler's name.
ResultCode setConfig(blob_attr* const (&args)[SPEED_ARG_COUNT], int32_t (&set)[AXIS_COUNT], LogSite handler = logSite())
{
    if (const ResultCode busy = refusedBy(CALIBRATING); busy != RESULT_OK)
        return busy;
    if (!args[SPEED_PAN] && !args[SPEED_TILT] && !args[SPEED_SUSTAIN]) {
        logWrite(LOG_LEVEL_ERROR, handler, "UBUS: Invalied parameter.\n");
        return ERR_PARAM;
    }
    ResultCode result = RESULT_OK;
    for (const AxisIndex axis : {PAN, TILT}) {
        if (!args[axis])
            continue;
        const int32_t speed = decimalArg(args[axis]);
        if (speed < 1 || speed > gContext.axes[axis].max_speed) {
            result = ERR_PARAM; // the others are set all the same
            continue;
        }
        if (!setSpeed(axis, speed)) {
            logWrite(LOG_LEVEL_ERROR, handler, "error to set option %s.speed\n", gContext.axes[axis].section);
            return result;
        }
        set[axis] = speed;
    }
    if (args[SPEED_SUSTAIN])
        gContext.motion.stepSustainTicks.store(decimalArg(args[SPEED_SUSTAIN]));
    return result;
}

} // namespace

void ubusSetMotorConfig(const Call& call)
{
    LOG_TRACE("UBUS: rcv msg sucessed.\n");
    blob_attr* args[SPEED_ARG_COUNT];
    parseArgs(speedPolicy, args, call);
    int32_t set[AXIS_COUNT] = {};
    const ResultCode result = setConfig(args, set);
    commitSpeeds(set);
    replyCode(call, result);
}
