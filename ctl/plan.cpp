// The weekly plan as a table: a line for each entry, "monday 08:00-12:00 5", where the head stays at preset 5 from 8 to
// 12 o'clock, or "stay" in the place of the preset, where a tour leaves the head where it is.

#include "bus.h"
#include "settings.h"

#include "preset/preset_store.h"
#include "tour/plan.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <algorithm>

namespace {

constexpr int DAY_END = 24 * 60;

struct Entry {
    int32_t start; // minutes after midnight
    int32_t end;
    int32_t preset; // 0: stay
};

struct Day {
    Entry entries[PLAN_DAY_ENTRIES]; // in the order of their times
    int count;
};

struct Week {
    Day days[WEEK_DAYS];
};

struct SectionName {
    char text[24];
};

SectionName sectionName(int day, int number)
{
    SectionName name{};
    (void)snprintf(name.text, sizeof(name.text), "%s_%d", planPolicy[day].name, number);
    return name;
}

/// Where a line of a plan is, for its errors.
struct Line {
    const char* file;
    int number;
};

/// A weekday by its name or the first three letters of it, or -1.
int weekday(const char* word)
{
    const size_t length = strlen(word);
    for (int day = 0; day < WEEK_DAYS; ++day)
        if ((length == 3 || length == strlen(planPolicy[day].name)) &&
            strncasecmp(word, planPolicy[day].name, length) == 0)
            return day;
    return -1;
}

/// "8:30" or "08:30", up to "24:00". @return the minutes, or -1; `text` goes on behind it.
int minutes(const char*& text)
{
    int parts[2] = {};
    for (int part = 0; part < 2; ++part) {
        int digits = 0;
        for (; *text >= '0' && *text <= '9' && digits < 2; ++digits, ++text)
            parts[part] = parts[part] * 10 + (*text - '0');
        if (digits == 0 || (part == 1 && digits != 2) || (part == 0 && *text++ != ':'))
            return -1;
    }
    const int value = parts[0] * 60 + parts[1];
    return parts[1] < 60 && value <= DAY_END ? value : -1;
}

void addEntry(Day& day, const Entry& entry, const Line& line)
{
    if (day.count == PLAN_DAY_ENTRIES)
        die(EXIT_USAGE, "%s:%d: a day has at most %d entries", line.file, line.number, PLAN_DAY_ENTRIES);
    Entry* const end = day.entries + day.count;
    Entry* const at = std::find_if(day.entries, end, [&](const Entry& other) { return other.start >= entry.start; });
    if ((at != end && at->start < entry.end) || (at != day.entries && at[-1].end > entry.start))
        die(EXIT_USAGE, "%s:%d: this entry overlaps another one of its day", line.file, line.number);
    std::move_backward(at, end, end + 1);
    *at = entry;
    ++day.count;
}

void readLine(char* text, Week& week, const Line& line)
{
    text[strcspn(text, "#\r\n")] = '\0';
    char* words[4] = {};
    size_t count = 0;
    char* rest = nullptr;
    for (char* word = strtok_r(text, " \t", &rest); word && count < 4; word = strtok_r(nullptr, " \t", &rest))
        words[count++] = word;
    if (count == 0)
        return;
    if (count != 3)
        die(EXIT_USAGE, "%s:%d: a line is DAY START-END PRESET, such as \"monday 08:00-12:00 5\"", line.file,
            line.number);
    const int day = weekday(words[0]);
    if (day < 0)
        die(EXIT_USAGE, "%s:%d: \"%s\" is no weekday", line.file, line.number, words[0]);
    const char* times = words[1];
    Entry entry{};
    entry.start = minutes(times);
    entry.end = entry.start >= 0 && *times++ == '-' ? minutes(times) : -1;
    if (entry.end < 0 || *times != '\0' || entry.start >= entry.end)
        die(EXIT_USAGE, "%s:%d: \"%s\" is no span of a day, such as 08:00-12:00", line.file, line.number, words[1]);
    double preset = 0;
    const bool stay = strcasecmp(words[2], "stay") == 0;
    if (!stay && (strlen(words[2]) != 1 || !parseDecimal(words[2], 1, PRESET_COUNT, preset)))
        die(EXIT_USAGE, "%s:%d: \"%s\" is neither a preset, 1 to %d, nor stay", line.file, line.number, words[2],
            PRESET_COUNT);
    entry.preset = stay ? 0 : static_cast<int32_t>(preset);
    addEntry(week.days[day], entry, line);
}

void readPlan(FILE* file, const char* name, Week& week)
{
    char text[256];
    Line line{name, 0};
    while (fgets(text, sizeof(text), file)) {
        ++line.number;
        if (!strchr(text, '\n') && !feof(file))
            die(EXIT_USAGE, "%s:%d: the line is too long", name, line.number);
        readLine(text, week, line);
    }
    if (ferror(file) != 0)
        die(EXIT_OTHER, "cannot read %s: %s", name, strerror(errno));
}

/// Adds a day as set_plan_config wants it.
void addDay(Message& message, int weekday, const Day& day)
{
    blob_buf* buffer = message.buffer();
    void* array = blobmsg_open_array(buffer, planPolicy[weekday].name);
    for (int i = 0; i < day.count; ++i) {
        const Entry& entry = day.entries[i];
        void* element = blobmsg_open_table(buffer, nullptr);
        void* range = blobmsg_open_table(buffer, sectionName(weekday, i + 1).text);
        blobmsg_add_u32(buffer, "start_time", static_cast<uint32_t>(entry.start));
        blobmsg_add_u32(buffer, "end_time", static_cast<uint32_t>(entry.end));
        message.text("action_type", entry.preset != 0 ? "preset" : "disable");
        if (entry.preset != 0)
            message.number("action_id", entry.preset);
        blobmsg_close_table(buffer, range);
        blobmsg_close_table(buffer, element);
    }
    blobmsg_close_array(buffer, array);
}

/// The stored plan, in the order of its numbers, whatever another program has stored.
Week storedPlan()
{
    Week week{};
    const SettingsReader settings("ptz_plan");
    for (int weekday = 0; weekday < WEEK_DAYS; ++weekday) {
        Day& day = week.days[weekday];
        for (int number = 1; number <= PLAN_DAY_ENTRIES; ++number) {
            const SectionName section = sectionName(weekday, number);
            if (!settings.hasSection(section.text))
                continue;
            const auto value = [&](const char* option) {
                const char* text = settings.value(section.text, option);
                return text ? static_cast<int32_t>(strtol(text, nullptr, 10)) : 0;
            };
            const char* action = settings.value(section.text, "action_type");
            const bool preset = action && strcmp(action, "preset") == 0;
            day.entries[day.count++] = {value("start_time"), value("end_time"), preset ? value("action_id") : 0};
        }
    }
    return week;
}

} // namespace

