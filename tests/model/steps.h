#pragma once
// What a sequence is made of: random steps, their text, and smaller sequences to try after a failure.

#include <json-c/json.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct ReleaseJson {
    void operator()(json_object* value) const
    {
        json_object_put(value);
    }
};
using Json = std::unique_ptr<json_object, ReleaseJson>;

/// A method of the daemon, or with a verb that begins with "@" something that happens around it.
struct Step {
    std::string verb;
    std::string text; // a method's arguments in JSON; what the others need

    explicit Step(const std::string& line);
    std::string print() const;
    /// The argument's text; nothing when the daemon does not get it, which takes texts only.
    std::optional<std::string> argument(const std::string& name) const;
    /// The argument's array; null when it has none.
    Json array(const std::string& name) const;
};

/// A head to begin with, and what is done to it.
struct Sequence {
    uint32_t seed = 0;
    std::vector<Step> setup; // settings before the daemon starts
    std::vector<Step> steps;

    std::string print() const;
};

/// The sequence of a seed, always the same.
Sequence randomSequence(uint32_t seed);

/// One of what stores the head's position or must not: mask, tours, tracking and panoramas in any order.
Sequence storingSequence(uint32_t seed);

/// The smallest sequence found that still fails, within the time that `mayGoOn` grants.
Sequence shrink(Sequence sequence, const std::function<bool(const Sequence&)>& fails,
                const std::function<bool()>& mayGoOn);
