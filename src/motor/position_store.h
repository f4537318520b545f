// The stored position of the head: saved after user motions, restored at start, returned to after tracking.
#pragma once

#include "core/log.h"
#include "core/motion.h"
#include "core/result_code.h"
#include "core/timer.h"
#include "motor/motor_device.h"
#include "ubus/method_call.h"

#include <stdint.h>

#include <atomic>

inline constexpr int64_t SAVE_STEPS_NS = 10 * NS_PER_SECOND;
inline constexpr blobmsg_policy powerOffRecoverPolicy[] = {{"recover", BLOBMSG_TYPE_STRING}};

/// Whether the head's position may be stored.
enum class Saves : int32_t {
    Allowed,
    Inhibited,     // the head is in the lens mask's zone, or may be
    AllowedAtRest, // it is on its way out of there
};

/// Owner: motor/position_store.
struct PositionState {
    std::atomic<int32_t> power_off_recover{1}; // core/ptzd_init loads it
    std::atomic<uint32_t> saveRequests{0};     // counts the armings of saveStepsTimer
    std::atomic<bool> savePending{false};      // armed and not saved yet
    std::atomic<Saves> saves{Saves::Allowed};
    std::atomic<uint32_t> saveEpoch{0}; // this and the two below: see position_store.cpp
    std::atomic<uint32_t> savesBegun{0};
    uint32_t lastSaved = 0; // under ConfigStoreLock
};

/// Arms or re-arms saveStepsTimer when power-off recovery is on, after a command of a user. Thread: event loop; no
/// lock.
void saveStepsArm();

/// Inhibits saves and disarms saveStepsTimer, before the head goes into the lens mask's zone. Called inside a
/// transaction of package ptzd: a save that has read the axes before, or reads them from now on, has no effect.
/// @return false when no position could be stored before either: then the head may be in that zone, and what is stored
/// is to stay.
/// Thread: event loop.
[[nodiscard]] bool savesInhibit();

/// Ends the inhibition once the head rests. A mask that is switched off does so, and every begin step of a command
/// while the mask is off: it leads out of the zone where a mask that failed has left the head. A tour's begin step does
/// not, as a scan leaves tilt where it is. Harmless while saves are allowed. Called while no status poll can take the
/// head's rest for the end of the motion. Any thread; no lock.
void savesAllowAtRest();

/// Says that a motion has come to its end. Any thread; no lock.
void savesHeadRests();

/// Callback of saveStepsTimer: stores both axes' positions when both stand still, and disarms the timer; otherwise it
/// changes nothing, and the timer tries again. It changes nothing either while saves are inhibited or the head
/// calibrates, or once the timer has been disarmed. Any thread; takes ConfigStoreLock; hold neither motion lock.
void saveCurSteps(void* unused);

/// The save of a command that is about to take the head to where it is not to come back to: stores where both axes
/// stand still, under the same conditions, and disarms the timer in any case. Any other save of before has no effect
/// any more. Thread: event loop; takes ConfigStoreLock.
void saveNowAndDisarm();

/// Where an axis is to come back to.
struct StoredSteps {
    int32_t steps; // its home where none is stored, or a negative one
    bool read;     // false: the option could not be read
};

struct StoredPosition {
    StoredSteps axes[AXIS_COUNT];
};

/// Of one axis, whose capability is known. Any thread; takes ConfigStoreLock.
[[nodiscard]] StoredSteps storedSteps(AxisIndex axis);

/// Of both, as one save has left them. Any thread; takes ConfigStoreLock.
[[nodiscard]] StoredPosition storedPosition();

/// The same; an option that cannot be read is logged under the caller's name.
[[nodiscard]] StoredPosition storedPositionLogged(LogSite caller = logSite());

/// Sets both axes' stored steps, to be committed by the caller, whose transaction of package ptzd this is called in; an
/// option that cannot be set is logged under the caller's name.
void setStoredPosition(const HeadStatus& head, LogSite caller = logSite());

/// `setPowerOffRecover`: switches power-off recovery, `recover` "1" or "0", in memory and in storage.
UbusHandler ubusSetPowerOffRecover;
