#pragma once
// Plays sequences on a daemon in the lab and compares it with the model after every step.

#include "head_model.h"

#include "lab/lab.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>

struct Verdict {
    std::string mismatch; // empty: the daemon follows the rules
    bool inconclusive = false;
};

class Player {
public:
    /// `lab` runs with `options`.
    Player(Lab& lab, const LabOptions& options) : lab_(lab), options_(options)
    {
        // Timers only start threads now and then, so that the fewest that are seen are those that stay.
        resident_ = threads();
        for (int i = 0; i < 200; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            resident_ = std::min(resident_, threads());
        }
    }
    /// How long something that must happen may take.
    std::chrono::milliseconds timeout{15000};

    /// Starts a daemon anew and plays the sequence.
    Verdict play(const Sequence& sequence)
    {
        std::string at = "the start";
        try {
            begin(sequence);
            for (const Step& step : sequence.steps) {
                at = step.print();
                run(step);
            }
            at = "the end";
            settle();
            require(lab_.records.ptzdLog().find("Sanitizer") == std::string::npos, lab_.records.ptzdLog());
        } catch (const Mismatch& mismatch) {
            return {at + ": " + mismatch.text};
        } catch (const Inconclusive&) {
            return {"", true};
        }
        return {};
    }

private:
    /// A daemon on settings of the sequence's own.
    void begin(const Sequence& sequence)
    {
        endDaemon(); // it might still save into the fresh settings
        model_.reset();
        files_ = Files{};
        lab_.clock.setSpeed(MODEL_CLOCK_SPEED);
        write("ptz_plan", "");
        lab_.clock.setWall("2031-05-05 00:00:10"); // a Monday; no sequence lasts longer
        change(Step("@tour off 0 0 0"));
        for (const Step& step : sequence.setup)
            change(step);
        std::string text = "config ptzd 'config'\n" + optionLine("power_off_recover", files_.switches.at("@recover"));
        for (const LabAxisId axis : AXES)
            text += std::string("config motor '") + SECTIONS[axis] + "'\n" +
                    optionLine("steps", optionText(files_.steps[axis])) +
                    optionLine("speed", optionText(files_.speeds[axis]));
        write("ptzd", text + "config preset_config 'preset_config'\n");
        for (const LabAxisId axis : AXES)
            lab_.motors.clearFaults(axis);
        restart(true);
    }
    /// Changes a setting as another program of the camera would.
    void change(const Step& step)
    {
        const std::map<std::string, std::string> sections = {
            {"@flip", "image switch flip_type"},
            {"@mask", "lens_mask lens_mask_info enabled"},
            {"@track", "target_track target_track_info enabled"},
        };
        const auto value = step.text == "-" ? std::nullopt : std::optional(static_cast<int32_t>(number(step.text)));
        if (const auto at = sections.find(step.verb); at != sections.end()) {
            std::string package, section, option;
            std::istringstream(at->second) >> package >> section >> option;
            write(package, "config section '" + section + "'\n" + optionLine(option, step.text));
        } else if (step.verb == "@steps") {
            files_.steps[LAB_PAN] = files_.steps[LAB_TILT] = value;
        } else if (step.verb == "@speed") {
            files_.speeds[LAB_PAN] = files_.speeds[LAB_TILT] = value;
        } else if (step.verb == "@tour") {
            TourSettings& tour = files_.tour;
            std::istringstream(step.text) >> tour.enabled >> tour.type >> tour.from >> tour.to;
            const auto line = [](const char* name, int number) { return optionLine(name, std::to_string(number)); };
            write("tour", "config tour 'tour_info'\n" + optionLine("enabled", tour.enabled) +
                              line("tour_type", tour.type) + "config scan_tour 'scan_tour'\n" +
                              line("x_coord_start", tour.from) + line("x_coord_end", tour.to) + line("start_time", 0) +
                              line("end_time", 0));
            if (model_)
                model_->takeTour();
        }
        files_.switches[step.verb] = step.text;
    }
    void run(const Step& step)
    {
        const bool mayTour =
            step.verb.starts_with("reload_") || step.verb.starts_with("@tour") || step.verb == "set_plan_config";
        const auto armedNs = model_->saveArmedNs();
        if (armedNs && (mayTour || lab_.clock.nowNs() > *armedNs + SAVE_PERIOD_NS / 2)) {
            settle();
            awaitSave();
        }
        if (step.verb == "@rest") {
            settle();
        } else if (step.verb == "@saved" || step.verb == "@idle") {
            settle();
            awaitSave();
            if (step.verb == "@saved")
                return;
            // For longer than the period of any save nobody may look at the axes.
            const int64_t end = lab_.clock.nowNs() + SAVE_PERIOD_NS * 11 / 10;
            require(waitUntil([&] { return lab_.clock.nowNs() >= end; }, timeout), "the lab's clock does not run");
            settle();
        } else if (step.verb == "@tours") {
            for (int i = std::stoi(step.text); i > 0 && awaitTour(); --i)
                settle();
        } else if (step.verb == "@nap") {
            std::this_thread::sleep_for(std::chrono::microseconds(std::stol(step.text)));
        } else if (step.verb == "@fault") {
            const auto at = std::find(std::begin(LAB_REQUEST_NAMES), std::end(LAB_REQUEST_NAMES), step.text.substr(2));
            lab_.motors.failRequest(step.text[0] == 'x' ? LAB_PAN : LAB_TILT,
                                    static_cast<LabRequest>(at - std::begin(LAB_REQUEST_NAMES)));
        } else if (step.verb == "@crash" || step.verb == "@power") {
            restart(step.verb == "@power");
        } else if (step.verb[0] == '@') {
            change(step);
        } else {
            callMethod(step);
        }
    }
    void callMethod(const Step& step)
    {
        // What the rules leave open: rotations beside motions that nobody keeps apart, presets that are saved while a
        // calibration corrects the speeds, and whether the position is free to be stored yet.
        const std::set<std::string> apart{"movePanorama", "stopPanorama", "setPreset", "delPreset"};
        if ((model_->calibrating && apart.contains(step.verb)) ||
            (step.verb == "lensMask" && model_->leavesMasksZone()))
            settle();
        const auto armedNs = model_->saveArmedNs();
        const int64_t calledNs = lab_.clock.nowNs();
        const std::string reply = lab_.call(step.verb, step.text);
        const int64_t repliedNs = lab_.clock.nowNs();
        if (isOver(armedNs))
            throw Inconclusive{};
        evidence_.load(lab_);
        model_->judge(step, reply, calledNs, repliedNs);
        compareFile();
    }
    void endDaemon()
    {
        if (lab_.programs.ptzdPid() != 0)
            require(lab_.programs.killPtzd(SIGKILL).has_value(), "the daemon cannot be killed");
    }
    void restart(bool powerLoss)
    {
        endDaemon();
        (void)lab_.invoke("CET", "none"); // what the daemon sent last has arrived then
        std::error_code ignored;
        std::filesystem::remove_all(lab_.folder() + "/tmp/.uci", ignored);
        if (powerLoss)
            lab_.motors.powerLoss();
        const LabAxisNow found[] = {lab_.motors.now(LAB_PAN), lab_.motors.now(LAB_TILT)};
        lab_.records.clear();
        evidence_ = Evidence{};
        require(lab_.programs.startPtzd(), "the daemon does not start: " + lab_.error());
        evidence_.load(lab_);
        model_.emplace(evidence_, files_, options_, found);
        subscriber_.reset();
        settle();
        subscriber_.emplace(lab_.folder() + "/var/run/ubus.sock", model_->motionsDue.size());
        for (const auto& task :
             std::filesystem::directory_iterator("/proc/" + std::to_string(lab_.programs.ptzdPid()) + "/task"))
            evidence_.lasting.insert(static_cast<pid_t>(std::stol(task.path().filename())));
        evidence_.lasting.erase(lab_.programs.ptzdPid());
    }
    int threads() const
    {
        // The links of the folder, not its entries: a thread that ends while they are listed hides the ones after it.
        std::error_code problem;
        const auto links =
            std::filesystem::hard_link_count("/proc/" + std::to_string(lab_.programs.ptzdPid()) + "/task", problem);
        return problem ? 0 : static_cast<int>(links) - 2;
    }
    /// Nothing moves, no thread of a timer or a step is left, and every begin has had its end.
    bool settled()
    {
        const auto busy = [this] {
            return lab_.motors.now(LAB_PAN).running != 0 || lab_.motors.now(LAB_TILT).running != 0 ||
                   threads() > resident_;
        };
        if (busy())
            return false;
        if (subscriber_)
            subscriber_->receive();
        evidence_.load(lab_);
        if (busy())
            return false; // a save whose reads are in the evidence may be in the middle of its commit
        model_->judgeThreads();
        model_->motions.follow(WHENEVER);
        return model_->hasSettled() && (!subscriber_ || subscriber_->judge(model_->motionsDue));
    }
    void settle()
    {
        // Twice: a thread may still have been about to read the axes when the idle notification was seen.
        if (!waitUntil([this] { return settled() && settled(); }, timeout)) {
            require(lab_.programs.ptzdPid() != 0, "the daemon has ended:\n" + lab_.records.ptzdLog());
            throw Mismatch{"the head does not come to rest, " + model_->motions.describe() + ", " +
                           std::to_string(threads()) + " threads of " + std::to_string(resident_)};
        }
        if (!model_->atRest && isOver(model_->saveArmedNs()))
            throw Inconclusive{};
        const LabAxisNow now[] = {lab_.motors.now(LAB_PAN), lab_.motors.now(LAB_TILT)};
        const size_t seen = evidence_.entries.size();
        evidence_.load(lab_);
        if (evidence_.entries.size() != seen)
            return settle(); // a tour goes on
        model_->settle();
        for (const LabAxisId axis : AXES) {
            const int32_t expected = model_->axes[axis].count;
            require(now[axis].count == expected, std::string(SECTIONS[axis]) + " rests at " +
                                                     std::to_string(now[axis].count) + " instead of " +
                                                     std::to_string(expected));
        }
        compareFile();
    }
    /// Waits for the tour's next step if there is to be one. @return false when there is none.
    bool awaitTour()
    {
        settle();
        std::this_thread::sleep_for(std::chrono::milliseconds(50)); // several cycles of the touring thread
        settle();
        model_->motions.keepReloaded();
        const std::set<bool> moves = model_->motions.tourMoves(lab_.clock.nowNs());
        if (moves.size() != 1)
            return false;
        const auto steps = [this] {
            return std::count_if(evidence_.notifications.begin(), evidence_.notifications.end(),
                                 [](const Notification& seen) { return seen.moving && seen.origin == ORIGIN_TOUR; });
        };
        const auto before = steps();
        const int64_t end = lab_.clock.nowNs() + (*moves.begin() ? WHENEVER / 2 : 5 * SECOND_NS);
        const auto doneOrOver = [&] {
            evidence_.load(lab_);
            return steps() > before || lab_.clock.nowNs() > end;
        };
        lab_.clock.setSpeed(4 * MODEL_CLOCK_SPEED);
        const bool done = waitUntil(doneOrOver, timeout);
        lab_.clock.setSpeed(MODEL_CLOCK_SPEED);
        require(done, "the tour does not move the head, " + model_->motions.describe());
        return steps() > before;
    }
    void awaitSave()
    {
        const auto saved = [this] {
            if (!model_->atRest)
                settle(); // after a tour's step
            evidence_.load(lab_);
            model_->judgeThreads();
            return !model_->saveArmedNs();
        };
        require(waitUntil(saved, timeout), "the position is not saved");
        settle(); // once the save's thread has ended
    }
    /// A save that was armed then may have come unseen.
    bool isOver(const std::optional<int64_t>& armedNs) const
    {
        return armedNs && lab_.clock.nowNs() >= *armedNs + SAVE_PERIOD_NS;
    }
    void compareFile() const
    {
        std::stringstream file;
        file << std::ifstream(lab_.folder() + "/etc/config/ptzd").rdbuf();
        if (isOver(model_->saveArmedNs()))
            return;
        const auto compare = [&](const std::string& section, const char* name, const std::set<std::string>& allowed) {
            const std::string found = optionIn(file.str(), section, name);
            require(allowed.contains(found),
                    section + " has " + name + " " + found + " in the file instead of " + *allowed.begin());
        };
        compare("config", "power_off_recover", {files_.switches.at("@recover")});
        for (const LabAxisId axis : AXES) {
            compare(SECTIONS[axis], "steps", {optionText(files_.steps[axis])});
            // A speed that the calibration corrected goes to the file with the next commit, at the start perhaps at
            // once.
            compare(SECTIONS[axis], "speed",
                    {optionText(files_.speeds[axis]), optionText(model_->axes[axis].speedOption)});
        }
    }
    /// In one go: a thread of the daemon may be reading the package.
    void write(const std::string& package, const std::string& text)
    {
        const std::string folder = lab_.folder() + "/etc/config/";
        std::ofstream(folder + "." + package) << text;
        std::filesystem::rename(folder + "." + package, folder + package);
    }
    /// The value of an option in a package's text, "-" when it is missing.
    static std::string optionIn(const std::string& text, const std::string& section, const std::string& name)
    {
        const size_t begin = text.find(" '" + section + "'\n");
        const size_t at = text.find("\toption " + name + " '", begin);
        if (begin == std::string::npos || at == std::string::npos || at > text.find("\nconfig ", begin))
            return "-";
        const size_t value = text.find('\'', at) + 1;
        return text.substr(value, text.find('\'', value) - value);
    }
    static std::string optionLine(const std::string& name, const std::string& value)
    {
        return value == "-" ? "" : "\toption " + name + " '" + value + "'\n";
    }

    Lab& lab_;
    LabOptions options_;
    int resident_; // threads of a daemon at rest
    Evidence evidence_;
    Files files_;
    std::optional<HeadModel> model_; // of the daemon that runs
    std::optional<Subscriber> subscriber_;
};
