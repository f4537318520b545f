#include "core/context.h"

// Defined by the platform's lens-mask library, as a plain integer: hence the compiler's own atomic accesses, since not
// every C++ library has std::atomic_ref.
extern "C" int g_lens_mask_enabled;

constinit DaemonContext gContext;

int32_t lensMaskEnabled()
{
    return __atomic_load_n(&g_lens_mask_enabled, __ATOMIC_SEQ_CST);
}

void lensMaskSetEnabled(int32_t enabled)
{
    __atomic_store_n(&g_lens_mask_enabled, enabled, __ATOMIC_SEQ_CST);
}
