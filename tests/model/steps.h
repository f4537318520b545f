#pragma once
// What a sequence is made of: random steps, their text, and smaller sequences to try after a failure.

#include <json-c/json.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

/// What sequences are made of: rules, each with its alternatives between bars, of which "3*" weighs three times as
/// much. In a text "<rule>" is one of that rule's texts and "<1..9>" one of the numbers. Steps are separated by
/// semicolons; a method's step names its arguments, each left out one time in 30, with "name?2" every second time, and
/// with "name:text" not taken from the rule of the argument's name.
inline const std::map<std::string, std::string> GRAMMAR = {
    // Arguments.
    {"odd", "abc|| 12|+7|-0|3x|2147483647|-2147483648|99999999999|-99999999999|0x10|1e3|- 5|4294967297|\t9"},
    {"x_coord", "2*<odd>|7*<pan edge>|15*<-150..150>"},
    {"pan edge", "0|1|-1|149|150|151|-149|-150|-151|300|-1000"},
    {"y_coord", "2*<odd>|7*<tilt edge>|15*<-39..61>"},
    {"tilt edge", "0|1|-1|-6|39|40|60|61|62|-38|-39|-40|-61"},
    {"x_speed", "<odd>|11*<speed>"},
    {"y_speed", "<x_speed>"},
    {"speed", "1|2|4|6|7|8|0|-1|100"},
    {"direction", "2*<odd>|11*<0..359>|11*<angle edge>"},
    {"angle edge", "0|45|46|90|91|134|135|180|181|225|226|270|271|314|315|359|360|-1"},
    {"sustain", "0|1|5|20|60|200|-3|-99999999999"}, // a step's thread sleeps once for each unit, so none lasts long
    {"id", "<odd>|3*1|3*2|3*3|5|8|0|9"},
    {"save_ptz", "<odd>|6*1|2*0|2*2"},
    {"speed_pan", "1|0.5|0.1|1.0|1e-1| .25"},
    {"speed_tilt", "<speed_pan>"},
    {"recover", "<odd>|5*<0..1>"},
    {"ids", R"(2*["<0..4>"]|[2]|[]|<odd>)"},
    {"monday",
     R"(9*[{"monday_1":{"start_time":0,"end_time":1440,"action_type":"preset","action_id":"<planned>"}}]|[])"},
    {"planned", "6*1|3*3|2"},

    // Settings, "-" where the option is missing.
    {"switch", "2*on|2*off|ON|On|oN|onn||-"},
    {"flip", "off|left_and_right|up_and_down|center|left|up|c|mirror||-|offx|center |OFF"},
    // Enabled, type, scan from and to.
    {"tour info", "on 1 -10 0|on 1 -20 10|on 1 100 125|on 1 -150 -120|on 1 -155 0|yes 1 0 0|3*on 2 0 0|off 1 0 20|"
                  "on 0 0 0"},
    {"setting", "4*@flip <flip>;updateImageConfig|@flip <flip>|4*@mask <switch>;lensMask|@mask <switch>|"
                "4*@track <switch>;reloadTargetTrackConfig|@track <switch>"},
    {"plain setup", "@flip <flip>;@mask <rarely on>;@track <switch>;@recover <recovers>;@steps <steps>;"
                    "@speed <speed>"},
    {"rarely on", "on|5*off"},
    {"recovers", "0|3*1"},
    {"steps", "2*-|0|3*77|-5|40"},
    {"touring setup", "<plain setup>;@tour <tour info>"},
    {"storing setup", "@flip off;@mask <rarely on>;@track on;@recover <recovers>;@steps <steps>;@speed 4;"
                      "@tour <storing tour>"},
    {"storing tour", "on 2 0 0|on 1 -20 10|on 1 100 125"},

    // Steps.
    {"motion", "9*move x_coord y_coord|9*<moveTo>|10*moveStep direction|3*startPanorama|5*movePanorama x_coord y_coord|"
               "4*stopPanorama|7*<track>|4*targetTrackBack|5*gotoPreset id speed_pan?2 speed_tilt?2"},
    {"moveTo", "moveTo x_coord y_coord"},
    {"track", "targetTrack x_coord y_coord x_speed y_speed"},
    {"motion or stop", "11*<motion>|stop"},
    {"method", "56*<motion>|5*stop|3*getStatus|checkMotorStatus|3*setPowerOffRecover recover|2*manualCalibrate|"
               "4*setConfig x_speed?2 y_speed?2 sustain?2|2*reloadTargetTrackConfig|2*lensMask|"
               "2*updateImageConfig|4*setPreset id?2 save_ptz?2|delPreset id:<ids>"},
    {"axis", "x|y"},
    {"fault", "7*|@fault <axis> <request>"},
    {"request", "2*GET_STATUS|MOVE|STOP|SET_SPEED|ROTATE|SET_POSITION"},
    {"nap", "@nap <0..2499>"}, // in us
    {"pause", "50*@rest|24*@nap <0..11999>|2*@saved|2*@idle|22*"},
    {"plain start", "setConfig sustain:20"},
    {"plain command", "<fault>;<deed>;<pause>"},
    {"deed", "@crash|@power|8*<setting>|12*<motion>;<nap>;<interruption>|4*<tracked>|4*<switched off>|50*<method>"},
    {"interruption", "stop|2*<motion or stop>"},
    // Target tracking that something ends in mid-motion, and what then shows who moved the head last.
    {"tracked", "<track>;<nap>;<tracking's end>;@rest;<return>"},
    {"tracking's end", "2*stop|move x_coord y_coord|manualCalibrate|targetTrackBack|startPanorama"},
    {"return", "<track>|targetTrackBack|reloadTargetTrackConfig"},
    {"switched off", "<switched on>;<track>;@rest;<returning>;@track off;reloadTargetTrackConfig"},
    {"switched on", "|@track on;reloadTargetTrackConfig"},
    {"returning", "|targetTrackBack;<nap>"},
    {"plan", "set_plan_config monday?9"},
    {"two presets", "<moveTo>;@rest;setPreset id:1 save_ptz:1;<moveTo>;@rest;setPreset id:3 save_ptz:1;<plan>"},
    // Something that a tour depends on, now and then a command that it meets, and the tour's next steps.
    {"touring command",
     "16*<plain command>|8*<tour change>;<scan reload>;<meeting>;@tours <1..3>|<still tracking>|<still touring>"},
    {"tour change", "4*<plan>|2*@tour <tour info>;reload_tour_info|@tour <tour info>;reload_scan_tour|"
                    "3*reload_tour_info"},
    // Longer than the quiet period at rest: after a tracking that has not moved the head, and at the tour's preset.
    {"still tracking", "@tour on 1 -10 0;reload_tour_info;reload_scan_tour;@rest;"
                       "targetTrack x_coord:0 y_coord:0 x_speed:1 y_speed:1;@nap 650000;targetTrackBack;@tours 1"},
    {"still touring", "@tour on 2 0 0;reload_tour_info;@tours 2;@nap 650000;@rest"},
    {"scan reload", "|reload_scan_tour"},
    {"meeting", "2*|@nap <0..7999>;<motion or stop>"},
    // What stores a position, or must not.
    {"storing command", "<under way>;<storing deed>;<storing pause>"},
    {"under way", "6*|<moveTo>;<nap>|<track>;<nap>"},
    {"storing deed",
     "2*<mask fault>;@mask on;lensMask;<storing pause>;<mask off>|@tours <1..2>|<track>|"
     "targetTrackBack|<panorama>|@fault <axis> <request>;startPanorama;<stop or moveTo>|<stop or moveTo>|"
     "<motion>|@track off;reloadTargetTrackConfig;@track on;reloadTargetTrackConfig"},
    {"mask fault", "5*|@fault <axis> MOVE"},
    {"mask off", "|3*@mask off;lensMask"},
    {"panorama", "startPanorama;<storing pause>;<sweep>;<storing pause>;<panorama's end>"},
    {"sweep", "3*|startPanorama|2*movePanorama x_coord y_coord"},
    {"panorama's end", "|4*stopPanorama"},
    {"stop or moveTo", "stop|2*<moveTo>"},
    {"storing pause", "5*<nap>|2*@idle|8*@rest"},
    {"plain end", "@saved|3*@rest"},
    {"touring start", "<plain start>;<two presets>"},
    {"touring end", "<plain end>"},
    {"storing start", "<touring start>"},
    {"storing end", "@saved"},
};

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

    explicit Step(const std::string& line)
        : verb(line.substr(0, line.find(' '))), text(line.substr(std::min(line.size(), verb.size() + 1)))
    {
    }
    std::string print() const
    {
        return verb + (text.empty() ? "" : " " + text);
    }
    /// The argument if it is of that type, else null.
    Json argument(const std::string& name, json_type type) const
    {
        const Json arguments(json_tokener_parse(text.c_str()));
        json_object* const value = json_object_object_get(arguments.get(), name.c_str());
        return Json(json_object_is_type(value, type) ? json_object_get(value) : nullptr);
    }
    /// The argument's text; nothing when the daemon does not get it, which takes texts only.
    std::optional<std::string> argument(const std::string& name) const
    {
        const Json value = argument(name, json_type_string);
        return value ? std::optional(json_object_get_string(value.get())) : std::nullopt;
    }
};

