#pragma once
// Child processes: the daemon, and commands with what they print.

#include <chrono>
#include <string>
#include <vector>

#include <sys/types.h>
#include <time.h>

constexpr auto DEADLINE = std::chrono::seconds(30); // generous: reached in failing tests only

// How often waited-for conditions are looked at.
constexpr auto POLL_INTERVAL = std::chrono::milliseconds(5);

// True as soon as the condition holds; false when it does not within DEADLINE.
template <class Condition>
bool waitUntil(Condition condition)
{
    const auto end = std::chrono::steady_clock::now() + DEADLINE;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        const timespec interval{.tv_sec = 0, .tv_nsec = std::chrono::nanoseconds(POLL_INTERVAL).count()};
        nanosleep(&interval, nullptr);
    }
    return true;
}

// Processor time that this process has used.
std::chrono::milliseconds processorTime();

class Process {
public:
    enum class Stderr { Pipe, Terminal };

    // `arguments` begin with the program's name, which is its file unless that is given.
    explicit Process(const std::vector<std::string>& arguments, Stderr standardError = Stderr::Pipe,
                     const char* file = nullptr);
    ~Process(); // kills it if it still runs
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const
    {
        return pid_;
    }
    void signal(int number) const;

    // Reads what it prints until it has ended; its exit status, or 1000 plus the signal that ended it.
    int wait();

    // The next line of standard output, without its end; what there is when the process ends before.
    std::string readLine();

    // Whether readLine() would not have to wait.
    bool hasLine();

    std::string out; // read so far
    std::string err;

private:
    bool readSome(std::chrono::milliseconds wait);
    void readOrFail();

    pid_t pid_ = -1;
    size_t lineAt_ = 0; // in `out`
    int outFd_ = -1;
    int errFd_ = -1;
};
