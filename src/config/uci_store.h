// The adapter of the configuration store: the seven packages of the daemon.
//
// Every call takes ConfigStoreLock for its own length; a sequence that belongs together holds a UciTransaction. Any
// thread, but neither motion lock may be taken inside a transaction. Unless stated otherwise a call returns 0, or
// CFG_UCI_FAILED for an unknown package id, a missing context, a package that is not loaded or a missing argument.
// Changes live in the loaded package until cfg_uci_commit; a reload discards them.
#pragma once

#include <stddef.h>
#include <stdint.h>

struct uci_option;
struct uci_package;
struct uci_section;

inline constexpr int32_t CFG_UCI_FAILED = -60107;

enum UciPackageId : int32_t {
    UCI_PTZD = 0,
    UCI_IMAGE = 1,
    UCI_DIAGD = 2,
    UCI_LENS_MASK = 3,
    UCI_TARGET_TRACK = 4,
    UCI_PTZ_PLAN = 5,
    UCI_TOUR = 6,
};

/// Allocates a new context (an existing one is freed first) and loads all seven packages, in the order of their ids;
/// the first that fails to load ends it. Thread: main, at start.
[[nodiscard]] int32_t cfg_uci_init();

/// Frees the context with all packages; harmless without one. No other thread may use the store any more.
void cfg_uci_deinit();

/// Loads one package by name, afresh when it is loaded already. @return its handle, or null; the handle lives until the
/// next reload or commit of that package, so only a transaction may keep it.
uci_package* cfg_uci_pkg_init(const char* name);

/// Loads a package afresh from storage; on failure (CFG_UCI_FAILED, logged) it counts as not loaded from then on.
int32_t cfg_uci_pkg_reload(int32_t id);

/// Saves a package's changes and commits them to its file, durably. A failure is logged; changes that could not
/// be saved are then discarded with the next reload, saved ones wait in the change file: the package is read with them
/// from then on, and the next commit that succeeds stores them.
[[nodiscard]] int32_t cfg_uci_commit(int32_t id);

/// The section or the option record, or null; valid inside a transaction only.
uci_section* cfg_uci_get_section(int32_t id, const char* section);
uci_option* cfg_uci_get_option(int32_t id, const char* section, const char* option);

/// Copies an option's text, terminated, cut to `size` - 1 bytes. Fails when section or option is missing or a list.
int32_t cfg_uci_get_string_value(int32_t id, const char* section, const char* option, char* out, size_t size);

/// Convert an option's text; it must be a number to its last character, and an empty text is 0. Integers are decimal;
/// those outside the target's range saturate. `out` is written on success only.
int32_t cfg_uci_get_int_value(int32_t id, const char* section, const char* option, int32_t* out);
int32_t cfg_uci_get_long_long_value(int32_t id, const char* section, const char* option, int64_t* out);
int32_t cfg_uci_get_float_value(int32_t id, const char* section, const char* option, float* out);

/// Read a list option: the first element goes to out[0], the last of the others to out[1]. A plain option counts as a
/// list of one, and of an empty list nothing is written. Text that is no number counts as 0.
int32_t cfg_uci_get_range_int(int32_t id, const char* section, const char* option, int32_t out[2]);
int32_t cfg_uci_get_range_float(int32_t id, const char* section, const char* option, float out[2]);

/// Set an option, creating it if need be; its section must exist. An empty text deletes the option. Floats are written
/// with six decimals.
int32_t cfg_uci_set_string_value(int32_t id, const char* section, const char* option, const char* text);
int32_t cfg_uci_set_int_value(int32_t id, const char* section, const char* option, int32_t value);
int32_t cfg_uci_set_long_long_value(int32_t id, const char* section, const char* option, int64_t value);
int32_t cfg_uci_set_float_value(int32_t id, const char* section, const char* option, float value);

/// Creates a named section with a type, or changes the type of an existing one.
int32_t cfg_uci_set_section(int32_t id, const char* section, const char* type);

/// Deletes a section; one that does not exist is no failure.
int32_t cfg_uci_delete(int32_t id, const char* section, const char* type);

/// Append a value to a list option (creating it), remove every element equal to a value, remove all elements.
int32_t cfg_uci_add_list(int32_t id, const char* section, const char* option, const char* value);
int32_t cfg_uci_del_list(int32_t id, const char* section, const char* option, const char* value);
int32_t cfg_uci_clear_list(int32_t id, const char* section, const char* option);

/// Keeps the configuration store to one thread for a whole reload-and-read or set-and-commit.
///
/// Each call locks for itself, which does not protect a sequence: a reload discards uncommitted changes, so one on a
/// timer thread between another thread's set and commit would lose the set. The lock is recursive, so a loader may run
/// inside a transaction. Never hold one across a device request or a bus call.
class UciTransaction {
public:
    /// Loads the package again if a failed commit or reload has left it unloaded.
    explicit UciTransaction(UciPackageId id);
    ~UciTransaction();
    UciTransaction(const UciTransaction&) = delete;
    UciTransaction& operator=(const UciTransaction&) = delete;

    [[nodiscard]] int32_t commit() const
    {
        return cfg_uci_commit(id_);
    }

private:
    UciPackageId id_;
};

/// Loads a package afresh and reads a section's option `enabled`, a switch that another program stores for the daemon.
/// @return true when it is "on", in any letter case; a missing one is off. Any thread; takes ConfigStoreLock.
[[nodiscard]] bool storedSwitchOn(UciPackageId id, const char* section);
