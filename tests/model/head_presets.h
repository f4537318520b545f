#pragma once
// The model's presets and plan.

#include "head_base.h"

class HeadPresets : public HeadBase {
public:
    HeadPresets(Evidence& evidence, Files& files, const LabOptions& options, const LabAxisNow (&found)[LAB_AXIS_COUNT])
        : HeadBase(evidence, files, options, found)
    {
        readPresets();
        methods_["gotoPreset"] = [this](const Step& step) {
            const int64_t id = number(step.argument("id").value_or("0"));
            refuse(id < 1 || id > 8, CODE_PARAM);
            const PresetSlot* preset = presetWithId(world.now.presets, id);
            refuse(!preset, CODE_PRESET);
            setFactor(step, "speed_pan", LAB_PAN);
            setFactor(step, "speed_tilt", LAB_TILT);
            refuseBusy();
            look();
            haltIfRunning();
            const Pair speeds = forEach([&](LabAxisId axis) { return factoredSpeed(axis, world.now.factors); });
            const Pair steps = forEach([&](LabAxisId axis) { return presetSteps(axis, *preset, position(axis)); });
            refuse(!go(Begin::PRESET, speeds, steps), CODE_DEVICE);
            armSave();
        };
        methods_["setPreset"] = [this](const Step& step) {
            refuse(mask_, CODE_LENS_MASK);
            refuse(panorama_, CODE_PANORAMA);
            int64_t id = number(step.argument("id").value_or("1"));
            refuse(id < 1 || id > 8, CODE_PRESET);
            const int64_t captures = number(step.argument("save_ptz").value_or("0"));
            refuse(captures != 0 && captures != 1, CODE_PARAM);
            while (!step.argument("id") && id <= 8 && presetWithId(world.now.presets, id))
                ++id;
            PresetSlot* slot = presetWithId(world.now.presets, id);
            for (PresetSlot& other : world.now.presets)
                slot = !slot && id <= 8 && other.id == 0 ? &other : slot;
            refuse(!slot, CODE_FULL);
            PresetSlot changed = slot->id != 0 ? *slot : PresetSlot{0, "preset" + std::to_string(id), {}};
            changed.id = static_cast<int>(id);
            changed.name = step.argument("name").value_or(changed.name);
            if (captures == 1) {
                look();
                refuse(reading_.running(), CODE_MOVING);
                for (const LabAxisId axis : AXES)
                    changed.position[axis] = static_cast<float>(
                        2.0 * static_cast<double>(position(axis)) / axes[axis].made.total_steps - 1.0);
            }
            *slot = changed;
            savePresets();
            before_ = "\"name\":" + quoted(changed.name) + ",\"id\":\"" + std::to_string(id) + "\",";
        };
        methods_["delPreset"] = [this](const Step& step) {
            const Json array = step.argument("id", json_type_array);
            refuse(!array || json_object_array_length(array.get()) == 0, CODE_PARAM);
            std::set<int64_t> ids;
            for (size_t i = 0; i < json_object_array_length(array.get()); ++i) {
                const int64_t id = json_object_get_int64(json_object_array_get_idx(array.get(), i));
                refuse(id < 1 || id > 8, CODE_PARAM); // those before are gone, until a restart
                if (PresetSlot* slot = presetWithId(world.now.presets, id))
                    *slot = {};
                ids.insert(id);
            }
            std::stable_partition(world.now.presets.begin(), world.now.presets.end(),
                                  [](const auto& slot) { return slot.id != 0; });
            savePresets();
            savePendingPlan([&](const PlanRange& range) { return range.action == "preset" && ids.contains(range.id); });
        };
        methods_["clearPreset"] = [this](const Step&) {
            world.now.presets = {};
            savePresets();
            savePendingPlan([](const PlanRange&) { return true; });
        };
        methods_["getPresetAll"] = [this](const Step&) {
            std::string lists[5];
            for (const PresetSlot& slot : world.now.presets) {
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
        };
        methods_["set_plan_config"] = [this](const Step& step) {
            pendingPlan_.clear();
            constexpr const char* DAY_NAMES[DAYS] = {"sunday",   "monday", "tuesday", "wednesday",
                                                     "thursday", "friday", "saturday"};
            for (int day = 0; day < DAYS; ++day)
                if (const Json array = step.argument(DAY_NAMES[day], json_type_array))
                    pendingPlan_[day] = planDay(array.get());
            savePendingPlan([](const PlanRange&) { return false; });
        };
    }

private:
    /// What the daemon reads is what it has stored, with the digits that it stores.
    void readPresets()
    {
        world.now.presets = files_.presets;
        for (size_t i = 0; i < world.now.presets.size(); ++i) {
            PresetSlot& slot = world.now.presets[i];
            for (float& position : slot.position)
                position = strtof(std::to_string(position).c_str(), nullptr);
            if (slot.id != 0 && slot.name.empty())
                slot.name = "preset_" + std::to_string(i + 1);
        }
    }
    /// What is stored takes the place of all that the package holds.
    void savePresets()
    {
        files_.presets = world.now.presets;
        for (const LabAxisId axis : AXES)
            axes[axis].speedOption = files_.speeds[axis];
    }
    void setFactor(const Step& step, const char* argument, LabAxisId axis)
    {
        char* end = nullptr;
        const std::string given = step.argument(argument).value_or("1");
        const float factor = strtof(given.c_str(), &end);
        refuse(*end != '\0', CODE_PARAM);
        refuse(!(factor > 0 && factor <= 1), CODE_FACTOR);
        world.now.factors[axis] = factor;
    }
    static PlanDay planDay(json_object* array)
    {
        PlanDay day;
        for (size_t i = 0; i < json_object_array_length(array); ++i) {
            json_object* const entry = json_object_array_get_idx(array, i); // of one member
            const json_object_iterator first = json_object_iter_begin(entry);
            json_object* const range = json_object_iter_peek_value(&first);
            const auto member = [range](const char* name) { return json_object_object_get(range, name); };
            day.push_back({json_object_get_int(member("start_time")), json_object_get_int(member("end_time")),
                           json_object_get_string(member("action_type")), json_object_get_int(member("action_id"))});
        }
        return day;
    }
    void savePendingPlan(const std::function<bool(const PlanRange&)>& isLost)
    {
        for (auto& [day, ranges] : pendingPlan_) {
            for (PlanRange& range : ranges)
                range.valid = range.valid && !isLost(range);
            files_.plan[day] = ranges;
        }
        world.plans.push_back(files_.plan);
    }
    static std::string quoted(const std::string& text)
    {
        const Json json(json_object_new_string(text.c_str()));
        return json_object_to_json_string_ext(json.get(), JSON_C_TO_STRING_NOSLASHESCAPE);
    }

    Plan pendingPlan_; // the latest request since the start
};
