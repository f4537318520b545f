#include "steps.h"

#include "tours.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace {

class Dice {
public:
    explicit Dice(uint32_t seed) : random_(seed)
    {
    }
    int below(int n)
    {
        return static_cast<int>(random_() % static_cast<unsigned>(n));
    }
    bool oneIn(int n)
    {
        return below(n) == 0;
    }
    template <size_t N>
    std::string of(const char* const (&choices)[N])
    {
        return choices[below(N)];
    }

private:
    std::mt19937 random_;
};

constexpr const char* ODD[] = {"abc",  "",           " 12",         "+7",          "-0",
                               "3x",   "2147483647", "-2147483648", "99999999999", "-99999999999",
                               "0x10", "1e3",        "- 5",         "4294967297",  "\\t9"};
constexpr const char* PAN_EDGES[] = {"0", "1", "-1", "149", "150", "151", "-149", "-150", "-151", "300", "-1000"};
constexpr const char* TILT_EDGES[] = {"0", "1", "-1", "-6", "39", "40", "60", "61", "62", "-38", "-39", "-40", "-61"};
constexpr const char* ANGLES[] = {"0",   "45",  "46",  "90",  "91",  "134", "135", "180", "181",
                                  "225", "226", "270", "271", "314", "315", "359", "360", "-1"};
constexpr const char* SPEEDS[] = {"1", "2", "4", "6", "7", "8", "0", "-1", "100"};
// A step's thread sleeps once for each unit, so none lasts long.
constexpr const char* SUSTAINS[] = {"0", "1", "5", "20", "60", "200", "-3", "-99999999999"};
constexpr const char* SWITCHES[] = {"on", "off", "on", "off", "ON", "On", "oN", "onn", "", "-"};
constexpr const char* FLIPS[] = {"off", "left_and_right", "up_and_down", "center", "left", "up", "c", "mirror", "",
                                 "-",   "offx",           "center ",     "OFF"};
constexpr const char* IDS[] = {"1", "2", "3", "1", "2", "3", "5", "8", "0", "9"};
constexpr const char* SAVES[] = {"1", "1", "1", "0", "2"};
constexpr const char* FACTORS[] = {"1", "0.5", "0.1", "1.0", "1.001", "0", "-0.5", "", "1e-1", "0.5x", "nan", " .25"};
constexpr const char* NAMES[] = {"door",
                                 "it's \\\"wide\\\" = .",
                                 "",
                                 "tab\\t, return\\r",
                                 "line\\nfeed",
                                 "bell\\u0007",
                                 "Stra\u00dfe",
                                 "exactly thirty-two bytes of name",
                                 "one more than thirty-two of name!"};
constexpr const char* ID_LISTS[] = {
    "[\"1\"]",    "[\"3\",\"1\"]",       "[2]",          "[\"-2\"]", "[\"2\",\"9\",\"1\"]", "[]", "[\"x\"]",
    "[\"1,,3\"]", "[1,2,3,4,5,6,7,8,9]", "[99999999999]"};
constexpr const char* PLANS[] = {"0-1440=1",
                                 "0-480=1,480-720=3,720-1440=2",
                                 "480-481=2,720-1440=1",
                                 "480-720=-",
                                 "",
                                 "0-600=5,700-1440=3",
                                 "480-720=1,700-900=2",
                                 "480-720=?,0-10=1",
                                 "0-1441=1",
                                 "0-1=1,1-2=2,2-3=1,3-4=1,4-5=1,5-6=1,6-7=1,7-8=1,8-9=1,9-10=1,10-11=1"};
constexpr const char* TOURS[] = {"on 1 -20 10 0 0", "on 1 100 125 480 720", "on 1 -150 -120 1380 60",
                                 "on 1 -155 0 0 0", "yes 1 0 0 0 1440",     "on 2 0 0 0 0",
                                 "on 2 5 9 1 1",    "off 1 0 20 0 0",       "on 0 0 0 0 0"};
constexpr const char* WALLS[] = {"2031-05-05 07:58:50", "2031-05-05 08:00:10", "2031-05-05 12:00:05",
                                 "2031-05-05 23:59:00", "2031-05-06 00:00:40"};
constexpr const char* REQUESTS[] = {"GET_STATUS", "GET_STATUS", "MOVE", "STOP", "SET_SPEED", "ROTATE", "SET_POSITION"};

std::string coordinate(Dice& dice, bool pan)
{
    if (dice.oneIn(12))
        return dice.of(ODD);
    if (dice.oneIn(3))
        return pan ? dice.of(PAN_EDGES) : dice.of(TILT_EDGES);
    return std::to_string(pan ? dice.below(301) - 150 : dice.below(101) - 39);
}

