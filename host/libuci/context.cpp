/// Contexts and their directories.
#include "file.h"

#include <algorithm>
#include <cstring>
#include <dirent.h>

using namespace ucilib;

namespace {

int setDir(uci_context* ctx, char*& setting, const char* dir)
{
    char* copy = dir ? strdup(dir) : nullptr;
    if (dir && !copy)
        return result(ctx, UCI_ERR_MEM);
    free(setting);
    setting = copy;
    return result(ctx, UCI_OK);
}

// Appends the names of a directory's packages, each with a NUL behind it; false when there is no directory.
bool listPackages(const char* dir, Text& names, size_t& count)
{
    DIR* listing = opendir(dir);
    if (!listing)
        return false;
    while (const dirent* entry = readdir(listing)) {
        if (!validPackageName(entry->d_name))
            continue;
        const OwnedText path = joinPath(dir, entry->d_name);
        if (!path || !isRegularFile(path.get()))
            continue;
        names << std::string_view(entry->d_name, strlen(entry->d_name) + 1);
        ++count;
    }
    closedir(listing);
    return true;
}

} // namespace

struct uci_context* uci_alloc_context(void)
{
    auto* ctx = static_cast<uci_context*>(calloc(1, sizeof(uci_context)));
    if (!ctx)
        return nullptr;
    listInit(ctx->root);
    listInit(ctx->delta_path);
    if (uci_set_confdir(ctx, UCI_CONFDIR) != UCI_OK || uci_set_savedir(ctx, UCI_SAVEDIR) != UCI_OK ||
        uci_set_conf2dir(ctx, UCI_CONF2DIR) != UCI_OK || uci_add_delta_path(ctx, UCI_SAVEDIR) != UCI_OK) {
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
    uci_foreach_element_safe (&ctx->delta_path, next, e) {
        freeItem(e);
    }
    free(ctx->confdir);
    free(ctx->conf2dir);
    free(ctx->savedir);
    free(ctx);
}

int uci_set_confdir(struct uci_context* ctx, const char* dir)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    return dir ? setDir(ctx, ctx->confdir, dir) : result(ctx, UCI_ERR_INVAL);
}

int uci_set_savedir(struct uci_context* ctx, const char* dir)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    return dir ? setDir(ctx, ctx->savedir, dir) : result(ctx, UCI_ERR_INVAL);
}

int uci_set_conf2dir(struct uci_context* ctx, const char* dir)
{
    return ctx ? setDir(ctx, ctx->conf2dir, dir) : int(UCI_ERR_INVAL);
}

int uci_add_delta_path(struct uci_context* ctx, const char* dir)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    if (!dir)
        return result(ctx, UCI_ERR_INVAL);
    if (findElement(ctx->delta_path, dir))
        return result(ctx, UCI_ERR_DUPLICATE);
    uci_element* path = newItem(UCI_TYPE_PATH, dir);
    if (!path)
        return result(ctx, UCI_ERR_MEM);
    listInsertBefore(ctx->delta_path, path->list);
    return result(ctx, UCI_OK);
}

int uci_list_configs(struct uci_context* ctx, char*** list)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    if (!list)
        return result(ctx, UCI_ERR_INVAL);
    Text names;
    size_t count = 0;
    if (!listPackages(ctx->confdir, names, count))
        return result(ctx, UCI_ERR_NOTFOUND);
    if (ctx->conf2dir)
        (void)listPackages(ctx->conf2dir, names, count); // usually there is none
    const std::string_view all = names.view();
    const size_t tableSize = (count + 1) * sizeof(char*);
    auto* table = names.failed() ? nullptr : static_cast<char**>(malloc(tableSize + all.size()));
    if (!table)
        return result(ctx, UCI_ERR_MEM);

    char* name = reinterpret_cast<char*>(table) + tableSize;
    std::copy(all.begin(), all.end(), name);
    for (size_t i = 0; i < count; ++i, name += strlen(name) + 1)
        table[i] = name;
    std::sort(table, table + count, [](const char* a, const char* b) { return strcmp(a, b) < 0; });
    *std::unique(table, table + count, [](const char* a, const char* b) { return strcmp(a, b) == 0; }) = nullptr;
    *list = table;
    return result(ctx, UCI_OK);
}
