#pragma once
// Starting and ending the programs of a lab. One thread; the functions that wait sleep 2 ms between looks.

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

/// An array of C strings for exec over texts that must outlive it, made before a fork: nothing may be allocated after
/// it.
class ArgumentList {
public:
    explicit ArgumentList(const std::vector<std::string>& texts)
    {
        for (const std::string& text : texts)
            list_.push_back(const_cast<char*>(text.c_str()));
        list_.push_back(nullptr);
    }
    char** get()
    {
        return list_.data();
    }

private:
    std::vector<char*> list_;
};

struct ProgramStart {
    std::vector<std::string> command;     // program file or name on the PATH, then its arguments
    std::vector<std::string> environment; // NAME=VALUE, all of it
    std::string logFile;                  // standard output and error are appended here
    std::string pidFile;
    bool endWithParent; // killed when the thread that starts it ends
};

/// Starts a program in a session of its own, with standard input from /dev/null. Returns its process id, or 0 with the
/// reason in `error`.
pid_t startProcess(const ProgramStart& start, std::string& error);

/// The process named in a pid file if it still lives in the lab `folder` (its PTZD_LAB says so), else 0.
pid_t livingProcess(const std::string& pidFile, const std::string& folder);

/// Whether `pid` runs, is no zombie and lives in the lab `folder`.
bool livesIn(pid_t pid, const std::string& folder);

/// Sends a signal to one process. False, with nothing sent, for a `pid` of 0 or less, which would mean a whole group or
/// everybody, and when the process is gone.
bool sendSignal(pid_t pid, int number);

/// Waits until a process has ended. The wait status of a child of ours, 0 for another; nothing when the time is up.
std::optional<int> awaitEnd(pid_t pid, const std::string& folder, std::chrono::milliseconds timeout);

/// Runs a command to its end, without input, with its standard output in `output` and its errors on ours. The exit
/// status; -1 when it could not be started or a signal ended it.
int runCommand(const std::vector<std::string>& command, const std::vector<std::string>& environment,
               std::string& output);
