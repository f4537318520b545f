// Reading: the typed getters of the configuration store.

#include "config/uci_internal.h"
#include "config/value_parsers.h"
#include "core/log.h"
#include "core/numbers.h"

#include <stdlib.h>
#include <string.h>
#include <strings.h>

namespace {

/// @param convert  one of config/value_parsers.h
template <typename T>
int32_t getNumber(int32_t id, const char* section, const char* option, T* out, int32_t (*convert)(const char*, T*))
{
    char text[1024] = "";
    if (const int32_t result = cfg_uci_get_string_value(id, section, option, text, sizeof(text)); result != 0)
        return result;
    return convert(text, out) == 0 ? 0 : CFG_UCI_FAILED;
}

/// Walks a list option, or a plain one as a list of one; the first element goes to out[0], every later one to out[1].
template <typename T>
int32_t getRange(int32_t id, const char* section, const char* option, T* out, T (*convert)(const char*))
{
    RecursiveLockGuard hold(gContext.config.ConfigStoreLock);
    const uci_option* found = out ? cfg_uci_get_option(id, section, option) : nullptr;
    if (!found) {
        const bool known = id >= 0 && id < UCI_PACKAGE_COUNT;
        LOG_AT(LOG_LEVEL_MISS, "not find %s.%s.%s\n", known ? gContext.config.uciPackages[id].name : "",
               section ? section : "", option ? option : "");
        return CFG_UCI_FAILED;
    }
    if (found->type == UCI_TYPE_STRING) {
        out[0] = convert(found->v.string);
        return 0;
    }
    int index = 0;
    uci_element* element = nullptr;
    uci_foreach_element (&found->v.list, element) {
        out[index] = convert(element->name);
        index = 1;
    }
    return 0;
}

} // namespace

int32_t cfg_uci_get_string_value(int32_t id, const char* section, const char* option, char* out, size_t size)
{
    RecursiveLockGuard hold(gContext.config.ConfigStoreLock);
    if (!section || !option || !out || size == 0)
        return CFG_UCI_FAILED;
    uci_section* found = sectionOf(id, section);
    if (!found)
        return CFG_UCI_FAILED;
    const char* text = uci_lookup_option_string(gContext.config.uciContext, found, option); // null for a list too
    if (!text) {
        LOG_AT(LOG_LEVEL_MISS, "option %s.%s.%s not found\n", gContext.config.uciPackages[id].name, section, option);
        return CFG_UCI_FAILED;
    }
    const size_t length = strnlen(text, size - 1);
    memcpy(out, text, length);
    out[length] = '\0';
    return 0;
}

int32_t cfg_uci_get_int_value(int32_t id, const char* section, const char* option, int32_t* out)
{
    return getNumber(id, section, option, out, string_to_int);
}

int32_t cfg_uci_get_long_long_value(int32_t id, const char* section, const char* option, int64_t* out)
{
    return getNumber(id, section, option, out, string_to_long_long);
}

int32_t cfg_uci_get_float_value(int32_t id, const char* section, const char* option, float* out)
{
    return getNumber(id, section, option, out, string_to_float);
}

int32_t cfg_uci_get_range_int(int32_t id, const char* section, const char* option, int32_t out[2])
{
    return getRange<int32_t>(id, section, option, out,
                             [](const char* text) { return saturated32(strtoll(text, nullptr, 10)); });
}

int32_t cfg_uci_get_range_float(int32_t id, const char* section, const char* option, float out[2])
{
    return getRange<float>(id, section, option, out,
                           [](const char* text) { return static_cast<float>(strtod(text, nullptr)); });
}

bool storedSwitchOn(UciPackageId id, const char* section)
{
    const UciTransaction transaction(id);
    char enabled[64] = "";
    cfg_uci_pkg_reload(id);
    (void)cfg_uci_get_string_value(id, section, "enabled", enabled, sizeof(enabled)); // missing: off
    return strcasecmp(enabled, "on") == 0;
}