std::string valueOf(Dice& dice, const std::string& name)
{
    if (name == "x_coord" || name == "y_coord")
        return coordinate(dice, name == "x_coord");
    if (name == "direction")
        return dice.oneIn(12) ? dice.of(ODD) : dice.oneIn(2) ? dice.of(ANGLES) : std::to_string(dice.below(360));
    if (name == "sustain")
        return dice.of(SUSTAINS);
    if (name == "id" || name == "save_ptz")
        return dice.oneIn(12) ? dice.of(ODD) : name == "id" ? dice.of(IDS) : dice.of(SAVES);
    if (name == "speed_pan" || name == "speed_tilt")
        return dice.of(FACTORS);
    if (name == "name")
        return dice.of(NAMES);
    if (name == "recover")
        return dice.oneIn(6) ? dice.of(ODD) : std::to_string(dice.below(2));
    if (name == "times")
        return dice.oneIn(2) ? "0" : std::to_string(dice.below(3) - 1);
    return dice.oneIn(12) ? dice.of(ODD) : dice.of(SPEEDS);
}

enum class Kind { OTHER, MOTION, STOP };

struct Method {
    const char* name;
    Kind kind;
    int weight;
    bool isOptional; // each argument may be left out
    std::vector<const char*> arguments;
};

const std::vector<Method>& methods()
{
    static const std::vector<Method> all = {
        {"move", Kind::MOTION, 9, false, {"x_coord", "y_coord"}},
        {"moveTo", Kind::MOTION, 9, false, {"x_coord", "y_coord"}},
        {"stop", Kind::STOP, 5, false, {}},
        {"getStatus", Kind::OTHER, 3, false, {}},
        {"getCapa", Kind::OTHER, 1, false, {}},
        {"checkMotorStatus", Kind::OTHER, 1, false, {}},
        {"setPowerOffRecover", Kind::OTHER, 3, false, {"recover"}},
        {"manualCalibrate", Kind::OTHER, 2, false, {}},
        {"test", Kind::OTHER, 1, false, {"times"}},
        {"moveStep", Kind::MOTION, 10, false, {"direction"}},
        {"setConfig", Kind::OTHER, 4, true, {"x_speed", "y_speed", "sustain"}},
        {"startPanorama", Kind::MOTION, 3, false, {}},
        {"movePanorama", Kind::MOTION, 5, false, {"x_coord", "y_coord"}},
        {"stopPanorama", Kind::MOTION, 4, false, {}},
        {"targetTrack", Kind::MOTION, 7, false, {"x_coord", "y_coord", "x_speed", "y_speed"}},
        {"targetTrackBack", Kind::MOTION, 4, false, {}},
        {"reloadTargetTrackConfig", Kind::OTHER, 2, false, {}},
        {"lensMask", Kind::OTHER, 2, false, {}},
        {"updateImageConfig", Kind::OTHER, 2, false, {}},
        {"gotoPreset", Kind::MOTION, 5, false, {"id"}},
        {"setPreset", Kind::OTHER, 4, true, {"id", "name", "save_ptz"}},
        {"delPreset", Kind::OTHER, 1, false, {"id"}},
        {"clearPreset", Kind::OTHER, 1, false, {}},
        {"getPresetAll", Kind::OTHER, 2, false, {}},
    };
    return all;
}

Step methodStep(Dice& dice, const Method& method)
{
    Step step{method.name, {}, ""};
    for (const char* name : method.arguments) {
        if (dice.oneIn(method.isOptional ? 2 : 30))
            continue;
        const bool isNumber = dice.oneIn(60);
        step.arguments.push_back({name, isNumber ? "5" : valueOf(dice, name), isNumber ? Form::NUMBER : Form::TEXT});
    }
    if (step.verb == "gotoPreset")
        for (const char* name : {"speed_pan", "speed_tilt"})
            if (dice.oneIn(3))
                step.arguments.push_back({name, valueOf(dice, name)});
    if (step.verb == "delPreset" && !dice.oneIn(20))
        step.arguments = {{"id", dice.of(ID_LISTS), Form::ARRAY}};
    return step;
}

