#pragma once
// What a sequence is made of: random steps, their text, and smaller sequences to try after a failure.

#include <cstdint>
#include <functional>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

struct Argument {
    std::string name;
    std::string text;
    bool isNumber = false; // a number in the place of a text, which counts as missing
};

/// A method of the daemon, or with a verb that begins with "@" something that happens around it.
struct Step {
    std::string verb;
    std::vector<Argument> arguments; // of a method
    std::string text;                // of the others

    std::string json() const;
    std::string print() const;
    /// The argument's text; nothing when the daemon does not get it.
    std::optional<std::string> argument(const std::string& name) const;
};

/// A head to begin with, and what is done to it.
struct Sequence {
    uint32_t seed = 0;
    std::vector<Step> setup; // settings before the daemon starts
    std::vector<Step> steps;
};

std::string print(const Sequence& sequence);

/// The sequence of a seed; only methods that `offered` contains. The same seed and methods give the same sequence.
Sequence randomSequence(uint32_t seed, const std::set<std::string>& offered);

/// The smallest sequence found that still fails, within the time that `mayGoOn` grants.
Sequence shrink(Sequence sequence, const std::function<bool(const Sequence&)>& fails,
                const std::function<bool()>& mayGoOn);