/// A head to begin with, and what is done to it.
struct Sequence {
    uint32_t seed;
    std::vector<Step> setup; // settings before the daemon starts
    std::vector<Step> steps;
};

/// Draws from the grammar.
class Dice {
public:
    explicit Dice(uint32_t seed) : random_(seed)
    {
    }
    /// Adds the steps of one of a rule's alternatives.
    void add(std::vector<Step>& steps, const std::string& rule)
    {
        std::istringstream parts(choice(rule));
        for (std::string part; std::getline(parts, part, ';');) {
            if (part.starts_with('<'))
                add(steps, part.substr(1, part.size() - 2));
            else if (part.starts_with('@'))
                steps.emplace_back(text(part));
            else
                steps.push_back(method(part));
        }
    }

private:
    int below(int n)
    {
        return static_cast<int>(random_() % static_cast<unsigned>(n));
    }
    std::string choice(const std::string& rule)
    {
        std::istringstream alternatives(GRAMMAR.at(rule));
        std::vector<std::string> weighed;
        for (std::string text; std::getline(alternatives, text, '|');) {
            const size_t star = text.find_first_not_of("0123456789");
            const bool weighs = star != std::string::npos && star != 0 && text[star] == '*';
            weighed.insert(weighed.end(), weighs ? std::stoul(text) : 1, text.substr(weighs ? star + 1 : 0));
        }
        return weighed[static_cast<size_t>(below(static_cast<int>(weighed.size())))];
    }
    std::string text(std::string form)
    {
        for (size_t from = 0; (from = form.find('<')) != std::string::npos;) {
            const size_t length = form.find('>') + 1 - from;
            int least = 0;
            int most = 0;
            const bool isNumber = sscanf(form.c_str() + from, "<%d..%d>", &least, &most) == 2;
            form.replace(from, length,
                         isNumber ? std::to_string(least + below(most - least + 1))
                                  : text(choice(form.substr(from + 1, length - 2))));
        }
        return form;
    }
    Step method(const std::string& form)
    {
        std::istringstream words(form);
        std::string verb;
        words >> verb;
        const Json arguments(json_object_new_object());
        for (std::string word; words >> word;) {
            const size_t colon = word.find(':');
            const std::string head = word.substr(0, colon);
            const size_t mark = head.find('?');
            const std::string name = head.substr(0, mark);
            if (below(mark == std::string::npos ? 30 : std::stoi(head.substr(mark + 1))) == 0)
                continue;
            const std::string value = text(colon == std::string::npos ? "<" + name + ">" : word.substr(colon + 1));
            json_object* argument = below(60) == 0           ? json_object_new_int(5)
                                    : value.starts_with('[') ? json_tokener_parse(value.c_str())
                                                             : json_object_new_string(value.c_str());
            json_object_object_add(arguments.get(), name.c_str(), argument);
        }
        const bool none = json_object_object_length(arguments.get()) == 0;
        return Step(verb + (none ? "" : std::string(" ") + json_object_to_json_string_ext(arguments.get(), 0)));
    }

    std::mt19937 random_;
};

/// The sequence of a seed, always the same. Some have tours; some are of what stores the head's position or must not:
/// mask, tours, tracking and panoramas in any order.
inline Sequence makeSequence(uint32_t seed)
{
    Dice dice(seed);
    const std::string kinds[] = {"touring", "plain",   "storing", "plain", "storing",
                                 "plain",   "touring", "storing", "plain"};
    const std::string& kind = kinds[seed / 3 % std::size(kinds)];
    Sequence sequence{seed, {}, {}};
    dice.add(sequence.setup, kind + " setup");
    dice.add(sequence.steps, kind + " start");
    for (int i = 0; i < 12; ++i)
        dice.add(sequence.steps, kind + " command");
    dice.add(sequence.steps, kind + " end");
    return sequence;
}
