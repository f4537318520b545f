// The daemon killed in the middle of storing presets and the plan.

#include "head.h"

#include <algorithm>
#include <atomic>
#include <random>
#include <set>
#include <sstream>
#include <thread>

namespace {

/// What the presets and the plan should be, kept by the rules alone.
struct Stored {
    std::vector<std::pair<int, std::string>> presets; // id and name, in the order of their places
    std::map<std::string, std::string> entries;       // of the plan: section and preset

    std::string presetReply() const
    {
        std::string lists[4];
        for (const auto& [id, name] : presets) {
            const std::string values[] = {std::to_string(id), name, "0", "0.000000"};
            for (size_t i = 0; i < std::size(lists); ++i)
                lists[i] += (lists[i].empty() ? "\"" : ",\"") + values[i] + "\"";
        }
        return R"({"id":[)" + lists[0] + R"(],"name":[)" + lists[1] + R"(],"read_only":[)" + lists[2] +
               R"(],"position_pan":[)" + lists[3] + R"(],"position_tilt":[)" + lists[3] + R"(],"error_code":0})";
    }
    /// The lines in which the plan's settings are shown, in no order.
    std::set<std::string> planLines() const
    {
        std::set<std::string> lines;
        for (const auto& [section, preset] : entries) {
            const std::string key = "ptz_plan." + section;
            lines.insert(key + "=" + section.substr(0, section.find('_')));
            const int number = std::stoi(section.substr(section.find('_') + 1));
            lines.insert(key + ".start_time='" + std::to_string(10 * number) + "'");
            lines.insert(key + ".end_time='" + std::to_string(10 * number + 10) + "'");
            lines.insert(key + ".action_type='preset'");
            lines.insert(key + ".action_id='" + preset + "'");
        }
        return lines;
    }
};

/// A request and what it makes of a state.
struct Change {
    std::string method;
    std::string arguments;
    Stored after;
};

std::string joined(const std::set<std::string>& lines)
{
    std::string text;
    for (const std::string& line : lines)
        text += line + " ";
    return text;
}

class PowerCut : public HeadInTheLab {
protected:
    std::mt19937 random;
    std::chrono::microseconds latest{0}; // what the latest undisturbed change took