/// Settings change together with the method that makes the daemon look at them, mostly.
void addSetting(Dice& dice, std::vector<Step>& steps)
{
    constexpr std::array<std::array<const char*, 2>, 3> PAIRS = {
        {{"@flip", "updateImageConfig"}, {"@mask", "lensMask"}, {"@track", "reloadTargetTrackConfig"}}};
    const auto& [setting, method] = PAIRS[static_cast<size_t>(dice.below(3))];
    steps.push_back({setting, {}, std::string(setting) == "@flip" ? dice.of(FLIPS) : dice.of(SWITCHES)});
    if (!dice.oneIn(5))
        steps.push_back({method, {}, ""});
}

void addPause(Dice& dice, std::vector<Step>& steps)
{
    const int kind = dice.below(100);
    if (kind < 50)
        steps.push_back({"@rest", {}, ""});
    else if (kind < 74)
        steps.push_back({"@nap", {}, std::to_string(dice.below(12000))});
    else if (kind < 78)
        steps.push_back({kind < 76 ? "@saved" : "@idle", {}, ""});
}

/// One of the methods that are wanted, by their weights.
void addMethod(Dice& dice, std::vector<Step>& steps, bool (*wanted)(const Method&))
{
    std::vector<const Method*> choices;
    for (const Method& method : methods())
        if (wanted(method))
            choices.insert(choices.end(), static_cast<size_t>(method.weight), &method);
    if (!choices.empty())
        steps.push_back(methodStep(dice, *choices[static_cast<size_t>(dice.below(static_cast<int>(choices.size())))]));
}

/// A motion that another command finds under way, likely.
void addInterruption(Dice& dice, std::vector<Step>& steps)
{
    addMethod(dice, steps, [](const Method& method) { return method.kind == Kind::MOTION; });
    steps.push_back({"@nap", {}, std::to_string(dice.below(2500))});
    if (dice.oneIn(3))
        addMethod(dice, steps, [](const Method& method) { return method.kind == Kind::STOP; });
    else
        addMethod(dice, steps, [](const Method& method) { return method.kind != Kind::OTHER; });
}

const Method& methodNamed(const std::string& name)
{
    return *std::find_if(methods().begin(), methods().end(), [&](const Method& method) { return method.name == name; });
}

/// Target tracking that somebody ends in mid-motion, and what then tells who moved the head last.
void addTracking(Dice& dice, std::vector<Step>& steps)
{
    constexpr const char* ENDS[] = {"stop", "stop", "move", "manualCalibrate", "targetTrackBack", "startPanorama"};
    constexpr const char* TELLS[] = {"targetTrack", "targetTrackBack", "reloadTargetTrackConfig"};
    steps.push_back(methodStep(dice, methodNamed("targetTrack")));
    steps.push_back({"@nap", {}, std::to_string(dice.below(2500))});
    steps.push_back(methodStep(dice, methodNamed(dice.of(ENDS))));
    steps.push_back({"@rest", {}, ""});
    steps.push_back(methodStep(dice, methodNamed(dice.of(TELLS))));
}

void addPlan(Dice& dice, std::vector<Step>& steps)
{
    Step plan{"set_plan_config", {}, ""};
    for (const char* day : {"monday", "tuesday", "saturday"})
        if (!dice.oneIn(3))
            plan.arguments.push_back({day, dice.oneIn(3) ? dice.of(PLANS) : PLANS[dice.below(3)], Form::PLAN});
    steps.push_back(plan);
}

/// Something that a tour depends on, now and then a command that it meets, and the tour's next steps.
void addTour(Dice& dice, std::vector<Step>& steps)
{
    const int kind = dice.below(10);
    if (kind < 2)
        steps.push_back({"@wall", {}, dice.of(WALLS)});
    else if (kind < 4)
        addPlan(dice, steps);
    else if (kind < 7)
        steps.push_back({"@tour", {}, dice.of(TOURS)});
    if (kind >= 4 && kind != 6)
        steps.push_back({"reload_tour_info", {}, ""});
    if (kind == 6 || dice.oneIn(2))
        steps.push_back({"reload_scan_tour", {}, ""});
    if (dice.oneIn(3)) {
        steps.push_back({"@nap", {}, std::to_string(dice.below(8000))});
        addMethod(dice, steps, [](const Method& method) { return method.kind != Kind::OTHER; });
    }
    steps.push_back({"@tours", {}, std::to_string(dice.below(3) + 1)});
}

/// Two presets, and tours that may use them.
void beginTours(Dice& dice, Sequence& sequence)
{
    sequence.setup.push_back({"@wall", {}, dice.of(WALLS)});
    sequence.setup.push_back({"@tour", {}, dice.of(TOURS)});
    for (const char* id : {"1", "3"}) {
        sequence.steps.push_back(
            {"moveTo", {{"x_coord", coordinate(dice, true)}, {"y_coord", coordinate(dice, false)}}, ""});
        sequence.steps.push_back({"@rest", {}, ""});
        sequence.steps.push_back({"setPreset", {{"id", id}, {"save_ptz", "1"}}, ""});
    }
    addPlan(dice, sequence.steps);
}

