#include "ubus/method_table.h"

#include "image/flip_config.h"
#include "motion/lens_mask.h"
#include "motion/move.h"
#include "motion/panorama.h"
#include "motion/step.h"
#include "motion/track.h"
#include "motor/calibration.h"
#include "motor/motor_report.h"
#include "motor/position_store.h"
#include "motor/rotation_test.h"
#include "motor/speed_config.h"
#include "preset/goto_preset.h"
#include "preset/preset_methods.h"
#include "tour/plan.h"
#include "tour/tour_config.h"
#include "ubus/bus_adapter.h"
#include "ubus/motion_notify.h"

#include <span>

namespace {

// The record has grown members in the middle over the years, so it is filled by name.
template <UbusHandler* handler>
constexpr ubus_method method(const char* name, std::span<const blobmsg_policy> policy = {})
{
    ubus_method entry{};
    entry.name = name;
    entry.handler = served<handler>;
    entry.policy = policy.data();
    entry.n_policy = static_cast<int>(policy.size());
    return entry;
}

// In the order that clients see. `test` reads an argument that it does not advertise.
const ubus_method ptzdMethods[] = {
    method<ubusGetMotorCapa>("getCapa"),
    method<ubusGetMotorStatus>("getStatus"),
    method<ubusUpdateImageConfig>("updateImageConfig"),
    method<ubusSetMotorConfig>("setConfig", speedPolicy),
    method<ubusMoveMotor>("move", coordPolicy),
    method<ubusMoveMotorTo>("moveTo", coordPolicy),
    method<ubusMoveMotorStep>("moveStep", stepPolicy),
    method<ubusSetPowerOffRecover>("setPowerOffRecover", powerOffRecoverPolicy),
    method<ubusStopMotorRotate>("stop"),
    method<ubusTestMotorRotate>("test"),
    method<ubusManualCalibrate>("manualCalibrate"),
    method<ubusCheckMotorStatus>("checkMotorStatus"),
    method<ubusLensMask>("lensMask"),
    method<ubusTargetTrack>("targetTrack", trackPolicy),
    method<ubusTargetTrackBack>("targetTrackBack"),
    method<ubusReloadTargetTrackConfig>("reloadTargetTrackConfig"),
    method<ubusGetPresetPage>("getPresetPage", presetPagePolicy),
    method<ubusSetPreset>("setPreset", setPresetPolicy),
    method<ubusDeletePreset>("delPreset", deletePresetPolicy),
    method<ubusGotoPreset>("gotoPreset", gotoPresetPolicy),
    method<ubusSetPresetConfig>("setPresetConfig", presetConfigPolicy),
    method<ubusGetPresetAll>("getPresetAll"),
    method<ubusClearPreset>("clearPreset"),
    method<ubusReloadPresetConfig>("reloadPresetConfig"),
    method<plan_modify_plan>("set_plan_config", planPolicy),
    method<ubusReloadTourInfo>("reload_tour_info"),
    method<ubusReloadScanTour>("reload_scan_tour"),
    method<ubusStartPanorama>("startPanorama"),
    method<ubusMovePanorama>("movePanorama", coordPolicy),
    method<ubusStopPanorama>("stopPanorama"),
};
constexpr int METHOD_COUNT = static_cast<int>(std::size(ptzdMethods));

ubus_object_type objectType()
{
    ubus_object_type type{};
    type.name = "rcvMsg";
    type.methods = ptzdMethods;
    type.n_methods = METHOD_COUNT;
    return type;
}

ubus_object object(ubus_object_type& type)
{
    ubus_object record{};
    record.name = "ptzd";
    record.type = &type;
    record.methods = ptzdMethods;
    record.n_methods = METHOD_COUNT;
    record.subscribe_cb = onSubscribers;
    return record;
}

ubus_object_type ptzdObjectType = objectType();
ubus_object ptzdObjectRecord = object(ptzdObjectType);

} // namespace

ubus_object& ptzdObject()
{
    return ptzdObjectRecord;
}
