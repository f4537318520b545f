#pragma once
// The commands of ptzd-lab. Each makes an order of its arguments, which are checked before a lab is looked for.

#include "lab/lab.h"

#include <charconv>
#include <type_traits>

using Arguments = std::vector<std::string>;

/// What a command is to do.
struct Order {
    std::string problem{};               // what is wrong with the arguments; then nothing else counts
    std::function<int(Lab&)> carryOut{}; // the exit status: 0, or 1 when it failed and said why on standard error
    std::string folder{};                // the lab's, where the user named it
    bool startsLab = false;              // else the lab must be there
    bool locks = false;                  // starts or ends programs, which one command at a time may do
};

Order upOrder(Arguments arguments);
Order downOrder(Arguments arguments);
Order statusOrder(Arguments arguments);
Order ptzdOrder(Arguments arguments);
Order busOrder(Arguments arguments);
Order cetOrder(Arguments arguments);
Order runOrder(Arguments arguments);
Order execOrder(Arguments arguments);
Order motorOrder(Arguments arguments);
Order powerLossOrder(Arguments arguments);
Order clockOrder(Arguments arguments);
Order journalOrder(Arguments arguments);
Order plotOrder(Arguments arguments);

/// A command line that the user can type: through `./dev` when it started this program, else with this program's own
/// path. `words` are the arguments of `./dev`: "lab down", "ubus call ...".
std::string typed(const std::string& words);

/// Says what failed on standard error; returns 1.
int failed(const std::string& reason);

/// An order for a lab that is there. The action returns nothing, false with Lab::error(), or the exit status.
template <typename Action>
Order toDo(Action action)
{
    Order order;
    order.carryOut = [action](Lab& lab) {
        using Result = std::invoke_result_t<Action, Lab&>;
        if constexpr (std::is_void_v<Result>)
            return action(lab), 0;
        else if constexpr (std::is_same_v<Result, bool>)
            return action(lab) ? 0 : failed(lab.error());
        else
            return action(lab);
    };
    return order;
}

/// The same for one that starts or ends programs.
template <typename Action>
Order toDoAlone(Action action)
{
    Order order = toDo(action);
    order.locks = true;
    return order;
}

/// The order of `up` or `run`: folder and options are taken from the arguments, carryOut is left empty.
Order startOrder(const Arguments& arguments, LabOptions& options);

/// Whole number within limits; false for anything else in the text.
template <typename Number>
bool parseNumber(const std::string& text, Number low, Number high, Number& value)
{
    const char* end = text.data() + text.size();
    const auto [stop, problem] = std::from_chars(text.data(), end, value);
    return problem == std::errc() && stop == end && value >= low && value <= high;
}

/// Range, max_speed and total_steps, each `low` at least.
bool parseSetting(const std::string& text, char separator, int32_t low, LabAxisSetting& setting);

/// Prints a line on where an axis is, and what is set to go wrong with it.
void printAxis(Lab& lab, LabAxisId axis);

const char* axisName(LabAxisId axis);

/// Coordinate of a position in steps.
int32_t coordinateOf(const LabAxisSetting& setting, int32_t steps);

/// Keeps two commands from starting and ending programs of one lab at the same time.
class WorkLock {
public:
    /// Waits up to 30 s for another command.
    explicit WorkLock(const std::string& folder);
    ~WorkLock();
    WorkLock(const WorkLock&) = delete;
    WorkLock& operator=(const WorkLock&) = delete;
    /// False: the folder cannot be used; said on standard error.
    bool held() const
    {
        return held_;
    }

private:
    int fd_ = -1;
    bool held_ = false;
};
