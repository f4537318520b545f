#pragma once
// What a lab remembers outside every process: one file, DIR/state, which each of its processes maps.

#include <pthread.h>

#include <atomic>
#include <cstdint>

inline constexpr uint32_t LAB_STATE_MAGIC = 0x62616c70;
/// Grows with every change of the records below; a process refuses a state file of another version.
inline constexpr uint32_t LAB_STATE_VERSION = 5;

/// The lab's time zone, below DIR.
#define LAB_ZONE_FILE "/etc/localtime"

enum LabAxisId : uint32_t { LAB_PAN, LAB_TILT, LAB_AXIS_COUNT };

/// The seven requests of a motor device, numbered as in their request words.
enum LabRequest : uint32_t {
    LAB_GET_CAPA,
    LAB_SET_POSITION,
    LAB_GET_STATUS,
    LAB_SET_SPEED,
    LAB_ROTATE,
    LAB_MOVE,
    LAB_STOP,
    LAB_REQUEST_COUNT
};

/// How the CET stand-in answers.
enum LabCetMode : int32_t { CET_OK, CET_LATE, CET_WRONG, CET_NO_CODE, CET_SILENT };

inline constexpr int32_t LAB_FOR_EVER = -1;

/// The mechanics of an axis. `shaft` is where the head is, `count` where its driver believes it is, both in
/// steps and as of `motionStartNs` while a motion is under way; kinematics.h tells both for any moment.
struct LabAxis {
    int32_t range;      // coordinate units over the whole travel
    int32_t maxSpeed;   // largest speed value
    int32_t totalSteps; // steps over the whole travel
    int32_t factor;     // steps per second for each unit of speed
    int32_t shaft;
    int32_t count;
    int32_t speed;     // configured speed value
    int32_t direction; // of the latest rotation, +1 or -1

    int32_t motionSteps;   // what is left of the motion at its start, signed; 0: the axis rests
    int32_t motionSpeed;   // speed value
    int64_t motionStartNs; // lab time
    int64_t motionPhase;   // part of the next step already made at the start, in billionths of a step
    uint32_t motionId;     // running number of the latest motion
    uint32_t completed;    // bit n: motion number motionId - n ran to its end
};

/// What is to go wrong with one request of one axis.
struct LabFault {
    int32_t passes;   // so many still succeed first
    int32_t failures; // the next so many fail; LAB_FOR_EVER: all
    int32_t error;    // errno of a failure
    int32_t delayMs;  // real time between the effect and the answer
};

struct LabFaults {
    LabFault requests[LAB_REQUEST_COUNT];
    int32_t stuckRunning;  // 1: GET_STATUS reports running whatever the axis does
    int32_t capaReplaced;  // 1: GET_CAPA reports the three numbers below
    int32_t capability[3]; // range, max_speed, total_steps
};

/// One axis. A writer fills the slot that is not current and then makes it current, so that a process killed in
/// between leaves the former state whole.
struct LabAxisRecord {
    std::atomic<uint32_t> current;
    LabAxis slots[2];
    LabFaults faults;
    std::atomic<uint32_t> served[LAB_REQUEST_COUNT]; // requests seen, failed ones too
    std::atomic<uint32_t> wake;                      // counts what a waiting request must look at
    uint64_t nodeDevice;                             // file system and inode of DIR/dev/x-motor or y-motor
    uint64_t nodeInode;
    int32_t slowdown;     // so many status reports behind a STOP of a turning axis still say that it runs
    int32_t slowdownLeft; // of the latest STOP
};

/// The lab clock from one change on; see clock.h.
struct LabClock {
    int64_t realNs;     // CLOCK_MONOTONIC at the change
    int64_t labNs;      // lab time then
    int64_t speedMilli; // lab time per real time, in thousandths
    int64_t wallNs;     // added to lab time gives the wall clock
    int64_t wallIsReal; // 1: the wall clock is the machine's, wallNs does not count
};

/// The same for readers without a lock, in halves of words, since not every 32-bit processor reads 64 bits at once.
/// They may get parts of two clocks, and must find that out (LabState::clockChanges) and read again.
struct LabClockSlot {
    std::atomic<uint32_t> words[sizeof(LabClock) / sizeof(uint32_t)];
};

struct LabState {
    uint32_t magic;
    uint32_t version;
    int64_t startNs;      // CLOCK_MONOTONIC when the lab was started; journal times count from it
    pthread_mutex_t lock; // robust, shared by processes; guards every plain member of axes and all writes to clock
    std::atomic<uint32_t> clockChanges; // its lowest bit tells the current slot
    LabClockSlot clock[2];
    std::atomic<uint32_t> wake; // counts changes of the clock and newly armed timers: what sleepers must look at
    LabAxisRecord axes[LAB_AXIS_COUNT];
    std::atomic<int32_t> cetMode;    // LabCetMode
    std::atomic<int32_t> cetDelayMs; // of CET_LATE
    std::atomic<uint32_t> timersCreated;
};

static_assert(std::atomic<uint32_t>::is_always_lock_free, "words shared by processes must not hide a lock");
