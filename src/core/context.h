// The daemon's whole state: one static record, a struct for each owner.
//
// A struct's members are written by its owner alone unless a word here says otherwise. A word that is read without a
// lock is atomic; words that belong together still change under their lock.
//
// Locks, in the order in which they may be taken: a lock may be waited for only while none further down is held
// (core/lock_order.h checks it in debug builds).
//   MotionLock          the step-move state
//   MotionStateLock     the motion state, the sending of its notifications and notifyBuf; never with MotionLock
//   ConfigStoreLock     the configuration store (recursive); neither motion lock is taken while it is held
//   PresetLock          the preset table; nothing is waited for while it is held
//   BusLock             every call into the bus library; nothing is waited for while it is held
#pragma once

#include "core/bus_library.h"
#include "core/mutex.h"
#include "core/timer.h"

#include <stdint.h>

#include <atomic>

struct uci_context;
struct uci_package;

enum AxisIndex { PAN = 0, TILT = 1, AXIS_COUNT = 2 };

/// One axis: constants, then what motorInit learns. Nothing of it changes once the worker threads run.
struct MotorAxis {
    char device_path[16];
    char section[32];   // of package ptzd
    int32_t home_coord; // coordinate units
    int32_t fd;         // 0 while not open
    int32_t range;      // coordinate units over the whole travel
    int32_t max_speed;
    int32_t total_steps; // motor steps over the whole travel
};

/// What a calibration run does with one axis.
struct CalibrationTarget {
    int32_t fd;
    int32_t returnSteps; // absolute position to finish at
    int32_t totalSteps;
};

enum MotionOrigin : int32_t {
    ORIGIN_USER = 0,
    ORIGIN_TRACK = 1,
    ORIGIN_RETURN = 2,
    ORIGIN_TOUR = 3,
};

/// Owner: motor/motion_state. All words but `calibrating` change under MotionStateLock, except where a function says
/// so.
struct MotionState {
    Mutex MotionLock{LockRank::Motion};
    Mutex MotionStateLock{LockRank::MotionState};
    std::atomic<int32_t> motion_active{0};       // 1 from a begin step until its idle transition
    std::atomic<int32_t> motion_origin{0};       // MotionOrigin of the motion, or of the last one
    std::atomic<int32_t> user_moved_recently{0}; // the tour stays away from the head while set
    std::atomic<int32_t> track_back_done{1};     // 0 from a tracking motion until its return
    std::atomic<uint32_t> startsSeen{0};         // see motion_state.cpp
    std::atomic<uint32_t> quietPeriods{0};       // how many have begun
    std::atomic<int32_t> calibrating{0};         // owner: motor/calibration
    std::atomic<int32_t> simultaneous{0};
    int32_t stepMoveActive GUARDED_BY(MotionLock) = 0;    // 1 while a step move and its thread are under way
    int32_t stepMoveDirection GUARDED_BY(MotionLock) = 0; // degrees
    int32_t stepMoveRemaining GUARDED_BY(MotionLock) = 0; // ticks until its thread stops the head
    // Changes, under MotionLock, with each start and end of a step and with each command that takes the head over.
    std::atomic<uint32_t> stepMoveGeneration{0};
    uint32_t tourTicket GUARDED_BY(MotionStateLock) = 0; // of the tour step that began last
    std::atomic<int32_t> stepSustainTicks{1000};         // length of a step; owner: motor/speed_config
};

/// Whether the head's position may be stored.
enum class Saves : int32_t {
    Allowed,
    Inhibited,     // the head is in the lens mask's zone, or may be
    AllowedAtRest, // it is on its way out of there
};

/// Owner: motor/position_store.
struct PositionState {
    std::atomic<int32_t> power_off_recover{1};
    std::atomic<uint32_t> saveRequests{0}; // counts the armings of saveStepsTimer
    std::atomic<bool> savePending{false};  // armed and not saved yet
    std::atomic<Saves> saves{Saves::Allowed};
    std::atomic<uint32_t> saveEpoch{0}; // this and the two below: see position_store.cpp
    std::atomic<uint32_t> savesBegun{0};
    uint32_t lastSaved = 0; // under ConfigStoreLock
};

struct Timers {
    DaemonTimer saveStepsTimer;
    DaemonTimer statusPollTimer;
    DaemonTimer usrMoveStopTimer;
    DaemonTimer scanMoveStopTimer;
};

/// Owner: motion/panorama.
struct PanoramaState {
    std::atomic<int32_t> panoramaRunning{0};
};

/// Owner: motion/track.
struct TrackState {
    std::atomic<int32_t> targetTrackEnabled{0};
};

inline constexpr int PRESET_COUNT = 8;
inline constexpr int PRESET_NAME_SIZE = 33; // 32 bytes and the NUL

/// One stored preset. Positions run from -1.0, step 0, to 1.0, the far end of the travel.
struct PresetEntry {
    int32_t id; // 1..8
    float position_pan;
    float position_tilt;
    float position_zoom; // the head has no zoom: 0
    int32_t read_only;
    int32_t enabled; // 0: the slot is free
    char name[PRESET_NAME_SIZE];
};

