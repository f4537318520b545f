// Writing: every call changes the loaded package only; cfg_uci_commit makes it durable.

#include "config/uci_internal.h"

#include <inttypes.h>
#include <stdio.h>
#include <string.h>

#include <initializer_list>

namespace {

constexpr size_t UCI_KEY_SIZE = 1024;

enum class Lookup { Any, CompleteOnly };

/// Resolves a key that was built by the caller and applies `change` to what it names.
/// With CompleteOnly, a key that names nothing is no failure and changes nothing.
int32_t apply(int32_t id, char* key, int (*change)(uci_context*, uci_ptr*), Lookup lookup)
    REQUIRES(gContext.config.ConfigStoreLock)
{
    if (!loadedPackage(id))
        return CFG_UCI_FAILED;
    uci_context* context = gContext.config.uciContext;
    uci_ptr ptr{};
    const bool resolved = uci_lookup_ptr(context, &ptr, key, true) == UCI_OK;
    if (lookup == Lookup::CompleteOnly && (!resolved || (ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE) == 0))
        return 0;
    if (!resolved || change(context, &ptr) != UCI_OK)
        return CFG_UCI_FAILED;
    return 0;
}

/// Joins texts; what goes past the key's end is cut off. Not by printf, which takes as long as the rest of a change.
void join(char (&key)[UCI_KEY_SIZE], std::initializer_list<const char*> texts)
{
    size_t used = 0;
    for (const char* text : texts) {
        const size_t length = strnlen(text, sizeof(key) - 1 - used);
        memcpy(key + used, text, length);
        used += length;
    }
    key[used] = '\0';
}

/// "package.section.option=value"; a key past the buffer's end is cut there.
int32_t changeOption(int32_t id, const char* section, const char* option, const char* value,
                     int (*change)(uci_context*, uci_ptr*))
{
    RecursiveLockGuard hold(gContext.config.ConfigStoreLock);
    if (!loadedPackage(id) || !section || !option || !value)
        return CFG_UCI_FAILED;
    char key[UCI_KEY_SIZE];
    join(key, {gContext.config.uciPackages[id].name, ".", section, ".", option, "=", value});
    return apply(id, key, change, Lookup::Any);
}

/// "package.section=value"
int32_t changeSection(int32_t id, const char* section, const char* value, int (*change)(uci_context*, uci_ptr*),
                      Lookup lookup)
{
    RecursiveLockGuard hold(gContext.config.ConfigStoreLock);
    if (!loadedPackage(id) || !section || !value)
        return CFG_UCI_FAILED;
    char key[UCI_KEY_SIZE];
    join(key, {gContext.config.uciPackages[id].name, ".", section, "=", value});
    return apply(id, key, change, lookup);
}

size_t listLength(const uci_option* option)
{
    size_t length = 0;
    uci_element* element = nullptr;
    if (option->type == UCI_TYPE_LIST) {
        uci_foreach_element (&option->v.list, element) {
            ++length;
        }
    }
    return length;
}

} // namespace

int32_t cfg_uci_set_string_value(int32_t id, const char* section, const char* option, const char* text)
{
    return changeOption(id, section, option, text, uci_set);
}

int32_t cfg_uci_set_int_value(int32_t id, const char* section, const char* option, int32_t value)
{
    return cfg_uci_set_long_long_value(id, section, option, value);
}

int32_t cfg_uci_set_long_long_value(int32_t id, const char* section, const char* option, int64_t value)
{
    char text[24];
    (void)snprintf(text, sizeof(text), "%" PRId64, value);
    return cfg_uci_set_string_value(id, section, option, text);
}

int32_t cfg_uci_set_float_value(int32_t id, const char* section, const char* option, float value)
{
    char text[64]; // the longest float has 39 digits before its point
    (void)snprintf(text, sizeof(text), "%.6f", static_cast<double>(value));
    return cfg_uci_set_string_value(id, section, option, text);
}

int32_t cfg_uci_set_section(int32_t id, const char* section, const char* type)
{
    return changeSection(id, section, type, uci_set, Lookup::Any);
}

int32_t cfg_uci_delete(int32_t id, const char* section, const char* type)
{
    return changeSection(id, section, type, uci_delete, Lookup::CompleteOnly);
}

int32_t cfg_uci_add_list(int32_t id, const char* section, const char* option, const char* value)
{
    return changeOption(id, section, option, value, uci_add_list);
}

int32_t cfg_uci_del_list(int32_t id, const char* section, const char* option, const char* value)
{
    return changeOption(id, section, option, value, uci_del_list);
}

int32_t cfg_uci_clear_list(int32_t id, const char* section, const char* option)
{
    RecursiveLockGuard hold(gContext.config.ConfigStoreLock);
    // From the front each time: removing a value removes its equals too, so no element outlives a removal safely.
    const uci_option* found = cfg_uci_get_option(id, section, option);
    if (!found)
        return CFG_UCI_FAILED;
    size_t left = listLength(found);
    while (left > 0) {
        const auto* first = reinterpret_cast<const uci_element*>(found->v.list.next); // begins with its node
        const char* value = first->name;
        if (cfg_uci_del_list(id, section, option, value) != 0)
            return CFG_UCI_FAILED;
        found = cfg_uci_get_option(id, section, option);
        const size_t now = found ? listLength(found) : 0;
        if (now >= left)
            return CFG_UCI_FAILED; // a value past the key buffer's end matches nothing
        left = now;
    }
    return 0;
}
