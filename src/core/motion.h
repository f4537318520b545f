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

/// The words of the first group change under MotionStateLock, by the steps of motor/ that are named with them. An
/// atomic word may be read without.
struct MotionState {
    Mutex MotionLock{LockRank::Motion};
    Mutex MotionStateLock{LockRank::MotionState};

    std::atomic<int32_t> motion_active{0};       // 1 from a begin step until its idle transition
    std::atomic<int32_t> motion_origin{0};       // MotionOrigin of the motion, or of the last one
    std::atomic<int32_t> user_moved_recently{0}; // the tour stays away from the head while set
    std::atomic<int32_t> track_back_done{1};     // 0 from a tracking motion until its return
    std::atomic<int32_t> tourCurrentPresetId{0}; // 0 makes a preset tour send the head again
    std::atomic<int32_t> scanStepDone{1};
    uint32_t tourTicket GUARDED_BY(MotionStateLock) = 0; // of the tour step that began last
    std::atomic<uint32_t> quietPeriods{0};               // how many have begun

    std::atomic<uint32_t> startsSeen{0}; // see motion_state.cpp

    int32_t stepMoveActive GUARDED_BY(MotionLock) = 0;    // 1 while a step move and its thread are under way
    int32_t stepMoveDirection GUARDED_BY(MotionLock) = 0; // degrees
    int32_t stepMoveRemaining GUARDED_BY(MotionLock) = 0; // ticks until its thread stops the head
    // Changes, under MotionLock, with each start and end of a step and with each command that takes the head over.
    std::atomic<uint32_t> stepMoveGeneration{0};

    std::atomic<int32_t> calibrating{0};         // owner: motor/calibration
    std::atomic<int32_t> simultaneous{0};        // owner: core/ptzd_init
    std::atomic<int32_t> stepSustainTicks{1000}; // length of a step; owner: motor/speed_config
};

/// Owner: motion/panorama.
struct PanoramaState {
    std::atomic<int32_t> panoramaRunning{0};
};