    int below(int n)
    {
        return static_cast<int>(random() % static_cast<unsigned>(n));
    }
    std::string presetsNow()
    {
        return lab.call("getPresetAll");
    }
    std::set<std::string> planNow()
    {
        std::string text;
        EXPECT_EQ(lab.run({"uci", "show", "ptz_plan"}, text), 0) << "unreadable";
        std::set<std::string> lines;
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);)
            lines.insert(line);
        return lines;
    }

    Change setPreset(const Stored& now)
    {
        const int id = below(8) + 1;
        const std::string name = std::string(static_cast<size_t>(below(24)) + 1, 'n') + std::to_string(below(10000));
        Change change{"setPreset", R"({"id":")" + std::to_string(id) + R"(","name":")" + name + "\"}", now};
        auto& presets = change.after.presets;
        const auto old = std::find_if(presets.begin(), presets.end(), [&](const auto& p) { return p.first == id; });
        if (old == presets.end())
            presets.emplace_back(id, name);
        else
            old->second = name;
        return change;
    }
    Change setPlan(const Stored& now)
    {
        Change change{"set_plan_config", "", now};
        change.after.entries.clear();
        for (const char* day : {"sunday", "monday", "tuesday", "wednesday", "thursday", "friday", "saturday"}) {
            std::string entries;
            const int count = below(11);
            for (int i = 1; i <= count; ++i) {
                const std::string section = std::string(day) + "_" + std::to_string(i);
                const std::string preset = std::to_string(below(8) + 1);
                entries += (i > 1 ? ",{\"" : "{\"") + section + R"(":{"start_time":)" + std::to_string(10 * i) +
                           R"(,"end_time":)" + std::to_string(10 * i + 10) +
                           R"(,"action_type":"preset","action_id":")" + preset + R"("}})";
                change.after.entries[section] = preset;
            }
            change.arguments += (change.arguments.empty() ? "{\"" : ",\"") + std::string(day) + "\":[" + entries + "]";
        }
        change.arguments += "}";
        return change;
    }
    /// For a plan whose every day was set since the daemon's start.
    Change delPresets(const Stored& now)
    {
        Change change{"delPreset", R"({"id":[)", now};
        for (int i = 0; i < 3; ++i) {
            const int id = below(8) + 1;
            change.arguments += (i > 0 ? ",\"" : "\"") + std::to_string(id) + "\"";
            std::erase_if(change.after.presets, [&](const auto& preset) { return preset.first == id; });
            std::erase_if(change.after.entries, [&](const auto& e) { return e.second == std::to_string(id); });
        }
        change.arguments += "]}";
        return change;
    }
    static Change clearPresets()
    {
        return {"clearPreset", "", {}};
    }

    /// Makes a change without a disturbance.
    void make(const Change& change, Stored& now)
    {
        const auto begin = std::chrono::steady_clock::now();
        const std::string reply = lab.call(change.method, change.arguments);
        latest = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - begin);
        EXPECT_TRUE(reply.ends_with(R"("error_code":0})")) << change.method << ": " << reply;
        now = change.after;
        ASSERT_EQ(presetsNow(), now.presetReply()) << change.method;
        ASSERT_EQ(planNow(), now.planLines()) << change.method;
    }
    struct Seen {
        bool answered;
        bool newPresets; // as after the call; a call that leaves them alone leaves them new
        bool newPlan;
    };
    /// Kills the daemon within the change, starts it again and looks what it has.
    Seen killWithin(const Change& change, const Stored& before, std::chrono::microseconds pause)
    {
        std::atomic<bool> killing = false;
        bool answered = false;
        const auto timeout = std::chrono::duration_cast<std::chrono::milliseconds>(pause) + 100ms;
        std::thread caller([&] {
            const std::string reply = lab.invoke("ptzd", change.method, change.arguments, timeout).text;
            // On a busy machine the next daemon may be the one that answers, whose plan no request has set yet.
            answered = !killing && reply.ends_with(R"("error_code":0})");
        });
        std::this_thread::sleep_for(pause);
        killing = true;
        const bool restarted = lab.programs.killPtzd(SIGKILL).has_value() && lab.programs.startPtzd();
        caller.join();
        EXPECT_TRUE(restarted) << lab.error();
        const std::string presets = presetsNow();
        const std::set<std::string> plan = planNow();
        const Seen seen{answered, presets == change.after.presetReply(), plan == change.after.planLines()};
        EXPECT_TRUE(seen.newPresets || presets == before.presetReply()) << change.method << "\n" << presets;
        EXPECT_TRUE(seen.newPlan || plan == before.planLines())
            << change.method << "\nbefore: " << joined(before.planLines())
            << "\nafter: " << joined(change.after.planLines()) << "\nseen: " << joined(plan);
        EXPECT_TRUE(!seen.answered || (seen.newPresets && seen.newPlan)) << change.method << " was answered";
        EXPECT_TRUE(seen.newPresets || plan == before.planLines()) << "the presets are stored before the plan";
        return seen;
    }
};

TEST_F(PowerCut, LeavesPresetsAndPlanAsBeforeOrAfterTheCall)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    random.seed(seed);
    LabOptions options = fastHead();
    options.factor = 2'000'000; // the calibration takes a few milliseconds
    up(options);
    Stored now;
    int answered = 0;
    int unchanged = 0;
    std::chrono::milliseconds restarting{0};
    const int cuts = repetitions(20, 300);
    for (int cut = 0; cut < cuts; ++cut) {
        SCOPED_TRACE("cut " + std::to_string(cut));
        make(setPreset(now), now);
        make(setPreset(now), now);
        make(setPlan(now), now); // from here on a deletion goes for the plan of every day, too
        ASSERT_FALSE(HasFailure());
        const Change changes[] = {setPreset(now), delPresets(now), clearPresets(), setPlan(now)};
        const Change& change = changes[cut % 4];
        const bool storesTwice = cut % 4 == 1 || cut % 4 == 2;
        const auto pause = std::chrono::microseconds(below(static_cast<int>(latest.count()) * (storesTwice ? 2 : 1)));
        const auto begin = std::chrono::steady_clock::now();
        const Seen seen = killWithin(change, now, pause);
        restarting += std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
        ASSERT_FALSE(HasFailure());
        answered += seen.answered ? 1 : 0;
        unchanged += seen.newPresets && seen.newPlan ? 0 : 1;
        if (seen.newPresets)
            now.presets = change.after.presets;
        if (seen.newPlan)
            now.entries = change.after.entries;
    }
    std::printf("%d kills within a call: %d times it had been answered, %d times all or part of it was not stored; "
                "%ld ms for a kill and a start\n",
                cuts, answered, unchanged, static_cast<long>(restarting.count() / cuts));
}

} // namespace
