// The motions as subscribers of the object see them: each has a number, a begin and exactly one end.
//
// A motion is what one command, tour step or calibration asks of the head. The motion state (core/motion.h) is coarser:
// there, a command that is given while the head moves goes on with the motion under way; here it begins one of its own,
// which supersedes the other. Notifications are put in order under MotionRecordLock and sent later, without any other
// lock.
#pragma once

#include "core/motion.h"
#include "core/mutex.h"
#include "motor/motor_device.h"
#include "ubus/motion_notify.h"

#include <stdint.h>

#include <array>

enum class MotionSource { User, Track, Return, Tour, Calibration };
enum class MotionOutcome { Undecided, Reached, Limit, Stopped, Superseded, Failed };

/// Where a motion is to end.
struct MotionTarget {
    enum class Kind {
        None,  // a calibration's
        Place, // absolute steps, which may lie beyond the travel
        Limit, // of a step move, which ends before, unless it lasts until the travel's end; not notified
    };
    Kind kind = Kind::None;
    int32_t steps[AXIS_COUNT] = {};
};

/// Owner: motor/motion_record.
struct MotionRecord {
    // More than can wait: each thread sends what it has added before it adds more, and adds three at most.
    static constexpr uint32_t QUEUE_LENGTH = 32;

    Mutex MotionRecordLock{LockRank::MotionRecord};
    uint32_t id GUARDED_BY(MotionRecordLock) = 0; // of the last motion; 0 before the first
    bool open GUARDED_BY(MotionRecordLock) = false;
    MotionTarget target GUARDED_BY(MotionRecordLock){};
    // Whether it began from rest. Otherwise it ends off its target by what the head moved while it was being halted.
    bool exact GUARDED_BY(MotionRecordLock) = true;
    // What is known of the open motion's end before the head rests: Stopped or Failed.
    MotionOutcome outcome GUARDED_BY(MotionRecordLock) = MotionOutcome::Undecided;
    std::array<MotionEvent, QUEUE_LENGTH> queue GUARDED_BY(MotionRecordLock){};
    uint32_t first GUARDED_BY(MotionRecordLock) = 0; // in the queue
    std::atomic<uint32_t> waiting{0};                // changes under the lock
};

/// Where the head is, for the end of a motion. Not read when nobody subscribes or none is open.
struct MotionPlace {
    bool known = false;
    HeadStatus head{};
};
[[nodiscard]] MotionPlace motionPlaceNow();

/// Where a command sends the head from where it is.
[[nodiscard]] MotionTarget targetOf(const HeadStatus& head, const HeadCommand& command);

// Any thread; all take MotionRecordLock. What takes the head over, from its halt to its begin or end here, lies within
// a MotionStartScope (a calibration's lasts until it settles, a tour's until its requests are sent), so that no status
// poll ends a motion meanwhile. Begins are in order because of the locks that their requests are sent under, or because
// only the event loop makes them.

/// A motion begins; one that is open ends with that.
/// @param before  the head's status from before the motion and from before the halt that made way for it
void motionRecordBegin(MotionSource source, const MotionTarget& target, const HeadStatus& before)
    EXCLUDES(gContext.record.MotionRecordLock);

/// A device request of the open motion has returned this; unless it is RESULT_OK, the motion has failed once it rests.
void motionRecordDriven(ResultCode result) EXCLUDES(gContext.record.MotionRecordLock);

/// A command has halted the open motion with this result: it ends, if none supersedes it, as stopped or failed.
void motionRecordHalted(ResultCode result) EXCLUDES(gContext.record.MotionRecordLock);

/// The open motion, if there is one, ends; `outcome` unless it has failed before.
void motionRecordEnd(MotionOutcome outcome, const MotionPlace& place) EXCLUDES(gContext.record.MotionRecordLock);

/// The number of the open motion, or 0.
[[nodiscard]] uint32_t motionRecordOpen() EXCLUDES(gContext.record.MotionRecordLock);

/// The status poll has found the head at rest: that motion ends, if it is open, unless a command has begun to take the
/// head over since `started` motions were started and begun.
void motionRecordRested(uint32_t id, uint32_t started, const HeadStatus& head)
    EXCLUDES(gContext.record.MotionRecordLock);

/// Sends what waits; returns once all that waited before has been sent. Any thread; takes BusLock when something waits.
void motionRecordSend() EXCLUDES(gContext.motion.MotionLock, gContext.motion.MotionStateLock, gContext.ubus.BusLock,
                                 gContext.record.MotionRecordLock);
