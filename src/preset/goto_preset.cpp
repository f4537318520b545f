#include "preset/goto_preset.h"

#include "config/value_parsers.h"
#include "core/log.h"
#include "motor/motion_state.h"
#include "motor/position_store.h"
#include "preset/preset_store.h"
#include "ubus/method_args.h"
#include "ubus/method_reply.h"

#include <cmath>
#include <limits>

namespace {

/// The integer part; what does not fit saturates, and what is no number is 0: stored positions may be anything.
int32_t integerPart(float value)
{
    constexpr float beyond = 2147483648.0F;
    if (value >= beyond)
        return std::numeric_limits<int32_t>::max();
    if (value <= -beyond)
        return std::numeric_limits<int32_t>::min();
    return std::isnan(value) ? 0 : static_cast<int32_t>(value);
}

/// In single precision, like the stored position.
MotorCommand presetCommand(AxisIndex axis, float position, const MotorStatus& status)
{
    const MotorAxis& motor = gContext.axes[axis];
    const float target = (position + 1.0F) * static_cast<float>(motor.total_steps) * 0.5F;
    return relativeCommand(integerPart(target - static_cast<float>(status.position)), factoredSpeed(axis));
}

HeadCommand presetCommands(const PresetEntry& preset, const HeadStatus& head)
{
    return {presetCommand(PAN, preset.position_pan, head[PAN]), presetCommand(TILT, preset.position_tilt, head[TILT])};
}

/// Takes over an accepted factor; full speed without the argument.
ResultCode setSpeedFactor(std::atomic<float>& factor, const blob_attr* argument)
{
    float value = 1.0F;
    if (argument && string_to_float(textArg(argument), &value) != 0)
        return ERR_PARAM;
    if (!(value > 0.0F && value <= 1.0F)) // refuses what is no number, too
        return ERR_SPEED_FACTOR;
    factor.store(value);
    return RESULT_OK;
}

ResultCode gotoPreset(const blob_attr* const (&args)[GOTO_ARG_COUNT])
{
    const int32_t id = args[GOTO_ID] ? decimalArg(args[GOTO_ID]) : 0;
    if (id < 1 || id > PRESET_COUNT)
        return ERR_PARAM;
    PresetEntry preset{};
    if (!presetFind(id, preset))
        return ERR_PRESET_ID;
    if (const ResultCode result = setSpeedFactor(gContext.preset.panSpeedFactor, args[GOTO_SPEED_PAN]);
        result != RESULT_OK)
        return result;
    if (const ResultCode result = setSpeedFactor(gContext.preset.tiltSpeedFactor, args[GOTO_SPEED_TILT]);
        result != RESULT_OK)
        return result;
    if (const ResultCode busy = refusedBy(CALIBRATING | LENS_MASK | PANORAMA); busy != RESULT_OK)
        return busy;
    const ResultCode result = presetMove(id);
    if (result == RESULT_OK)
        saveStepsArm();
    return result;
}

} // namespace

ResultCode presetMove(int32_t id)
{
    PresetEntry preset{};
    if (!presetFind(id, preset))
        return ERR_DEVICE;
    const MotionStartScope start;
    HeadStatus head{};
    if (const ResultCode result = motionTakeOver(head); result != RESULT_OK)
        return result;
    return beginAndDrive(MotionBegin::Preset, head, presetCommands(preset, head));
}

TourMove presetTourMove(uint32_t ticket, int32_t id)
{
    PresetEntry preset{};
    if (!presetFind(id, preset))
        return TourMove::Overtaken; // deleted since the plan was looked at
    HeadStatus head{};
    if (const TourMove taken = tourTakeOver(ticket, head); taken != TourMove::Started)
        return taken;
    return tourDrive(ticket, head, presetCommands(preset, head));
}

int32_t factoredSpeed(AxisIndex axis)
{
    const std::atomic<float>& factor = axis == PAN ? gContext.preset.panSpeedFactor : gContext.preset.tiltSpeedFactor;
    return integerPart(static_cast<float>(gContext.axes[axis].max_speed) * factor.load());
}

void ubusGotoPreset(const Call& call)
{
    LOG_TRACE("UBUS: rcv msg sucessed.\n");
    blob_attr* args[GOTO_ARG_COUNT];
    parseArgs(gotoPresetPolicy, args, call);
    replyCode(call, gotoPreset(args));
}
