// The adapter of the platform's lens-mask library: its switch.
#pragma once

#include <stdint.h>

// A plain integer there: hence the compiler's own atomic accesses, since not every C++ library has std::atomic_ref.
extern "C" int g_lens_mask_enabled;

/// 1 while the mask is on. Any thread; no lock.
[[nodiscard]] inline int32_t lensMaskEnabled()
{
    return __atomic_load_n(&g_lens_mask_enabled, __ATOMIC_SEQ_CST);
}

inline void lensMaskSetEnabled(int32_t enabled)
{
    __atomic_store_n(&g_lens_mask_enabled, enabled, __ATOMIC_SEQ_CST);
}
