#include "presets.h"

#include "settings.h"
#include "wait.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

namespace {

/// The texts of an array, up to as many as there are presets.
size_t textsOf(blob_attr* table, const char* name, const char* (&texts)[PRESET_COUNT])
{
    size_t count = 0;
    blob_attr* array = fieldOf(table, name, BLOBMSG_TYPE_ARRAY);
    blob_attr* element = nullptr;
    size_t rest = 0;
    if (!array)
        return 0;
    blobmsg_for_each_attr (element, array, rest) {
        if (count < PRESET_COUNT && blobmsg_type(element) == BLOBMSG_TYPE_STRING && blobmsg_check_attr(element, false))
            texts[count++] = blobmsg_get_string(element);
    }
    return count;
}

/// A position from -1 to 1 over the travel as the coordinate that getStatus shows there: it cuts what is behind the
/// point of the distance from the travel's lower end.
int32_t coordinate(const char* position, const char* travelEnd, int32_t flipSign)
{
    constexpr double PRINTED = 0.001; // more than the digits that the position was printed without
    const double half = strtod(travelEnd, nullptr);
    return flipSign * (rounded((strtod(position, nullptr) + 1) * half + PRINTED - 0.5) - rounded(half));
}

int32_t presetNumber(const char* text)
{
    return integerArgument(text, 1, PRESET_COUNT, "a preset");
}

} // namespace

PresetList readPresets()
{
    Message nothing;
    const Reply capa = callMethod("getCapa", nothing);
    blob_attr* capability = fieldOf(capa.fields.get(), "capability", BLOBMSG_TYPE_TABLE);
    const char* panEnd = textOf(capability, "x_coord_max", "0");
    const char* tiltEnd = textOf(capability, "y_coord_max", "0");
    PresetList list{};
    list.reply = callMethod("getPresetAll", nothing);
    dieUnlessDone(list.reply.code);
    blob_attr* fields = list.reply.fields.get();
    const char* ids[PRESET_COUNT];
    const char* names[PRESET_COUNT];
    const char* pans[PRESET_COUNT];
    const char* tilts[PRESET_COUNT];
    list.count = textsOf(fields, "id", ids);
    if (textsOf(fields, "name", names) != list.count || textsOf(fields, "position_pan", pans) != list.count ||
        textsOf(fields, "position_tilt", tilts) != list.count)
        die(EXIT_OTHER, "ptzd's list of presets makes no sense: install the one that ptzctl came with");
    const auto& signs = flipSigns();
    for (size_t i = 0; i < list.count; ++i)
        list.presets[i] = {static_cast<int32_t>(strtol(ids[i], nullptr, 10)), coordinate(pans[i], panEnd, signs[PAN]),
                           coordinate(tilts[i], tiltEnd, signs[TILT]), names[i]};
    return list;
}

void listPresets(Arguments)
{
    if (options().json) {
        command("getPresetAll");
        return;
    }
    const PresetList list = readPresets();
    for (const PresetNow& preset : std::span(list.presets, list.count))
        printf("%d  pan %4d  tilt %4d  %s\n", preset.id, preset.x, preset.y, preset.name);
}

void goToPreset(Arguments arguments)
{
    Message message;
    message.number("id", presetNumber(arguments[0]));
    double speed = 0;
    if (arguments.size() > 1) {
        if (!parseDecimal(arguments[1], 1e-6, 1, speed))
            die(EXIT_USAGE, "SPEED is a fraction of the full speed, above 0 and at most 1, not \"%s\"", arguments[1]);
        message.text("speed_pan", arguments[1]).text("speed_tilt", arguments[1]);
    }
    moveHead("gotoPreset", message);
}

void setPreset(Arguments arguments)
{
    Message message;
    if (strcasecmp(arguments[0], "new") != 0)
        message.number("id", presetNumber(arguments[0]));
    if (arguments.size() > 1) {
        if (strlen(arguments[1]) >= PRESET_NAME_SIZE)
            die(EXIT_USAGE, "a preset's name has at most %d bytes, this one has %zu", PRESET_NAME_SIZE - 1,
                strlen(arguments[1]));
        message.text("name", arguments[1]);
    }
    const Reply reply = command("setPreset", message.text("save_ptz", "1"));
    if (!options().json)
        printf("preset %s is \"%s\"\n", textOf(reply.fields.get(), "id", "?"), textOf(reply.fields.get(), "name", ""));
}

void deletePresets(Arguments arguments)
{
    if (strcasecmp(arguments[0], "all") == 0) {
        if (arguments.size() > 1)
            die(EXIT_USAGE, "either all, or numbers of presets");
        command("clearPreset");
        return;
    }
    Message message;
    void* ids = blobmsg_open_array(message.buffer(), "id");
    for (const char* argument : arguments) {
        (void)presetNumber(argument);
        message.text(nullptr, argument);
    }
    blobmsg_close_array(message.buffer(), ids);
    command("delPreset", message);
}
