#include "motor/motor_report.h"

#include "core/log.h"
#include "core/motion.h"
#include "core/numbers.h"
#include "motor/coordinates.h"
#include "motor/motion_state.h"
#include "motor/motor_device.h"
#include "ubus/method_reply.h"

namespace {

void addSpeed(const char* name, AxisIndex axis, const MotorStatus& status)
{
    // A driver may say anything in these three; each product is cut to 32 bits.
    const int32_t signedSpeed = saturated32(static_cast<int64_t>(status.speed) * flipSign(axis));
    const int32_t directed = saturated32(static_cast<int64_t>(signedSpeed) * status.direction);
    replyAddDecimal(name, saturated32(static_cast<int64_t>(directed) * status.running));
}

} // namespace

void ubusGetMotorCapa(const Call& call)
{
    LOG_TRACE("UBUS: rcv msg sucessed.\n");
    const MotorAxis& pan = gContext.axes[PAN];
    const MotorAxis& tilt = gContext.axes[TILT];
    replyBegin();
    replyAddInt("error_code", RESULT_OK);
    void* table = replyOpenTable("capability");
    replyAddDecimal("x_coord_min", -(pan.range / 2));
    replyAddDecimal("x_coord_max", pan.range / 2);
    replyAddDecimal("y_coord_min", -(tilt.range / 2));
    replyAddDecimal("y_coord_max", tilt.range / 2);
    replyAddDecimal("x_max_speed", pan.max_speed);
    replyAddDecimal("y_max_speed", tilt.max_speed);
    replyAddText("simultaneous", gContext.motion.simultaneous.load() == 1 ? "enabled" : "disabled");
    replyAddText("preset", "enabled");
    replyAddText("calibrate", "enabled");
    replyClose(table);
    replySend(call);
}

void ubusGetMotorStatus(const Call& call)
{
    LOG_TRACE("UBUS: rcv msg sucessed.\n");
    HeadStatus head{};
    if (const ResultCode result = motorReadStatus(head); result != RESULT_OK)
        return replyCode(call, result);
    replyBegin();
    replyAddInt("error_code", RESULT_OK);
    void* table = replyOpenTable("status");
    replyAddDecimal("x_coord", static_cast<int64_t>(stepsToCoord(PAN, head[PAN].position)) * flipSign(PAN));
    replyAddDecimal("y_coord", static_cast<int64_t>(stepsToCoord(TILT, head[TILT].position)) * flipSign(TILT));
    addSpeed("x_speed", PAN, head[PAN]);
    addSpeed("y_speed", TILT, head[TILT]);
    replyClose(table);
    replySend(call);
}

void ubusCheckMotorStatus(const Call& call)
{
    replyErrCode(call, refusedBy(CALIBRATING));
}
