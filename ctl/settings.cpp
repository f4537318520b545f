#include "settings.h"

#include "command.h"

#include "core/owned.h"

#include <stdio.h>
#include <uci.h>

namespace {

/// Ends by the store's last error.
[[noreturn]] void dieOfStore(uci_context* context, const char* doing, const char* package)
{
    char* text = nullptr;
    uci_get_errorstr(context, &text, nullptr);
    die(EXIT_OTHER, "cannot %s /etc/config/%s: %s (are you root?)", doing, package, text ? text : "out of memory");
}

struct FreeContext {
    void operator()(uci_context* context) const
    {
        uci_free_context(context);
    }
};
using Context = std::unique_ptr<uci_context, FreeContext>;

/// "package.section=type" or "package.section.option=value".
void change(uci_context* context, const SettingPlace& place, const char* option, const char* value)
{
    char key[256];
    (void)snprintf(key, sizeof(key), "%s.%s%s%s=%s", place.package, place.section, option ? "." : "",
                   option ? option : "", value);
    uci_ptr ptr{};
    if (uci_lookup_ptr(context, &ptr, key, false) != UCI_OK || uci_set(context, &ptr) != UCI_OK)
        dieOfStore(context, "change", place.package); // in memory only, so far
}

} // namespace

SettingsReader::SettingsReader(const char* package) : context_(uci_alloc_context())
{
    if (!context_)
        die(EXIT_OTHER, "out of memory");
    if (uci_load(context_, package, &package_) != UCI_OK)
        dieOfStore(context_, "read", package);
}

SettingsReader::~SettingsReader()
{
    uci_free_context(context_);
}

bool SettingsReader::hasSection(const char* section) const
{
    return uci_lookup_section(context_, package_, section) != nullptr;
}

const char* SettingsReader::value(const char* section, const char* option) const
{
    uci_section* found = uci_lookup_section(context_, package_, section);
    return found ? uci_lookup_option_string(context_, found, option) : nullptr;
}

SettingText settingOr(const SettingPlace& place, const char* option, const char* otherwise)
{
    const Context context(uci_alloc_context());
    uci_package* package = nullptr;
    const char* value = nullptr;
    if (context && uci_load(context.get(), place.package, &package) == UCI_OK)
        if (uci_section* section = uci_lookup_section(context.get(), package, place.section))
            value = uci_lookup_option_string(context.get(), section, option);
    SettingText setting{};
    (void)snprintf(setting.text, sizeof(setting.text), "%s", value ? value : otherwise);
    return setting;
}

void storeSettings(const SettingPlace& place, std::span<const Setting> settings)
{
    const Context context(uci_alloc_context());
    uci_package* package = nullptr;
    if (!context)
        die(EXIT_OTHER, "out of memory");
    if (uci_load(context.get(), place.package, &package) != UCI_OK)
        dieOfStore(context.get(), "read", place.package);
    if (!uci_lookup_section(context.get(), package, place.section))
        change(context.get(), place, nullptr, place.type);
    for (const Setting& setting : settings)
        change(context.get(), place, setting.option, setting.value);
    if (uci_commit(context.get(), &package, false) != UCI_OK)
        dieOfStore(context.get(), "store", place.package);
}

const int32_t (&flipSigns())[AXIS_COUNT]
{
    const char flip =
        settingOr({"image", "switch", "switch"}, "flip_type", "off").text[0]; // the daemon takes any prefix
    return FlipSignTable[flip == 'l' ? 1 : flip == 'u' ? 2 : flip == 'c' ? 3 : 0];
}

CoordRange tiltLimits()
{
    const CoordRange upright = CoordLimits[TILT];
    return flipSigns()[TILT] < 0 ? CoordRange{-upright.high, -upright.low} : upright;
}
