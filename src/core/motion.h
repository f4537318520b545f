// The state of the head's motion: motor/ writes it, a notification is sent under its lock, and every command asks it.
#pragma once

#include "core/context.h"
#include "core/mutex.h"

#include <stdint.h>

#include <atomic>

enum MotionOrigin : int32_t {
    ORIGIN_USER = 0,
    ORIGIN_TRACK = 1,
    ORIGIN_RETURN = 2,
    ORIGIN_TOUR = 3,
};

/// Each group names the file of motor/ whose steps write it; an exception is said at its word.
struct MotionState {
    Mutex MotionLock{LockRank::Motion};
    Mutex MotionStateLock{LockRank::MotionState};

    // motion_state: all change under MotionStateLock.
    std::atomic<int32_t> motion_active{0}; // 1 from a begin step until its idle transition
    std::atomic<int32_t> motion_origin{0}; // MotionOrigin of the motion, or of the last one
    // The tour stays away from the head while set. quiet_period clears it; tour_motion sets it for a command that has
    // overtaken a tour, and clears it when the tours start anew.
    std::atomic<int32_t> user_moved_recently{0};
    std::atomic<int32_t> track_back_done{1}; // 0 from a tracking motion until its return; tour_motion sets it, as above

    // motion_state, without a lock (motionStarting, motionStarted). Their difference is the number of motions whose
    // move requests are still to come.
    std::atomic<uint32_t> motionsBegun{0};
    std::atomic<uint32_t> motionsStarted{0};

    // motion_state: changes, under MotionLock, with each command that takes the head over. motion/step changes it with
    // each start and end of a step.
    std::atomic<uint32_t> stepMoveGeneration{0};

    // motion/step. Every command that takes the head over clears them (stepMoveCancel).
    int32_t stepMoveActive GUARDED_BY(MotionLock) = 0;    // 1 while a step move and its thread are under way
    int32_t stepMoveDirection GUARDED_BY(MotionLock) = 0; // degrees
    int32_t stepMoveRemaining GUARDED_BY(MotionLock) = 0; // ticks until its thread stops the head

    // tour_motion.
    // 0 makes a preset tour send the head again. Set under MotionStateLock; the reset (tourPresetReset) needs no lock.
    std::atomic<int32_t> tourCurrentPresetId{0};
    uint32_t tourTicket GUARDED_BY(MotionStateLock) = 0; // of the tour step that began last
    // 0 from a scan's move request, under MotionLock, until its quiet period is over, when quiet_period sets it under
    // MotionStateLock.
    std::atomic<int32_t> scanStepDone{1};

    std::atomic<uint32_t> quietPeriods{0}; // quiet_period: how many have begun, under MotionStateLock

    std::atomic<int32_t> calibrating{0};         // calibration; core/ptzd_init sets it first
    std::atomic<int32_t> simultaneous{0};        // core/ptzd_init
    std::atomic<int32_t> stepSustainTicks{1000}; // speed_config: length of a step
};

/// Owner: motion/panorama.
struct PanoramaState {
    std::atomic<int32_t> panoramaRunning{0};
};
