#include "core/context.h"

extern "C" int g_lens_mask_enabled; // defined by the platform's lens-mask library

constinit DaemonContext gContext;

int32_t lensMaskEnabled()
{
    return std::atomic_ref<int>(g_lens_mask_enabled).load();
}

void lensMaskSetEnabled(int32_t enabled)
{
    std::atomic_ref<int>(g_lens_mask_enabled).store(enabled);
}
