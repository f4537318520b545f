// The daemon's settings that no method writes: read and stored in its packages, for its reload methods to read.
#pragma once

#include "motor/coordinates.h"

#include <stddef.h>

#include <span>

/// A section of a package, which is created with its type when it is missing.
struct SettingPlace {
    const char* package;
    const char* section;
    const char* type;
};

struct Setting {
    const char* option;
    const char* value;
};

inline constexpr SettingPlace TOUR_INFO = {"tour", "tour_info", "tour"};

/// What reads one package; `die` when it cannot be read. A text lives until the next reader is made.
class SettingsReader {
public:
    explicit SettingsReader(const char* package);
    ~SettingsReader();
    SettingsReader(const SettingsReader&) = delete;
    SettingsReader& operator=(const SettingsReader&) = delete;

    /// An option's text, or null when it, or its section, is missing.
    [[nodiscard]] const char* value(const char* section, const char* option) const;
    [[nodiscard]] bool hasSection(const char* section) const;

private:
    struct uci_context* context_;
    struct uci_package* package_ = nullptr;
};

/// An option's text, or the other one when it is missing or cannot be read.
struct SettingText {
    char text[64];
};
[[nodiscard]] SettingText settingOr(const SettingPlace& place, const char* option, const char* otherwise);

/// Stores values, all of them or none, durably; `die` when that fails.
void storeSettings(const SettingPlace& place, std::span<const Setting> settings);

/// The signs of both axes' coordinates under the stored image flip.
[[nodiscard]] const int32_t (&flipSigns())[AXIS_COUNT];

/// What `moveTo` accepts for tilt under the stored image flip.
[[nodiscard]] CoordRange tiltLimits();
