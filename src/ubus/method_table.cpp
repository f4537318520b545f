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

#include <span>

namespace {

// The record has grown members in the middle over the years, so it is filled by name.
constexpr ubus_method method(const char* name, ubus_handler_t handler, std::span<const blobmsg_policy> policy = {})
{
    ubus_method entry{};
    entry.name = name;
    entry.handler = handler;
    entry.policy = policy.data();
    entry.n_policy = static_cast<int>(policy.size());
    return entry;
}

// In the order that clients see. `test` reads an argument that it does not advertise.
const ubus_method ptzdMethods[] = {
    method("getCapa", served<ubusGetMotorCapa>),
    method("getStatus", served<ubusGetMotorStatus>),
    method("updateImageConfig", served<ubusUpdateImageConfig>),
    method("setConfig", served<ubusSetMotorConfig>, speedPolicy),
    method("move", served<ubusMoveMotor>, coordPolicy),
    method("moveTo", served<ubusMoveMotorTo>, coordPolicy),
    method("moveStep", served<ubusMoveMotorStep>, stepPolicy),
    method("setPowerOffRecover", served<ubusSetPowerOffRecover>, powerOffRecoverPolicy),
    method("stop", served<ubusStopMotorRotate>),
    method("test", served<ubusTestMotorRotate>),
    method("manualCalibrate", served<ubusManualCalibrate>),
    method("checkMotorStatus", served<ubusCheckMotorStatus>),
    method("lensMask", served<ubusLensMask>),
    method("targetTrack", served<ubusTargetTrack>, trackPolicy),
    method("targetTrackBack", served<ubusTargetTrackBack>),
    method("reloadTargetTrackConfig", served<ubusReloadTargetTrackConfig>),
    method("getPresetPage", served<ubusGetPresetPage>, presetPagePolicy),
    method("setPreset", served<ubusSetPreset>, setPresetPolicy),
    method("delPreset", served<ubusDeletePreset>, deletePresetPolicy),
    method("gotoPreset", served<ubusGotoPreset>, gotoPresetPolicy),
    method("setPresetConfig", served<ubusSetPresetConfig>, presetConfigPolicy),
    method("getPresetAll", served<ubusGetPresetAll>),
    method("clearPreset", served<ubusClearPreset>),
    method("reloadPresetConfig", served<ubusReloadPresetConfig>),
    method("set_plan_config", served<plan_modify_plan>, planPolicy),
    method("reload_tour_info", served<ubusReloadTourInfo>),
    method("reload_scan_tour", served<ubusReloadScanTour>),
    method("startPanorama", served<ubusStartPanorama>),
    method("movePanorama", served<ubusMovePanorama>, coordPolicy),
    method("stopPanorama", served<ubusStopPanorama>),
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
    return record;
}

ubus_object_type ptzdObjectType = objectType();
ubus_object ptzdObjectRecord = object(ptzdObjectType);

} // namespace

ubus_object& ptzdObject()
{
    return ptzdObjectRecord;
}
