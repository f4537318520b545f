#pragma once
// Time in the lab for calls that sleep or ask.

#include "lab/clock.h"

#include <sys/types.h>
#include <time.h>

/// A timespec in ns; times beyond some hundred years count as that.
int64_t nanoseconds(const timespec& time);

timespec asTimespec(int64_t ns);

/// Wall clock of the lab in ns since 1970, also while it is the machine's. Any thread, no lock.
int64_t wallNow(const LabState& state);
