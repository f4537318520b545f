#pragma once
// Which lab this process lives in, and the way to the C library behind the preloaded calls.

#include "lab/lab_state.h"

#include <atomic>

/// Folder named by PTZD_LAB, or null outside a lab. Found at the first call; any thread, no lock.
const char* labFolder();

/// State of that lab; null outside a lab or when it cannot be mapped (said once on standard error).
LabState* labState();

/// Address of the next definition of a call behind this library. Looked up at the first use and not in a constructor:
/// sanitizers call us before any constructor has run. Ends the process when there is none.
void* nextDefinition(std::atomic<void*>& slot, const char* name);

/// As the C library's headers declare its functions: some of glibc's are noexcept, and no other library's.
#ifdef __GLIBC__
#define C_NOEXCEPT noexcept
#else
#define C_NOEXCEPT
#endif

/// The C library's own function of that name.
#define NEXT(function)                                                                                                 \
    ([] {                                                                                                              \
        static constinit std::atomic<void*> slot{nullptr};                                                             \
        return reinterpret_cast<decltype(&::function)>(nextDefinition(slot, #function));                               \
    }())
