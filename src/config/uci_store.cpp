#include "config/uci_store.h"

#include "config/uci_internal.h"
#include "core/log.h"

// The analysis cannot see that the destructor follows the constructor.
UciTransaction::UciTransaction(UciPackageId id) NO_THREAD_SAFETY_ANALYSIS : id_(id)
{
    gContext.config.ConfigStoreLock.lock();
    if (gContext.config.uciContext && !loadedPackage(id))
        cfg_uci_pkg_reload(id); // a file that was damaged for a while must not cost every later save
}

UciTransaction::~UciTransaction() NO_THREAD_SAFETY_ANALYSIS
{
    gContext.config.ConfigStoreLock.unlock();
}

int32_t cfg_uci_init()
{
    RecursiveLockGuard hold(gContext.config.ConfigStoreLock);
    cfg_uci_deinit();
    gContext.config.uciContext = uci_alloc_context();
    if (!gContext.config.uciContext)
        return CFG_UCI_FAILED;
    for (UciPackage& package : gContext.config.uciPackages) {
        package.handle = cfg_uci_pkg_init(package.name);
        if (!package.handle)
            return CFG_UCI_FAILED;
    }
    return 0;
}

void cfg_uci_deinit()
{
    RecursiveLockGuard hold(gContext.config.ConfigStoreLock);
    if (!gContext.config.uciContext)
        return;
    uci_free_context(gContext.config.uciContext);
    gContext.config.uciContext = nullptr;
    for (UciPackage& package : gContext.config.uciPackages)
        package.handle = nullptr;
}

uci_package* cfg_uci_pkg_init(const char* name)
{
    RecursiveLockGuard hold(gContext.config.ConfigStoreLock);
    uci_context* context = gContext.config.uciContext;
    if (!context || !name)
        return nullptr;
    if (uci_package* loaded = uci_lookup_package(context, name)) {
        LOG_TRACE("unload package %s\n", name);
        uci_unload(context, loaded);
    }
    uci_package* package = nullptr;
    if (uci_load(context, name, &package) != UCI_OK) {
        LOG_ERROR("error to load package %s\n", name);
        return nullptr;
    }
    LOG_TRACE("success to load package %s\n", name);
    return package;
}

int32_t cfg_uci_pkg_reload(int32_t id)
{
    RecursiveLockGuard hold(gContext.config.ConfigStoreLock);
    if (id < 0 || id >= UCI_PACKAGE_COUNT)
        return CFG_UCI_FAILED;
    UciPackage& package = gContext.config.uciPackages[id];
    package.handle = cfg_uci_pkg_init(package.name);
    return package.handle ? 0 : CFG_UCI_FAILED;
}

int32_t cfg_uci_commit(int32_t id)
{
    RecursiveLockGuard hold(gContext.config.ConfigStoreLock);
    uci_package* loaded = loadedPackage(id);
    if (!loaded)
        return CFG_UCI_FAILED;
    uci_context* context = gContext.config.uciContext;
    UciPackage& package = gContext.config.uciPackages[id];
    if (uci_save(context, loaded) != UCI_OK) {
        LOG_ERROR("error to save uci package\n");
        return CFG_UCI_FAILED;
    }
    // A commit loads the package anew and moves the handle, and a failed one may leave it dangling.
    if (uci_commit(context, &package.handle, false) != UCI_OK) {
        LOG_ERROR("error to comit uci package\n");
        package.handle = uci_lookup_package(context, package.name);
        if (!package.handle)
            package.handle = cfg_uci_pkg_init(package.name);
        return CFG_UCI_FAILED;
    }
    return 0;
}

uci_package* loadedPackage(int32_t id)
{
    if (id < 0 || id >= UCI_PACKAGE_COUNT || !gContext.config.uciContext)
        return nullptr;
    return gContext.config.uciPackages[id].handle;
}

uci_section* cfg_uci_get_section(int32_t id, const char* section)
{
    RecursiveLockGuard hold(gContext.config.ConfigStoreLock);
    uci_package* package = loadedPackage(id);
    if (!package || !section)
        return nullptr;
    return uci_lookup_section(gContext.config.uciContext, package, section);
}

uci_section* sectionOf(int32_t id, const char* section)
{
    uci_section* found = cfg_uci_get_section(id, section);
    if (!found && loadedPackage(id) && section)
        LOG_AT(LOG_LEVEL_MISS, "section %s.%s not found\n", gContext.config.uciPackages[id].name, section);
    return found;
}

uci_option* cfg_uci_get_option(int32_t id, const char* section, const char* option)
{
    RecursiveLockGuard hold(gContext.config.ConfigStoreLock);
    if (!section || !option)
        return nullptr;
    uci_section* found = sectionOf(id, section);
    return found ? uci_lookup_option(gContext.config.uciContext, found, option) : nullptr;
}
