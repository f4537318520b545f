#pragma once
// The commands of ptzd-lab. Each gets a lab and its arguments, which it checks before it does anything, and returns the
// exit status: 0, 1 when it failed and said why on standard error, 2 after wrong use.

#include "lab/lab.h"

#include <charconv>

using Arguments = std::vector<std::string>;
using Command = int(Lab& lab, const Arguments& arguments);

Command upCommand; // this and `run` get a lab that need not exist yet, the others one that is there
Command downCommand;
Command statusCommand;
Command ptzdCommand;
Command busCommand;
Command cetCommand;
Command runCommand;
Command execCommand;
Command motorCommand;
Command powerLossCommand;
Command clockCommand;
Command journalCommand;
Command plotCommand;

/// Says what is wrong with the arguments, and how the command is used; returns 2.
int wrongUse(const std::string& problem);

/// Says what failed on standard error; returns 1.
int failed(const std::string& reason);

/// The exit status of a call that leaves its reason in Lab::error().
int statusOf(const Lab& lab, bool succeeded);

/// The lab's folder where the user named it in an argument, with a blank before it; else empty.
const std::string& namedFolder();

/// A command line that the user can type: through `./dev` when it started this program, else with this program's own
/// path. `words` are the arguments of `./dev`: "lab down", "ubus call ...".
std::string typed(const std::string& words);

/// Takes the options of `up` and `run`; what is wrong with them, or nothing.
std::string parseOptions(const Arguments& arguments, LabOptions& options);

/// Whole number within limits; false for anything else in the text.
template <typename Number>
bool parseNumber(const std::string& text, Number low, Number high, Number& value)
{
    const char* end = text.data() + text.size();
    const auto [stop, problem] = std::from_chars(text.data(), end, value);
    return problem == std::errc() && stop == end && value >= low && value <= high;
}

/// "RANGE,MAXSPEED,STEPS", each `low` at least.
bool parseSetting(const std::string& text, int32_t low, LabAxisSetting& setting);

/// Where an axis is and what it does, in a line.
std::string axisText(Lab& lab, LabAxisId axis);

/// Keeps two commands from starting and ending programs of one lab at the same time; waits up to 30 s for another.
/// A descriptor that holds the lock until it is closed; -1 when the folder cannot be used, which it says.
int lockLab(const std::string& folder);
