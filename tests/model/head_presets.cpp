// The model's presets and plan.

#include "head_model.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <utility>

namespace {

constexpr const char* DAY_NAMES[DAYS] = {"sunday", "monday", "tuesday", "wednesday", "thursday", "friday", "saturday"};

std::string quoted(const std::string& text)
{
    const Json json(json_object_new_string(text.c_str()));
    return json_object_to_json_string_ext(json.get(), JSON_C_TO_STRING_NOSLASHESCAPE);
}

/// The numbers in a text: digits, ended by a comma; everything else is passed over. Eight at most.
std::vector<int64_t> numbersIn(const std::string& text)
{
    std::vector<int64_t> result;
    bool inNumber = false;
    for (const char letter : text) {
        if (letter == ',') {
            inNumber = false;
        } else if (isdigit(static_cast<unsigned char>(letter))) {
            if (!std::exchange(inNumber, true))
                result.push_back(0);
            result.back() = std::min<int64_t>(result.back() * 10 + (letter - '0'), INT32_MAX);
        }
    }
    result.resize(std::min<size_t>(result.size(), 8));
    return result;
}

} // namespace

int64_t HeadModel::presetSteps(LabAxisId axis, const PresetSlot& preset, int64_t position) const
{
    const float target = (preset.position[axis] + 1.0F) * static_cast<float>(axes[axis].made.total_steps) * 0.5F;
    return static_cast<int64_t>(target - static_cast<float>(position));
}

void HeadModel::setFactor(const Step& step, const char* argument, LabAxisId axis)
{
    char* end = nullptr;
    const std::string given = step.argument(argument).value_or("1");
    const float factor = static_cast<float>(strtod(given.c_str(), &end));
    refuse(*end != '\0', CODE_PARAM);
    refuse(!(factor > 0 && factor <= 1), CODE_FACTOR);
    world.factors[axis] = factor;
}

void HeadModel::gotoPreset(const Step& step)
{
    const int64_t id = number(step.argument("id").value_or("0"));
    refuse(id < 1 || id > 8, CODE_PARAM);
    const PresetSlot* preset = presetWithId(world.presets, id);
    refuse(!preset, CODE_PRESET);
    setFactor(step, "speed_pan", LAB_PAN);
    setFactor(step, "speed_tilt", LAB_TILT);
    refuseBusy();
    look();
    haltIfRunning();
    const Pair speeds = forEach([&](LabAxisId axis) {
        return static_cast<int64_t>(static_cast<float>(axes[axis].made.max_speed) * world.factors[axis]);
    });
    const Pair steps = forEach([&](LabAxisId axis) { return presetSteps(axis, *preset, position(axis)); });
    refuse(!go(Begin::PRESET, speeds, steps), CODE_DEVICE);
    armSave();
}

/// What is stored takes the place of all that the package holds, changes that nobody has committed included.
/// What the daemon reads is what it has stored, with the digits that it stores.
void HeadModel::readPresets()
{
    world.presets = storedPresets;
    for (size_t i = 0; i < world.presets.size(); ++i) {
        PresetSlot& slot = world.presets[i];
        for (float& position : slot.position)
            position = strtof(std::to_string(position).c_str(), nullptr);
        if (slot.id != 0 && slot.name.empty())
            slot.name = "preset_" + std::to_string(i + 1);
    }
    for (ModelAxis& axis : axes)
        axis.speedOption = axis.speedInFile;
}

void HeadModel::savePresets()
{
    storedPresets = world.presets;
    for (ModelAxis& axis : axes)
        axis.speedOption = axis.speedInFile;
}