void addCommand(Dice& dice, std::vector<Step>& steps, bool tours)
{
    if (tours && dice.oneIn(3))
        return addTour(dice, steps);
    if (dice.oneIn(8))
        steps.push_back({"@fault", {}, std::string(dice.oneIn(2) ? "x " : "y ") + dice.of(REQUESTS)});
    const int kind = dice.below(40);
    if (kind == 0)
        steps.push_back({dice.oneIn(2) ? "@crash" : "@power", {}, ""});
    else if (kind < 5)
        addSetting(dice, steps);
    else if (kind < 11)
        addInterruption(dice, steps);
    else if (kind < 15)
        addTracking(dice, steps);
    else
        addMethod(dice, steps, [](const Method&) { return true; });
    addPause(dice, steps);
}

/// Simpler forms of a step, the simplest first.
std::vector<Step> simpler(const Step& step)
{
    std::vector<Step> result;
    for (size_t i = 0; i < step.arguments.size(); ++i) {
        if (step.arguments[i].form != Form::TEXT)
            continue;
        for (const char* value : {"0", "1", "-1", "10", "100", "-100"}) {
            if (step.arguments[i].text == value)
                break;
            Step other = step;
            other.arguments[i].text = value;
            result.push_back(other);
        }
    }
    if (step.verb == "@nap" && step.text != "1000")
        result.push_back({"@rest", {}, ""});
    return result;
}

/// A weekday's array: an object for each range, with one member named after the day and the range's number.
std::string planJson(const Argument& day)
{
    std::string result;
    int index = 0;
    for (const PlanRange& range : planRanges(day.text)) {
        const std::string action = range.action == 'p'   ? "preset\",\"action_id\":\"" + std::to_string(range.id)
                                   : range.action == '-' ? "disable"
                                                         : "goto";
        result += (result.empty() ? "{\"" : ",{\"") + day.name + "_" + std::to_string(++index) +
                  "\":{\"start_time\":" + std::to_string(range.start) + ",\"end_time\":" + std::to_string(range.end) +
                  ",\"action_type\":\"" + action + "\"}}";
    }
    return "[" + result + "]";
}

} // namespace

std::string Step::json() const
{
    std::string result;
    for (const Argument& argument : arguments) {
        const std::string quote = argument.form == Form::TEXT ? "\"" : "";
        const std::string value = argument.form == Form::PLAN ? planJson(argument) : argument.text;
        result += (result.empty() ? "{\"" : ",\"") + argument.name + "\":" + quote + value + quote;
    }
    return result.empty() ? "" : result + "}";
}

std::string Step::print() const
{
    const std::string rest = arguments.empty() ? text : json();
    return rest.empty() ? verb : verb + " " + rest;
}

std::optional<std::string> Step::argument(const std::string& name) const
{
    for (const Argument& argument : arguments)
        if (argument.name == name && argument.form == Form::TEXT)
            return argument.text == "\\t9" ? "\t9" : argument.text;
    return std::nullopt;
}

std::optional<std::string> Step::array(const std::string& name) const
{
    for (const Argument& argument : arguments)
        if (argument.name == name && (argument.form == Form::ARRAY || argument.form == Form::PLAN))
            return argument.text;
    return std::nullopt;
}

std::string print(const Sequence& sequence)
{
    std::string result = "PTZD_MODEL_SEED=" + std::to_string(sequence.seed) + "\n";
    for (const Step& step : sequence.setup)
        result += "    before the start: " + step.print() + "\n";
    for (const Step& step : sequence.steps)
        result += "    " + step.print() + "\n";
    return result;
}

Sequence randomSequence(uint32_t seed)
{
    constexpr int COMMANDS = 12;
    constexpr const char* STEPS[] = {"-", "-", "0", "77", "-5", "40"};
    Dice dice(seed);
    Sequence sequence{.seed = seed, .setup = {}, .steps = {}};
    sequence.setup = {
        {"@flip", {}, dice.oneIn(2) ? "off" : dice.of(FLIPS)},
        {"@mask", {}, dice.oneIn(8) ? "on" : "off"},
        {"@track", {}, dice.of(SWITCHES)},
        {"@recover", {}, dice.oneIn(4) ? "0" : "1"},
        {"@steps", {}, dice.of(STEPS)},
        {"@speed", {}, dice.oneIn(3) ? dice.of(SPEEDS) : "4"},
    };
    sequence.steps.push_back({"setConfig", {{"sustain", "20"}}, ""});
    const bool tours = dice.oneIn(3);
    if (tours)
        beginTours(dice, sequence);
    for (int i = 0; i < COMMANDS; ++i)
        addCommand(dice, sequence.steps, tours);
    sequence.steps.push_back({dice.oneIn(4) ? "@saved" : "@rest", {}, ""});
    return sequence;
}

