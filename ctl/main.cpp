// ptzctl: the camera's head at a prompt, in scripts and for ONVIF servers. Options, the table of commands, and help.

#include "command.h"

#include <ctype.h>
#include <stdio.h>
#include <string.h>

#include <iterator>

namespace {

Options gOptions{.socket = PTZD_UBUS_SOCKET};

enum Accepts { NOTHING = 0, JSON = 1, WAIT = 2, RAW = 4 }; // RAW: what follows the name is not searched for options

constexpr int ANY = 99;

/// A command: its name of one or two words, how many arguments it takes, how its help describes them.
struct CommandRow {
    const char* name;
    int least;
    int most;
    const char* arguments;
    const char* help;
    CommandBody* body;
    int accepts;
};

constexpr CommandRow COMMANDS[] = {
    {"status", 0, 0, "", "where the head is, whether it moves, what is on", showStatus, JSON},
    {"move", 2, 2, "DX DY", "move by a displacement, up to the travel's end", moveBy, JSON | WAIT},
    {"goto", 2, 2, "X Y", "move to a position: X -150..150, Y -39..61", goTo, JSON | WAIT},
    {"step", 1, 1, "left|right|up|down", "turn for about a second", stepTo, JSON | WAIT},
    {"stop", 0, 0, "", "stop the head", stopMotion, JSON},
    {"home", 0, 0, "", "move to the middle, 0 0", goHome, JSON | WAIT},
    {"calibrate", 0, 0, "", "calibrate both motors", calibrate, JSON | WAIT},
    {"speed", 0, 2, "[PAN TILT]", "show or set the speeds", showOrSetSpeed, JSON},
    {"preset list", 0, 0, "", "number, position and name of each preset", listPresets, JSON},
    {"preset go", 1, 2, "N [SPEED]", "move to a preset, at a fraction of the full speed", goToPreset, JSON | WAIT},
    {"preset set", 1, 2, "N|new [NAME]", "make the position of the head a preset", setPreset, JSON},
    {"preset delete", 1, 8, "N...|all", "delete presets", deletePresets, JSON},
    {"tour on", 0, 1, "[scan|presets]", "start the tour", switchTourOn, JSON},
    {"tour off", 0, 0, "", "end the tour", switchTourOff, JSON},
    {"tour show", 0, 0, "", "whether there is a tour, and which", showTour, JSON},
    {"plan show", 0, 0, "", "the weekly plan, as plan set reads it", showPlan, JSON},
    {"plan set", 0, 1, "[FILE]", "replace the week, from a file or standard input", setPlan, JSON},
    {"plan clear", 0, 7, "[DAY...]", "empty some days, or the week", clearPlan, JSON},
    {"panorama start", 0, 0, "", "go to the start of a panorama", startPanorama, JSON | WAIT},
    {"panorama stop", 0, 0, "", "end the panorama and return", stopPanorama, JSON | WAIT},
    {"track", 0, 1, "[on|off]", "show or switch the tracking of targets", switchTracking, JSON | WAIT},
    {"mask", 0, 1, "[on|off]", "show or switch the lens mask", switchMask, JSON | WAIT},
    {"flip", 0, 1, "[off|left_and_right|up_and_down|center]", "show or set how the image is flipped", setFlip, JSON},
    {"watch", 0, 0, "", "print each motion as it happens, until Ctrl-C", watchMotions, JSON},
    {"onvif", 1, ANY, "ACTION [ARGUMENT...]", "what an ONVIF server calls", serveOnvif, RAW},
};

void printHelp()
{
    printf("Usage: ptzctl [OPTION...] COMMAND [ARGUMENT...]\n\n");
    for (const CommandRow& row : COMMANDS) {
        const int width = printf("  %s%s%s", row.name, *row.arguments ? " " : "", row.arguments);
        printf("%*s%s\n", width < 32 ? 32 - width : 2, "", row.help);
    }
    printf("\n"
           "  --wait[=SECONDS]              return when the motion is over; status 0 if it reached its target\n"
           "  --no-stop                     Ctrl-C while waiting leaves the head moving\n"
           "  --json                        print the daemon's reply, one line\n"
           "  -t SECONDS                    wait that long for the daemon's answer (10)\n"
           "  -s SOCKET                     the bus daemon's socket (%s)\n"
           "  --help, --version\n\n"
           "Options may come before or after the command; \"--\" ends them. man ptzctl describes them.\n",
           PTZD_UBUS_SOCKET);
}

/// Milliseconds of a text in seconds.
int32_t secondsArgument(const char* text, const char* what)
{
    double seconds = 0;
    if (!parseDecimal(text, 0.001, 86400, seconds))
        die(EXIT_USAGE, "%s takes seconds, from 0.001 to 86400, not \"%s\"", what, text);
    return static_cast<int32_t>(seconds * 1000);
}

/// Behind an option's "=".
const char* valueBehind(const char* word, const char* option)
{
    const size_t length = strlen(option);
    return strncmp(word, option, length) == 0 && word[length] == '=' ? word + length + 1 : nullptr;
}

/// The value of a short option, in its word or in the next one.
const char* shortValue(char** words, int count, int& at)
{
    if (words[at][2] != '\0')
        return words[at] + 2;
    if (at + 1 >= count)
        die(EXIT_USAGE, "%s needs a value", words[at]);
    return words[++at];
}

void readOption(char** words, int count, int& at)
{
    const char* word = words[at];
    if (strcmp(word, "--help") == 0 || strcmp(word, "-h") == 0) {
        printHelp();
        quit(EXIT_DONE);
    }
    if (strcmp(word, "--version") == 0) {
        printf("ptzctl " PTZD_VERSION "\n");
        quit(EXIT_DONE);
    }
    if (strcmp(word, "--json") == 0) {
        gOptions.json = true;
    } else if (strcmp(word, "--wait") == 0) {
        gOptions.wait = true;
    } else if (const char* seconds = valueBehind(word, "--wait")) {
        gOptions.wait = true;
        gOptions.waitMs = secondsArgument(seconds, "--wait");
    } else if (strcmp(word, "--no-stop") == 0) {
        gOptions.stopOnSignal = false;
    } else if (strncmp(word, "-s", 2) == 0) {
        gOptions.socket = shortValue(words, count, at);
    } else if (strncmp(word, "-t", 2) == 0) {
        gOptions.timeoutMs = secondsArgument(shortValue(words, count, at), "-t");
    } else {
        die(EXIT_USAGE, "there is no option %s: ptzctl --help lists them", word);
    }
}

/// A word that begins with a minus sign, but for negative numbers.
bool isOption(const char* word)
{
    return word[0] == '-' && word[1] != '\0' && isdigit(static_cast<unsigned char>(word[1])) == 0 && word[1] != '.';
}

/// Whether the row has that name; `taken` receives the number of its words.
bool names(const CommandRow& row, Arguments words, size_t& taken)
{
    const size_t first = strcspn(row.name, " ");
    taken = row.name[first] == '\0' ? 1 : 2;
    return words.size() >= taken && strlen(words[0]) == first && strncmp(row.name, words[0], first) == 0 &&
           (taken == 1 || strcmp(row.name + first + 1, words[1]) == 0);
}

[[noreturn]] void dieOfUnknown(Arguments words)
{
    if (words.empty())
        die(EXIT_USAGE, "which command? ptzctl --help lists them");
    char actions[120] = "";
    size_t used = 0;
    for (const CommandRow& row : COMMANDS) {
        const size_t first = strcspn(row.name, " ");
        if (row.name[first] != '\0' && strlen(words[0]) == first && strncmp(row.name, words[0], first) == 0)
            used += static_cast<size_t>(
                snprintf(actions + used, sizeof(actions) - used, "%s%s", used == 0 ? "" : ", ", row.name + first + 1));
    }
    if (used > 0)
        die(EXIT_USAGE, "%s needs one of: %s", words[0], actions);
    die(EXIT_USAGE, "there is no command %s: ptzctl --help lists them", words[0]);
}

void run(const CommandRow& row, Arguments arguments)
{
    const int count = static_cast<int>(arguments.size());
    if (count < row.least || count > row.most)
        die(EXIT_USAGE, "usage: ptzctl %s%s%s", row.name, *row.arguments ? " " : "", row.arguments);
    if (gOptions.wait && (row.accepts & WAIT) == 0)
        die(EXIT_USAGE, "%s begins no motion that --wait could wait for", row.name);
    if (gOptions.json && (row.accepts & JSON) == 0)
        die(EXIT_USAGE, "%s has its own format: leave --json out", row.name);
    if (!gOptions.stopOnSignal && !gOptions.wait)
        die(EXIT_USAGE, "--no-stop goes with --wait");
    row.body(arguments);
}

} // namespace

const Options& options()
{
    return gOptions;
}

int main(int count, char** words)
{
    const char* plain[32];
    size_t used = 0;
    bool searched = true; // for options
    for (int at = 1; at < count; ++at) {
        if (searched && strcmp(words[at], "--") == 0) {
            searched = false;
        } else if (searched && isOption(words[at])) {
            readOption(words, count, at);
        } else {
            if (used == std::size(plain))
                die(EXIT_USAGE, "too many arguments: ptzctl --help lists the commands");
            plain[used++] = words[at];
            searched = searched && strcmp(plain[0], "onvif") != 0; // a server's texts are no options
        }
    }
    const Arguments given(plain, used);
    for (const CommandRow& row : COMMANDS) {
        size_t taken = 0;
        if (!names(row, given, taken))
            continue;
        run(row, given.subspan(taken));
        quit(EXIT_DONE);
    }
    dieOfUnknown(given);
}
