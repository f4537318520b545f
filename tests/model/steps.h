#pragma once
// What a sequence is made of: random steps, their text, and smaller sequences to try after a failure.

#include <cstdint>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <vector>

/// As what an argument is given: a number in the place of a text counts as missing.
enum class Form { TEXT, NUMBER, ARRAY, PLAN };

struct Argument {
    std::string name;
    std::string text; // JSON, but for a PLAN: ranges in the form of planRanges()
    Form form = Form::TEXT;
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
    std::optional<std::string> array(const std::string& name) const;
};

/// A head to begin with, and what is done to it.
struct Sequence {
    uint32_t seed = 0;
    std::vector<Step> setup; // settings before the daemon starts
    std::vector<Step> steps;
};

std::string print(const Sequence& sequence);

/// The sequence of a seed, always the same.
Sequence randomSequence(uint32_t seed);

/// One of what stores the head's position or must not: mask, tours, tracking and panoramas in any order.
Sequence storingSequence(uint32_t seed);

/// The smallest sequence found that still fails, within the time that `mayGoOn` grants.
Sequence shrink(Sequence sequence, const std::function<bool(const Sequence&)>& fails,
                const std::function<bool()>& mayGoOn);
