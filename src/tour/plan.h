// The weekly plan: in which minutes of which weekday the head stays at which preset.
//
// The pending plan is what the methods build and store, on the event loop's thread. The active plan is loaded from
// storage and followed by the touring thread.
#pragma once

#include "ubus/method_call.h"

#include <stdint.h>

#include <iterator>
#include <span>

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

enum PlanResult : int32_t {
    PLAN_OK = 0,
    PLAN_STORAGE = 64301, // positive, unlike every other code
    PLAN_INVALID = 64302,
};

inline constexpr blobmsg_policy planPolicy[] = {
    {"sunday", BLOBMSG_TYPE_ARRAY},    {"monday", BLOBMSG_TYPE_ARRAY},   {"tuesday", BLOBMSG_TYPE_ARRAY},
    {"wednesday", BLOBMSG_TYPE_ARRAY}, {"thursday", BLOBMSG_TYPE_ARRAY}, {"friday", BLOBMSG_TYPE_ARRAY},
    {"saturday", BLOBMSG_TYPE_ARRAY},
};
static_assert(std::size(planPolicy) == WEEK_DAYS);

/// The name, "sunday_1" for day 0 and entry number 1, of an entry's section and of its member in a request.
struct PlanEntryName {
    char text[16];
};
[[nodiscard]] PlanEntryName planEntryName(int day, int number);

/// The entry's action_id as a decimal number, whatever its 64 bytes hold; 0 where it is none.
[[nodiscard]] int32_t planPresetId(const PlanEntry& entry);

/// Whether a day holds `expected` valid entries, each of a known action, within the day and not before the end of the
/// one before it. A null table is invalid.
[[nodiscard]] bool plan_check_plan_list(const PlanEntry* table, int32_t expected);

/// Checks all seven days; the first invalid one is logged. @return true when all are valid.
bool plan_check_plan_list_all(const DayPlanSet& plan);

/// Loads the active plan, whose tables must exist, and checks it; an invalid day is logged and followed all the same.
/// @return PLAN_OK; PLAN_STORAGE, logged, with an empty plan, when an entry cannot be read.
/// Thread: main until the touring thread runs, then that one; takes ConfigStoreLock.
[[nodiscard]] int32_t plan_load_plan();

/// Stores the days in the plan's mask and leaves the others alone.
/// @return PLAN_OK; PLAN_STORAGE, logged, or CFG_UCI_FAILED when the commit fails: storage is then unchanged.
/// Thread: event loop; takes ConfigStoreLock.
[[nodiscard]] int32_t plan_save_plan(DayPlanSet plan);

/// Stores the pending plan and has the touring thread load it. As plan_save_plan.
[[nodiscard]] int32_t plan_save_pending();

/// Takes the entries of some presets, or all entries, out of the pending plan and stores it. As plan_save_plan.
[[nodiscard]] int32_t plan_drop_presets(std::span<const int32_t> ids);
[[nodiscard]] int32_t plan_drop_all();

/// `set_plan_config`: replaces the days that it is given; answers PLAN_INVALID for any fault in one of them.
UbusHandler plan_modify_plan;
