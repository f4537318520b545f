// What a running process costs, as the kernel counts it. Any thread; zeros for a process that does not run.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

/// Processor time of all its threads, ended ones too, in ns.
int64_t processorNs(pid_t pid);

/// How often its living threads have gone to sleep and been woken.
int64_t wakeUps(pid_t pid);

/// KiB. The stacks' part is what is resident of every thread's.
struct MemoryUse {
    double resident = 0;
    double proportional = 0; // pages shared with others count in parts
    double privateDirty = 0;
    double stack = 0;
};

MemoryUse memoryOf(pid_t pid);

/// Of a program file: bytes of what strip leaves of it, and entries of its relocation tables.
struct ProgramFile {
    double strippedBytes = 0;
    double relocations = 0;
};

ProgramFile programFile(const std::string& path);