void showPlan(Arguments)
{
    const Week week = storedPlan();
    Message message;
    for (int weekday = 0; weekday < WEEK_DAYS; ++weekday) {
        const Day& day = week.days[weekday];
        addDay(message, weekday, day);
        for (const Entry& entry : std::span(day.entries, options().json ? 0 : static_cast<size_t>(day.count))) {
            printf("%-9s  %02d:%02d-%02d:%02d  ", planPolicy[weekday].name, entry.start / 60, entry.start % 60,
                   entry.end / 60, entry.end % 60);
            if (entry.preset != 0)
                printf("%d\n", entry.preset);
            else
                printf("stay\n");
        }
    }
    if (options().json)
        printJson(message.content());
}

void setPlan(Arguments arguments)
{
    Week week{};
    if (arguments.empty() || strcmp(arguments[0], "-") == 0) {
        readPlan(stdin, "standard input", week);
    } else {
        FILE* file = fopen(arguments[0], "re");
        if (!file)
            die(EXIT_USAGE, "cannot read %s: %s", arguments[0], strerror(errno));
        readPlan(file, arguments[0], week);
        (void)fclose(file); // only read
    }
    Message message;
    for (int weekday = 0; weekday < WEEK_DAYS; ++weekday)
        addDay(message, weekday, week.days[weekday]);
    command("set_plan_config", message);
}

void clearPlan(Arguments arguments)
{
    bool chosen[WEEK_DAYS] = {};
    for (const char* argument : arguments) {
        const int day = weekday(argument);
        if (day < 0)
            die(EXIT_USAGE, "\"%s\" is no weekday", argument);
        chosen[day] = true;
    }
    Message message;
    for (int day = 0; day < WEEK_DAYS; ++day)
        if (arguments.empty() || chosen[day])
            addDay(message, day, Day{});
    command("set_plan_config", message);
}
