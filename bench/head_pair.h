// A lab with the daemon and, beside it on the same bus, the bare object that it is measured against.
#pragma once

#include "lab/lab.h"

/// The settings of the lab that everything but the clock's own tests uses: quick calibration, the C library's timers.
LabOptions benchHead();

/// The same with a preload that notes every file made durable; see syncs().
LabOptions countedHead();

/// A file made durable by fsync: by whom, where, and its size then. A directory has no size.
struct Sync {
    pid_t pid;
    std::string path;
    int64_t bytes;
};

class HeadPair {
public:
    explicit HeadPair(const LabOptions& options = benchHead());
    ~HeadPair();
    HeadPair(const HeadPair&) = delete;
    HeadPair& operator=(const HeadPair&) = delete;

    /// False when a program did not start, with the reason on standard error.
    [[nodiscard]] bool valid() const
    {
        return started_;
    }
    Lab& lab()
    {
        return lab_;
    }
    [[nodiscard]] pid_t barePid() const
    {
        return lab_.programs.pidOf("bare");
    }
    /// Starts the bare object and returns at once; false when it cannot. endBare() waits for its end.
    bool launchBare();
    void endBare();
    /// Both replies of a method without their digits and texts are the same; `bare` is the object's name.
    bool sameShape(const std::string& bare, const std::string& method);
    /// What a process has made durable in a lab of countedHead(), in order.
    [[nodiscard]] std::vector<Sync> syncs(pid_t pid) const;

private:
    Lab lab_;
    bool started_ = false;
};
