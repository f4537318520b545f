// The model's presets and plan.

#include "head_model.h"

#include <cctype>
#include <cstdlib>

namespace {

/// A JSON text's length in bytes and whether the store can hold it as a name.
size_t lengthOf(const std::string& json, bool& storable)
{
    size_t length = 0;
    storable = true;
    for (size_t i = 0; i < json.size(); ++i, ++length) {
        if (json[i] != '\\')
            continue;
        const char escaped = json[++i];
        i += escaped == 'u' ? 4 : 0;
        storable = storable && (escaped == '"' || escaped == '\\' || escaped == 't' || escaped == 'r');
    }
    return length;
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
            if (!inNumber)
                result.push_back(0);
            inNumber = true;
            result.back() = std::min<int64_t>(result.back() * 10 + (letter - '0'), INT32_MAX);
        }
    }
    result.resize(std::min<size_t>(result.size(), 8));
    return result;
}

/// A free slot may still hold the name of the preset that it had.
std::string nameIn(const std::string& reply)
{
    const size_t from = reply.find("\"name\":\"");
    const size_t to = reply.find("\",\"id\":");
    return from != 0 && from != 1 ? "" : reply.substr(from + 8, to - from - 8);
}

} // namespace

int32_t HeadModel::presetSteps(LabAxisId axis, const PresetSlot& preset, const Reading& reading) const
{
    const float position = axis == LAB_PAN ? preset.pan : preset.tilt;
    const float target = (position + 1.0F) * static_cast<float>(axes[axis].made.total_steps) * 0.5F;
    return static_cast<int32_t>(target - static_cast<float>(reading.position()));
}

Code HeadModel::setFactor(const std::optional<std::string>& text, LabAxisId axis)
{
    char* end = nullptr;
    const std::string given = text.value_or("1");
    const float factor = static_cast<float>(strtod(given.c_str(), &end));
    if (*end != '\0')
        return CODE_PARAM;
    if (!(factor > 0 && factor <= 1))
        return CODE_FACTOR;
    world.factors[axis] = factor;
    return CODE_OK;
}

Code HeadModel::gotoPreset(const Step& step)
{
    const int64_t id = number(step.argument("id").value_or("0"));
    if (id < 1 || id > 8)
        return CODE_PARAM;
    const PresetSlot* preset = presetWithId(world.presets, id);
    if (!preset)
        return CODE_PRESET;
    if (const Code code = setFactor(step.argument("speed_pan"), LAB_PAN))
        return code;
    if (const Code code = setFactor(step.argument("speed_tilt"), LAB_TILT))
        return code;
    if (const Code code = busy())
        return code;
    if (!readStatus() || (running() && !halt()))
        return CODE_DEVICE;
    begin(Begin::PRESET);
    const auto words = [&](LabAxisId axis) {
        const float speed = static_cast<float>(axes[axis].made.max_speed) * world.factors[axis];
        return command(axis, static_cast<int32_t>(speed), presetSteps(axis, *preset, readings_[axis]), false);
    };
    const Code code = drive(words(LAB_PAN), words(LAB_TILT));
    if (code == CODE_OK)
        armSave();
    return code;
}

