#include "motion/move.h"

#include "core/log.h"
#include "motor/coordinates.h"
#include "motor/motion_state.h"
#include "motor/position_store.h"
#include "ubus/method_args.h"
#include "ubus/method_reply.h"

#include <iterator>

namespace {

enum CoordArg { COORD_X, COORD_Y, COORD_ARG_COUNT };
static_assert(std::size(coordPolicy) == COORD_ARG_COUNT);

MotorCommand relativeCommand(int32_t steps)
{
    MotorCommand command{};
    command.steps = steps; // speed 0: the configured one
    return command;
}

} // namespace

ResultCode moveHead(int32_t dx, int32_t dy)
{
    if (const ResultCode busy = motionBusy(); busy != RESULT_OK)
        return busy;
    const int64_t panMove = static_cast<int64_t>(flipSign(PAN)) * dx;
    const int64_t tiltMove = static_cast<int64_t>(flipSign(TILT)) * dy;
    MotorStatus pan{};
    MotorStatus tilt{};
    if (const ResultCode result = motorReadStatus(pan, tilt); result != RESULT_OK)
        return result;
    const int32_t panSteps = relativeSteps(PAN, panMove, pan.position);
    const int32_t tiltSteps = relativeSteps(TILT, tiltMove, tilt.position);
    if ((panMove != 0 && panSteps == 0) || (tiltMove != 0 && tiltSteps == 0))
        return ERR_NO_TRAVEL;
    if (const ResultCode result = motionHaltIfRunning(pan, tilt); result != RESULT_OK)
        return result;
    const ResultCode result = beginAndDrive(MotionBegin::User, relativeCommand(panSteps), relativeCommand(tiltSteps));
    saveStepsArm();
    return result;
}

ResultCode moveHeadTo(int32_t xCoord, int32_t yCoord)
{
    const int64_t panTarget = static_cast<int64_t>(flipSign(PAN)) * xCoord;
    const int64_t tiltTarget = static_cast<int64_t>(flipSign(TILT)) * yCoord;
    if (!withinLimits(PAN, panTarget) || !withinLimits(TILT, tiltTarget))
        return ERR_PARAM;
    if (const ResultCode busy = motionBusy(); busy != RESULT_OK)
        return busy;
    MotorStatus pan{};
    MotorStatus tilt{};
    if (const ResultCode result = motorReadStatus(pan, tilt); result != RESULT_OK)
        return result;
    if (const ResultCode result = motionHaltIfRunning(pan, tilt); result != RESULT_OK)
        return result;
    const int64_t panSteps = static_cast<int64_t>(coordToSteps(PAN, static_cast<int32_t>(panTarget))) - pan.position;
    const int64_t tiltSteps =
        static_cast<int64_t>(coordToSteps(TILT, static_cast<int32_t>(tiltTarget))) - tilt.position;
    const ResultCode result =
        beginAndDrive(MotionBegin::User, commandFromStatus(pan, panSteps), commandFromStatus(tilt, tiltSteps));
    saveStepsArm();
    return result;
}

ResultCode stopHead()
{
    if (const ResultCode busy = motionBusy(); busy != RESULT_OK)
        return busy;
    const ResultCode result = motionHalt();
    motionSettle(MotionSettle::Stop);
    saveStepsArm();
    return result;
}

int ubusMoveMotor(ubus_context* connection, ubus_object*, ubus_request_data* request, const char*, blob_attr* message)
{
    LOG_TRACE("UBUS: rcv msg sucessed.\n");
    blob_attr* args[COORD_ARG_COUNT];
    parseArgs(coordPolicy, args, message);
    if (!args[COORD_X] || !args[COORD_Y]) {
        LOG_ERROR("UBUS: Invalied parameter.\n");
        return replyCode(connection, request, ERR_PARAM);
    }
    return replyCode(connection, request, moveHead(decimalArg(args[COORD_X]), decimalArg(args[COORD_Y])));
}

int ubusMoveMotorTo(ubus_context* connection, ubus_object*, ubus_request_data* request, const char*, blob_attr* message)
{
    LOG_TRACE("UBUS: rcv msg sucessed.\n");
    blob_attr* args[COORD_ARG_COUNT];
    parseArgs(coordPolicy, args, message);
    if (!args[COORD_X] || !args[COORD_Y]) {
        LOG_ERROR("UBUS: Invalied parameter.\n");
        return replyCode(connection, request, ERR_PARAM);
    }
    return replyCode(connection, request, moveHeadTo(decimalArg(args[COORD_X]), decimalArg(args[COORD_Y])));
}

int ubusStopMotorRotate(ubus_context* connection, ubus_object*, ubus_request_data* request, const char*, blob_attr*)
{
    LOG_TRACE("UBUS: rcv msg sucessed.\n");
    return replyCode(connection, request, stopHead());
}
