/// Contexts and their directories.
#include "internal.h"

using namespace ucilib;

namespace {

int setDir(uci_context* ctx, char* uci_context::*setting, const char* dir)
{
    if (!dir)
        return result(ctx, UCI_ERR_INVAL);
    char* copy = strdup(dir);
    if (!copy)
        return result(ctx, UCI_ERR_MEM);
    free(ctx->*setting);
    ctx->*setting = copy;
    return result(ctx, UCI_OK);
}

} // namespace

struct uci_context* uci_alloc_context(void)
{
    auto* ctx = static_cast<uci_context*>(calloc(1, sizeof(uci_context)));
    if (!ctx)
        return nullptr;
    listInit(ctx->root);
    if (uci_set_confdir(ctx, UCI_CONFDIR) != UCI_OK || uci_set_savedir(ctx, UCI_SAVEDIR) != UCI_OK) {
        uci_free_context(ctx);
        return nullptr;
    }
    return ctx;
}

void uci_free_context(struct uci_context* ctx)
{
    if (!ctx)
        return;
    uci_element *e = nullptr, *next = nullptr;
    uci_foreach_element_safe (&ctx->root, next, e) {
        freePackage(recordOf<uci_package>(e));
    }
    free(ctx->confdir);
    free(ctx->savedir);
    free(ctx);
}

int uci_set_confdir(struct uci_context* ctx, const char* dir)
{
    return setDir(ctx, &uci_context::confdir, dir);
}

int uci_set_savedir(struct uci_context* ctx, const char* dir)
{
    return setDir(ctx, &uci_context::savedir, dir);
}