void HeadModel::setPreset(const Step& step)
{
    refuse(mask_, CODE_LENS_MASK);
    refuse(panorama_, CODE_PANORAMA);
    int64_t id = number(step.argument("id").value_or("1"));
    refuse(id < 1 || id > 8, CODE_PRESET);
    const int64_t captures = number(step.argument("save_ptz").value_or("0"));
    refuse(captures != 0 && captures != 1, CODE_PARAM);
    const auto name = step.argument("name");
    refuse(name.value_or("").size() > 32, CODE_NAME);
    refuse(name.value_or("").find('\n') != std::string::npos, CODE_PARAM);
    while (!step.argument("id") && id <= 8 && presetWithId(world.presets, id))
        ++id;
    PresetSlot* slot = presetWithId(world.presets, id);
    for (PresetSlot& other : world.presets)
        slot = !slot && id <= 8 && other.id == 0 ? &other : slot;
    refuse(!slot, CODE_FULL);
    PresetSlot changed = slot->id != 0 ? *slot : PresetSlot{0, "preset" + std::to_string(id), {}};
    changed.id = static_cast<int>(id);
    changed.name = name.value_or(changed.name);
    if (captures == 1) {
        look();
        refuse(running(), CODE_MOVING);
        for (const LabAxisId axis : AXES)
            changed.position[axis] =
                static_cast<float>(2.0 * static_cast<double>(position(axis)) / axes[axis].made.total_steps - 1.0);
    }
    const std::string answeredId = ",\"id\":\"" + std::to_string(id) + "\",";
    const auto isUnstorable = [](char letter) {
        return letter > 0 && letter < ' ' && letter != '\t' && letter != '\r';
    };
    if (std::any_of(changed.name.begin(), changed.name.end(), isUnstorable)) {
        readPresets();
        motions.change([](MotionState& state) { state.preset = 0; }); // a preset tour sends the head once more
        // A free slot may still hold the name of the preset that it had.
        const std::string free = reply_.substr(0, reply_.find(answeredId)).substr(1);
        before_ = (slot->id != 0 ? "\"name\":" + quoted(slot->name) : free) + answeredId;
        throw Refusal{CODE_DEVICE};
    }
    *slot = changed;
    savePresets();
    before_ = "\"name\":" + quoted(changed.name) + answeredId;
}

void HeadModel::delPreset(const Step& step)
{
    const Json array = step.array("id");
    const std::vector<int64_t> ids = numbersIn(array ? json_object_to_json_string(array.get()) : "");
    refuse(ids.empty(), CODE_PARAM);
    for (const int64_t id : ids) {
        refuse(id < 1 || id > 8, CODE_PARAM); // those before are gone, until a restart
        if (PresetSlot* slot = presetWithId(world.presets, id))
            *slot = {};
    }
    std::stable_partition(world.presets.begin(), world.presets.end(), [](const auto& slot) { return slot.id != 0; });
    savePresets();
    savePendingPlan([&](const PlanRange& range) {
        return range.action == "preset" && std::find(ids.begin(), ids.end(), range.id) != ids.end();
    });
}

void HeadModel::clearPreset(const Step&)
{
    world.presets = {};
    savePresets();
    savePendingPlan([](const PlanRange&) { return true; });
}

/// A plan that was refused remains as far as it was read, and is stored when presets are deleted.
void HeadModel::setPlan(const Step& step)
{
    pendingPlan_.clear();
    for (int day = 0; day < DAYS; ++day) {
        const Json array = step.array(DAY_NAMES[day]);
        if (!array)
            continue;
        std::vector<PlanRange>& table = pendingPlan_[day];
        refuse(json_object_array_length(array.get()) > 10, CODE_PLAN);
        for (const PlanRange& range : planRanges(array.get())) {
            table.push_back(range);
            refuse(range.action != "preset" && range.action != "disable", CODE_PLAN);
        }
    }
    for (const auto& [day, ranges] : pendingPlan_)
        refuse(!fits(ranges), CODE_PLAN);
    savePendingPlan([](const PlanRange&) { return false; });
}

void HeadModel::savePendingPlan(const std::function<bool(const PlanRange&)>& isLost)
{
    Plan plan = world.plans.back();
    for (auto& [day, ranges] : pendingPlan_) {
        for (PlanRange& range : ranges)
            range.valid = range.valid && !isLost(range);
        plan[day] = ranges;
    }
    world.plans.push_back(plan);
}

void HeadModel::getPresetAll(const Step&)
{
    std::string lists[5];
    for (const PresetSlot& slot : world.presets) {
        if (slot.id == 0)
            continue;
        const std::string texts[] = {"\"" + std::to_string(slot.id) + "\"", quoted(slot.name), "\"0\"",
                                     "\"" + std::to_string(slot.position[LAB_PAN]) + "\"",
                                     "\"" + std::to_string(slot.position[LAB_TILT]) + "\""};
        for (size_t i = 0; i < std::size(texts); ++i)
            lists[i] += (lists[i].empty() ? "" : ",") + texts[i];
    }
    before_ = "\"id\":[" + lists[0] + "],\"name\":[" + lists[1] + "],\"read_only\":[" + lists[2] +
              "],\"position_pan\":[" + lists[3] + "],\"position_tilt\":[" + lists[4] + "],";
}