/// Slot n, 1..8, is element n - 1. A preset's slot and its id differ.
struct PresetTable {
    PresetEntry presetTable[PRESET_COUNT];
    int32_t presetSlotOfId[PRESET_COUNT]; // element i: the slot of the enabled preset with id i + 1, or 0
};

/// Owner: preset/. The table is written on the event loop's thread alone.
struct PresetState {
    Mutex PresetLock{LockRank::Preset};
    PresetTable presets GUARDED_BY(PresetLock) = {};
    bool presetsLoaded = false; // event loop only
    float presetSpeed = 0;      // these two: event loop only
    int32_t presetImageFreezeEnabled = 0;
    std::atomic<float> panSpeedFactor{1.0F}; // fraction of max_speed, above 0 and at most 1
    std::atomic<float> tiltSpeedFactor{1.0F};
};

enum PlanAction : int32_t {
    PLAN_ACTION_UNKNOWN = -1,
    PLAN_ACTION_DISABLE = 0,
    PLAN_ACTION_PRESET = 1,
};

inline constexpr int WEEK_DAYS = 7; // from Sunday, 0
inline constexpr int PLAN_DAY_ENTRIES = 10;

/// One range of one weekday, in minutes after midnight.
struct PlanEntry {
    int32_t action_type; // PlanAction
    int32_t weekday;
    int32_t start_time;
    int32_t end_time;   // at most 1440
    char action_id[64]; // a preset's id as text; 64 bytes of text have no NUL
    int32_t valid;
};
static_assert(sizeof(PlanEntry) * PLAN_DAY_ENTRIES == 840);

/// A week; a table holds PLAN_DAY_ENTRIES.
struct DayPlanSet {
    PlanEntry* tables[WEEK_DAYS];
    int32_t counts[WEEK_DAYS];
    int32_t dayMask; // bit d: weekday d belongs to the plan
};

struct TourInfo {
    char enabled[4];   // touring is off while this is "off"
    int32_t tour_type; // TourType
};

/// Pan coordinates between which a scan goes, and its daily span in minutes after midnight.
struct ScanTourInfo {
    int32_t x_coord_start;
    int32_t x_coord_end;
    int32_t start_time;
    int32_t end_time;
};

/// Owner: tour/. Both records and the tables are allocated by TourInit and freed by TourDeinit.
struct TourState {
    TourInfo* tourInfo = nullptr; // these three: main thread until the touring thread starts, then that one's alone
    ScanTourInfo* scanTourInfo = nullptr;
    DayPlanSet activePlan{};
    DayPlanSet pendingPlan{}; // this and the scratch tables: event loop only
    PlanEntry* planScratchTables[WEEK_DAYS] = {};
    std::atomic<int32_t> planChanged{0}; // stored and not loaded yet
    std::atomic<int32_t> tourReloadRequested{0};
    std::atomic<int32_t> scanTourReloadRequested{0};
    std::atomic<int32_t> tourCurrentPresetId{0}; // 0 makes a preset tour send the head again
    std::atomic<int32_t> scanStepDone{1};
};

/// Owner: image/flip_config.
struct ImageState {
    std::atomic<int32_t> imageFlipType{0}; // 0..3, row of FlipSignTable
};

/// Owner: ubus/. All but notifyBuf belongs to the event loop's thread.
struct UbusState {
    Mutex BusLock{LockRank::Bus};
    ubus_context* gUbusctx = nullptr;
    blob_buf replyBuf{};
    bool replyComplete = false; // whether replyBuf holds all that was added to it
    blob_buf notifyBuf{};       // used under MotionStateLock
    int32_t ubusConnectAttempts = 0;
    uloop_timeout reconnectTimeout{};
};

struct UciPackage {
    const char* name;
    uci_package* handle;
};

inline constexpr int UCI_PACKAGE_COUNT = 7;

/// Owner: config/uci_store.
struct ConfigState {
    RecursiveMutex ConfigStoreLock{LockRank::ConfigStore};
    uci_context* uciContext GUARDED_BY(ConfigStoreLock) = nullptr;
    UciPackage uciPackages[UCI_PACKAGE_COUNT] GUARDED_BY(ConfigStoreLock) = {
        {"ptzd", nullptr},         {"image", nullptr},    {"diagd", nullptr}, {"lens_mask", nullptr},
        {"target_track", nullptr}, {"ptz_plan", nullptr}, {"tour", nullptr},
    };
};

struct DaemonContext {
    MotorAxis axes[AXIS_COUNT] = {
        {"/dev/x-motor", "x_motor", 0, 0, 0, 0, 0},
        {"/dev/y-motor", "y_motor", -6, 0, 0, 0, 0},
    };
    Timers timers{};
    CalibrationTarget* calibrationArg = nullptr; // two, pan first; allocated by PtzdInit, freed by its teardown
    MotionState motion;
    PositionState position;
    PanoramaState panorama;
    TrackState track;
    PresetState preset;
    TourState tour;
    ImageState image;
    UbusState ubus;
    ConfigState config;
};

extern DaemonContext gContext; // NOLINT(bugprone-dynamic-static-initializers): constinit in context.cpp

/// The lens-mask library's switch, a plain integer there: 1 while the mask is on. Any thread; no lock.
[[nodiscard]] int32_t lensMaskEnabled();
void lensMaskSetEnabled(int32_t enabled);
