#include "motor/speed_config.h"

#include "config/uci_store.h"
#include "core/log.h"
#include "motor/motor_device.h"
#include "ubus/method_args.h"
#include "ubus/method_reply.h"

#include <initializer_list>
#include <iterator>

namespace {

enum SpeedArg { SPEED_PAN = PAN, SPEED_TILT = TILT, SPEED_SUSTAIN, SPEED_ARG_COUNT };
static_assert(std::size(speedPolicy) == SPEED_ARG_COUNT);

enum class Speed { Set, OutOfRange, NotStored };

/// Hands a speed to the driver, then stores it.
Speed setSpeed(AxisIndex axis, int32_t speed)
{
    const MotorAxis& motor = gContext.axes[axis];
    if (speed < 1 || speed > motor.max_speed)
        return Speed::OutOfRange;
    (void)motorSetSpeed(axis, speed); // stored all the same: the next calibration tries again
    // Committed with the option, for each axis: the other axis's device request must not come in between.
    const UciTransaction transaction(UCI_PTZD);
    if (cfg_uci_set_int_value(UCI_PTZD, motor.section, "speed", speed) != 0)
        return Speed::NotStored;
    (void)transaction.commit(); // reported there
    return Speed::Set;
}

} // namespace

int ubusSetMotorConfig(ubus_context* connection, ubus_object*, ubus_request_data* request, const char*,
                       blob_attr* message)
{
    LOG_TRACE("UBUS: rcv msg sucessed.\n");
    blob_attr* args[SPEED_ARG_COUNT];
    parseArgs(speedPolicy, args, message);
    ResultCode result = RESULT_OK;
    bool goOn = false;
    if (gContext.motion.calibrating.load() != 0) {
        result = ERR_CALIBRATING;
    } else if (!args[SPEED_PAN] && !args[SPEED_TILT] && !args[SPEED_SUSTAIN]) {
        LOG_ERROR("UBUS: Invalied parameter.\n");
        result = ERR_PARAM;
    } else {
        goOn = true;
    }
    for (const AxisIndex axis : {PAN, TILT}) {
        if (!goOn || !args[axis])
            continue;
        const Speed done = setSpeed(axis, decimalArg(args[axis]));
        if (done == Speed::OutOfRange)
            result = ERR_PARAM;
        if (done == Speed::NotStored) {
            LOG_ERROR("error to set option %s.speed\n", gContext.axes[axis].section);
            goOn = false;
        }
    }
    if (goOn && args[SPEED_SUSTAIN])
        gContext.motion.stepSustainTicks.store(decimalArg(args[SPEED_SUSTAIN]));
    (void)cfg_uci_commit(UCI_PTZD); // on every path: a calibration leaves what it corrected to the next commit
    return replyCode(connection, request, result);
}