/// What is stored takes the place of all that the package holds, changes that nobody has committed included.
/// What the daemon reads is what it has stored, with the digits that it stores.
void HeadModel::readPresets()
{
    world.presets = storedPresets;
    for (size_t i = 0; i < world.presets.size(); ++i) {
        PresetSlot& slot = world.presets[i];
        for (float* position : {&slot.pan, &slot.tilt})
            *position = strtof(std::to_string(*position).c_str(), nullptr);
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

Code HeadModel::capture(PresetSlot& slot)
{
    if (!readStatus())
        return CODE_DEVICE;
    if (running())
        return CODE_MOVING;
    const auto of = [&](LabAxisId axis) {
        return static_cast<float>(2.0 * position(axis) / axes[axis].made.total_steps - 1.0);
    };
    slot.pan = of(LAB_PAN);
    slot.tilt = of(LAB_TILT);
    return CODE_OK;
}

Code HeadModel::setPreset(const Step& step)
{
    if (mask_ || panorama_)
        return mask_ ? CODE_LENS_MASK : CODE_PANORAMA;
    int64_t id = number(step.argument("id").value_or("1"));
    if (id < 1 || id > 8)
        return CODE_PRESET;
    const int64_t capturing = number(step.argument("save_ptz").value_or("0"));
    if (capturing != 0 && capturing != 1)
        return CODE_PARAM;
    const auto name = step.argument("name");
    bool storable = true;
    if (name && lengthOf(*name, storable) > 32)
        return CODE_NAME;
    if (name && name->find("\\n") != std::string::npos)
        return CODE_PARAM;
    while (!step.argument("id") && id <= 8 && presetWithId(world.presets, id))
        ++id;
    PresetSlot* slot = id > 8 ? nullptr : presetWithId(world.presets, id);
    for (PresetSlot& other : world.presets)
        slot = !slot && id <= 8 && other.id == 0 ? &other : slot;
    if (!slot)
        return CODE_FULL;
    PresetSlot changed = slot->id != 0 ? *slot : PresetSlot{0, "preset" + std::to_string(id), 0, 0};
    changed.id = static_cast<int>(id);
    changed.name = name.value_or(changed.name);
    if (const Code code = capturing == 1 ? capture(changed) : CODE_OK)
        return code;
    if (!storable) {
        readPresets();
        motions.clearPreset();
        fields_ =
            "\"name\":\"" + (slot->id != 0 ? slot->name : nameIn(reply_)) + "\",\"id\":\"" + std::to_string(id) + "\",";
        return CODE_DEVICE;
    }
    *slot = changed;
    savePresets();
    fields_ = "\"name\":\"" + changed.name + "\",\"id\":\"" + std::to_string(id) + "\",";
    return CODE_OK;
}

Code HeadModel::delPreset(const Step& step)
{
    const std::vector<int64_t> ids = numbersIn(step.array("id").value_or(""));
    if (ids.empty())
        return CODE_PARAM;
    for (const int64_t id : ids) {
        if (id < 1 || id > 8)
            return CODE_PARAM; // those before are gone, until a restart
        if (PresetSlot* slot = presetWithId(world.presets, id))
            *slot = {};
    }
    std::stable_partition(world.presets.begin(), world.presets.end(), [](const PresetSlot& s) { return s.id != 0; });
    savePresets();
    for (auto& [day, ranges] : pendingPlan_)
        for (PlanRange& range : ranges)
            if (range.action == 'p' && std::find(ids.begin(), ids.end(), range.id) != ids.end())
                range.valid = false;
    savePendingPlan();
    return CODE_OK;
}

Code HeadModel::clearPreset()
{
    world.presets = {};
    savePresets();
    for (auto& [day, ranges] : pendingPlan_)
        for (PlanRange& range : ranges)
            range.valid = false;
    savePendingPlan();
    return CODE_OK;
}

/// A plan that was refused stays as far as it was read, and is stored when presets are deleted.
Code HeadModel::setPlan(const Step& step)
{
    pendingPlan_.clear();
    for (int day = 0; day < DAYS; ++day) {
        const auto text = step.array(DAY_NAMES[day]);
        if (!text)
            continue;
        const std::vector<PlanRange> ranges = planRanges(*text);
        std::vector<PlanRange>& table = pendingPlan_[day];
        if (ranges.size() > 10)
            return CODE_PLAN;
        for (const PlanRange& range : ranges) {
            table.push_back(range);
            if (range.action != '?')
                continue;
            table.back().action = '-';
            return CODE_PLAN;
        }
    }
    for (const auto& [day, ranges] : pendingPlan_)
        if (!fits(ranges))
            return CODE_PLAN;
    savePendingPlan();
    return CODE_OK;
}

void HeadModel::savePendingPlan()
{
    Plan plan = world.plans.back();
    for (const auto& [day, ranges] : pendingPlan_)
        plan[day] = ranges;
    world.plans.push_back(plan);
}

std::string HeadModel::presetList() const
{
    std::string lists[5];
    for (const PresetSlot& slot : world.presets) {
        if (slot.id == 0)
            continue;
        const std::string texts[5] = {std::to_string(slot.id), slot.name, "0", std::to_string(slot.pan),
                                      std::to_string(slot.tilt)};
        for (int i = 0; i < 5; ++i)
            lists[i] += (lists[i].empty() ? "\"" : ",\"") + texts[i] + "\"";
    }
    return "{\"id\":[" + lists[0] + "],\"name\":[" + lists[1] + "],\"read_only\":[" + lists[2] +
           "],\"position_pan\":[" + lists[3] + "],\"position_tilt\":[" + lists[4] + "],\"error_code\":0}";
}
