// The tours: the thread that moves the head while nothing else does.
#pragma once

#include "core/log.h"
#include "core/motion.h"

#include <stdint.h>

/// Allocates the tours' records and the plans' tables, loads them and starts the touring thread.
/// @return 0; -1, logged, with everything freed, when memory, the plan or the thread cannot be had.
/// Thread: main, once, with `calibrating` set until the axes are known.
[[nodiscard]] int32_t TourInit();

/// Frees what TourInit allocated. Thread: main, when the touring thread has ended.
void TourDeinit();

/// The progress of the scan.
struct ScanProgress {
    int32_t coord;     // of the next step, coordinate units
    int32_t direction; // +1 or -1
};

/// One cycle: the reloads that were asked for, then a step of the tour when the head is the tour's to move.
/// @return false, logged under the caller's name, when a reload or a step failed; the next cycle tries again.
/// Thread: touring; takes ConfigStoreLock, MotionLock and MotionStateLock, one after the other.
[[nodiscard]] bool tourCycle(ScanProgress& scan, LogSite caller = logSite())
    EXCLUDES(gContext.motion.MotionLock, gContext.motion.MotionStateLock);
