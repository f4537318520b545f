#include "core/context.h"

#include "config/uci_state.h"
#include "core/motion.h"
#include "core/timer.h"
#include "motion/track.h"
#include "motor/calibration.h"
#include "motor/coordinates.h"
#include "motor/motion_record.h"
#include "motor/motor_device.h"
#include "motor/position_store.h"
#include "preset/preset_store.h"
#include "tour/tour_state.h"
#include "ubus/ubus_state.h"

namespace context_parts {
constinit MotorAxes axes;
constinit Timers timers{};
constinit CalibrationTarget* calibrationArg = nullptr;
constinit MotionState motion;
constinit MotionRecord record;
constinit PositionState position;
constinit PanoramaState panorama;
constinit TrackState track;
constinit PresetState preset;
constinit TourState tour;
constinit ImageState image;
constinit UbusState ubus;
constinit ConfigState config;
} // namespace context_parts
