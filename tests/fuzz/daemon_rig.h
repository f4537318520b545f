// The daemon in one process, from its start-up to its end, without threads, clock, devices or bus: motors and what
// surrounds the handlers are fakes, the configuration store is the real one in a folder in memory.
#pragma once

#include "core/motion.h"
#include "fuzz.h"
#include "motor/motor_device.h"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// Packages by name with the text of their files.
using Settings = std::map<std::string, std::string>;

class DaemonRig {
public:
    /// What the motors report of themselves at start.
    MotorCapability capability[AXIS_COUNT] = {{300, 8, 3000, {}}, {122, 8, 1220, {}}};

    /// Starts the daemon on these packages (of those left out, the defaults that it is delivered with), runs `inside`
    /// in the place of its event loop, and ends it. @return what PtzdInit returned; -1 also when it never got to the
    /// loop.
    int32_t run(const Settings& settings, const std::function<void()>& inside);

    /// Runs the worker threads that were started, one after the other, each for a limited time.
    static void runWorkers();

    /// Lets the armed one of the four timers (0..3) expire.
    static void expire(unsigned timer);

    /// Calls a method, by its place in the object's table, with a message's attributes, and checks that it answers
    /// exactly once, with a whole blobmsg. @return the reply's code; 0 for a reply without one.
    static int32_t call(unsigned method, Bytes attributes);
    static int32_t call(const char* method, Bytes attributes);
    [[nodiscard]] static unsigned methodCount();
    [[nodiscard]] static std::string methodName(unsigned method);

    /// The file of a package as it is stored, and its replacement by others.
    [[nodiscard]] static std::string stored(const std::string& package);
    static void store(const std::string& package, const std::string& text);

    /// Checks what must hold at any time: the map of the presets names enabled slots that carry the id.
    static void checkPresetMap();

    /// Checks that the preset table is consistent and exactly what is stored.
    static void checkPresetsStored();
};

/// Attributes of a message, made of an input by its first byte: as they are, from JSON text, or from JSON text and then
/// damaged. Empty, without a value, when the text is no JSON object.
std::optional<std::vector<uint8_t>> messageFrom(Input input);

/// The attributes of a JSON object; without a value as above.
std::optional<std::vector<uint8_t>> messageOf(const std::string& json);