Sequence storingSequence(uint32_t seed)
{
    constexpr int PIECES = 12;
    constexpr const char* PLACES[] = {"on 2 0 0 0 0", "on 1 -20 10 0 0", "on 1 100 125 0 0"};
    Dice dice(seed);
    Sequence sequence{.seed = seed, .setup = {}, .steps = {}};
    sequence.setup = {{"@flip", {}, "off"},
                      {"@mask", {}, dice.oneIn(3) ? "on" : "off"},
                      {"@track", {}, "on"},
                      {"@recover", {}, dice.oneIn(4) ? "0" : "1"},
                      {"@steps", {}, dice.oneIn(3) ? "-" : "77"},
                      {"@speed", {}, "4"}};
    std::vector<Step>& steps = sequence.steps;
    steps.push_back({"setConfig", {{"sustain", "20"}}, ""});
    beginTours(dice, sequence);
    sequence.setup.push_back({"@tour", {}, dice.of(PLACES)});
    const auto call = [&](const char* name) { steps.push_back(methodStep(dice, methodNamed(name))); };
    const auto nap = [&] { steps.push_back({"@nap", {}, std::to_string(dice.below(2500))}); };
    const auto pause = [&] {
        if (dice.oneIn(3))
            nap();
        else
            steps.push_back({dice.oneIn(5) ? "@idle" : "@rest", {}, ""});
    };
    for (int i = 0; i < PIECES; ++i) {
        if (dice.oneIn(4)) { // what the next one finds under way
            call(dice.oneIn(2) ? "moveTo" : "targetTrack");
            nap();
        }
        switch (dice.below(8)) {
        case 0:
        case 1:
            if (dice.oneIn(6))
                steps.push_back({"@fault", {}, dice.oneIn(2) ? "x MOVE" : "y MOVE"});
            steps.push_back({"@mask", {}, "on"});
            call("lensMask");
            pause();
            if (dice.oneIn(4))
                break;
            steps.push_back({"@mask", {}, "off"});
            call("lensMask");
            break;
        case 2:
            steps.push_back({"@tours", {}, std::to_string(dice.below(2) + 1)});
            break;
        case 3:
            call("targetTrack");
            break;
        case 4:
            call("targetTrackBack");
            break;
        case 5:
            call("startPanorama");
            pause();
            if (dice.oneIn(2))
                call(dice.oneIn(3) ? "startPanorama" : "movePanorama");
            pause();
            if (dice.oneIn(5))
                break;
            call("stopPanorama");
            break;
        case 6:
            call(dice.oneIn(3) ? "stop" : "moveTo");
            break;
        default:
            addMethod(dice, steps, [](const Method& method) { return method.kind == Kind::MOTION; });
            break;
        }
        pause();
    }
    steps.push_back({"@saved", {}, ""});
    return sequence;
}

Sequence shrink(Sequence sequence, const std::function<bool(const Sequence&)>& fails,
                const std::function<bool()>& mayGoOn)
{
    const auto accept = [&](const Sequence& smaller) {
        if (!mayGoOn() || !fails(smaller))
            return false;
        sequence = smaller;
        return true;
    };
    for (size_t length = std::max<size_t>(sequence.steps.size() / 2, 1); length >= 1; length /= 2) {
        for (size_t at = 0; at < sequence.steps.size();) {
            Sequence smaller = sequence;
            const auto first = smaller.steps.begin() + static_cast<ptrdiff_t>(at);
            smaller.steps.erase(first, first + static_cast<ptrdiff_t>(std::min(length, smaller.steps.size() - at)));
            at += accept(smaller) ? 0 : length;
        }
    }
    for (size_t at = 0; at < sequence.steps.size(); ++at) {
        for (bool changed = true; changed;) {
            changed = false;
            for (const Step& step : simpler(sequence.steps[at])) {
                Sequence smaller = sequence;
                smaller.steps[at] = step;
                changed = accept(smaller);
                if (changed)
                    break;
            }
        }
    }
    return sequence;
}
