#pragma once
// Opening the state file of a lab and holding its lock.

#include "lab/kinematics.h"

/// Maps DIR/state into this process for its whole life; null with errno when it cannot (EPROTO: it is no state file of
/// this version). Any thread.
LabState* mapLabState(const char* folder);

/// Creates a state file of that path and maps it: clock (started now) and start time are set, the axes zeroed. Null
/// with errno when it cannot.
LabState* createLabState(const char* path);

/// Holds a lock; LabState::lock may have been left behind by a killed process: what it guards changes in single steps,
/// so the next one simply goes on.
class LabLock {
public:
    explicit LabLock(pthread_mutex_t& lock);
    explicit LabLock(LabState& state) : LabLock(state.lock)
    {
    }
    ~LabLock();
    LabLock(const LabLock&) = delete;
    LabLock& operator=(const LabLock&) = delete;

private:
    pthread_mutex_t& lock_;
};

/// A working copy of one axis, brought up to now; commit() makes it the axis. Needs LabState::lock for its whole life.
class LabAxisEdit {
public:
    LabAxisEdit(LabState& state, LabAxisId id);
    LabAxis& operator*()
    {
        return axis_;
    }
    LabAxis* operator->()
    {
        return &axis_;
    }
    /// Lab time of the copy.
    int64_t labNs() const
    {
        return labNs_;
    }
    /// CLOCK_MONOTONIC at the same moment.
    int64_t realNs() const
    {
        return realNs_;
    }
    void commit();

private:
    LabAxisRecord& record_;
    int64_t realNs_;
    int64_t labNs_;
    LabAxis axis_;
};
