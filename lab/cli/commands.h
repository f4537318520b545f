#pragma once
// The commands of ptzd-lab. Each takes its arguments and returns the exit status: 0, 1 when it failed (and said why on
// standard error), or 2 when it was used wrongly.

#include "lab/lab.h"

#include <string>
#include <vector>

using Arguments = std::vector<std::string>;

struct Command {
    const char* name;
    const char* usage; // lines of "NAME ..." and explanation
    int (*run)(const Command& self, Arguments arguments);
};

int upCommand(const Command& self, Arguments arguments);
int downCommand(const Command& self, Arguments arguments);
int statusCommand(const Command& self, Arguments arguments);
int ptzdCommand(const Command& self, Arguments arguments);
int busCommand(const Command& self, Arguments arguments);
int cetCommand(const Command& self, Arguments arguments);
int runCommand(const Command& self, Arguments arguments);
int execCommand(const Command& self, Arguments arguments);
int motorCommand(const Command& self, Arguments arguments);
int powerLossCommand(const Command& self, Arguments arguments);
int clockCommand(const Command& self, Arguments arguments);
int journalCommand(const Command& self, Arguments arguments);
int plotCommand(const Command& self, Arguments arguments);

/// A command line that the user can type: through `./dev` when it started this program, else with this program's own
/// path. `words` are the arguments of `./dev`: "lab down", "ubus call ...".
std::string typed(const std::string& words);

/// Says what is wrong and how the command is used, on standard error; returns 2.
int wrongUse(const Command& self, const std::string& problem);

/// Says what failed on standard error; returns 1.
int failed(const std::string& reason);

/// The lab that a command means: the folder given, else PTZD_LAB_DIR, else .lab here.
std::string labFolderFor(const Arguments& arguments, size_t index);

/// Takes over the lab of this command's folder; says why not.
bool attached(Lab& lab);

/// Takes `--NAME VALUE` pairs and flags of `up` and `run` out of the arguments. False with what is wrong.
bool takeStartOptions(Arguments& arguments, LabOptions& options, std::string& problem);

/// Whole number within limits; false for anything else in the text.
bool parseNumber(const std::string& text, int64_t low, int64_t high, int64_t& value);
bool parseSetting(const std::string& text, char separator, int32_t low, LabAxisSetting& setting);

/// Prints a line on where an axis is, and what is set to go wrong with it.
void printAxis(Lab& lab, LabAxisId axis);

const char* axisName(LabAxisId axis);

/// Coordinate of a position in steps.
int32_t coordinateOf(const LabAxisSetting& setting, int32_t steps);

/// Keeps two commands from starting and ending programs of one lab at the same time.
class WorkLock {
public:
    /// Waits up to 30 s for another command.
    explicit WorkLock(const std::string& folder);
    ~WorkLock();
    WorkLock(const WorkLock&) = delete;
    WorkLock& operator=(const WorkLock&) = delete;
    /// False: the folder cannot be used; said on standard error.
    bool held() const
    {
        return held_;
    }

private:
    int fd_ = -1;
    bool held_ = false;
};
