// Heap memory of the C library with an owner.
#pragma once

#include <stdlib.h>

#include <memory>

struct FreeMemory {
    void operator()(void* memory) const
    {
        free(memory);
    }
};

/// What calloc, or a library that leaves the freeing to its caller, has allocated.
template <typename T>
using Owned = std::unique_ptr<T, FreeMemory>;
