// The daemon's whole state: one static record, gContext, with a part for each owner.
//
// A part's type is in a header of its owner's, and only a file that includes that header can use the part: so a folder
// reaches no state of one that it must not know, and a part that changes is compiled anew only where it is used.
// A part is written by its owner alone unless a comment there says otherwise. A word that is read without a lock is
// atomic; words that belong together still change under their lock.
//
// Locks, in the order in which they may be taken: a lock may be waited for only while none further down is held
// (core/lock_order.h checks it in debug builds).
//   MotionLock          the step-move state
//   MotionStateLock     the motion state, the sending of its notifications and notifyBuf; never with MotionLock
//   ConfigStoreLock     the configuration store (recursive); neither motion lock is taken while it is held
//   PresetLock          the preset table; nothing is waited for while it is held
//   BusLock             every call into the bus library; nothing else is waited for while it is held
//   MotionRecordLock    the motions' numbers and notifications; nothing is waited for while it is held
#pragma once

struct CalibrationTarget;
struct ConfigState;
struct ImageState;
struct MotionRecord;
struct MotionState;
struct MotorAxes;
struct PanoramaState;
struct PositionState;
struct PresetState;
struct Timers;
struct TourState;
struct TrackState;
struct UbusState;

/// The parts themselves, in context.cpp.
namespace context_parts {
extern MotorAxes axes;
extern Timers timers;
extern CalibrationTarget* calibrationArg;
extern MotionState motion;
extern MotionRecord record;
extern PositionState position;
extern PanoramaState panorama;
extern TrackState track;
extern PresetState preset;
extern TourState tour;
extern ImageState image;
extern UbusState ubus;
extern ConfigState config;
} // namespace context_parts

struct DaemonContext {
    MotorAxes& axes;                    // motor/motor_device.h
    Timers& timers;                     // core/timer.h
    CalibrationTarget*& calibrationArg; // two, pan first; allocated by PtzdInit, freed by its teardown
    MotionState& motion;                // core/motion.h
    MotionRecord& record;               // motor/motion_record.h
    PositionState& position;            // motor/position_store.h
    PanoramaState& panorama;            // core/motion.h
    TrackState& track;                  // motion/track.h
    PresetState& preset;                // preset/preset_store.h
    TourState& tour;                    // tour/tour_state.h
    ImageState& image;                  // motor/coordinates.h
    UbusState& ubus;                    // ubus/ubus_state.h
    ConfigState& config;                // config/uci_state.h
};

/// A constant whose references the compiler resolves: a part is reached as directly as a variable of its own.
inline constexpr DaemonContext gContext{
    context_parts::axes,   context_parts::timers,   context_parts::calibrationArg, context_parts::motion,
    context_parts::record, context_parts::position, context_parts::panorama,       context_parts::track,
    context_parts::preset, context_parts::tour,     context_parts::image,          context_parts::ubus,
    context_parts::config,
};
