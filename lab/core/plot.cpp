// Pan and tilt over time as a picture.

#include "lab/lab.h"

#include "lab/clock.h"
#include "picture.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace {

constexpr double WIDTH = 1000;
constexpr double LEFT = 70;
constexpr double RIGHT = 980;
constexpr double TOP = 56; // of the rows of the origins, and of the panels below them
constexpr double PANEL_HEIGHT = 220;
constexpr double PANEL_GAP = 46;
constexpr double LANE_HEIGHT = 16;
constexpr double LANES_GAP = 30;
constexpr double NARROWEST_SPAN = 4; // visible, however short the motion was
constexpr double MARGIN = 1.08;      // a panel's height in lengths of the travel

constexpr const char* STYLE = R"(
  .origin0 { fill: #d98200 } .origin1 { fill: #c8428f } .origin2 { fill: #7a5bd0 } .origin3 { fill: #2f8f46 }
  .course { fill: none; stroke: #1668b8; stroke-width: 2; stroke-linejoin: round }
  .move { fill: #2f8f46 } .rotate { fill: #8a4fbf } .stop { fill: #c43a31 } .set { fill: #5b6672 }
  .failed { stroke: #c43a31; stroke-width: 2.5 } .power { stroke: #c43a31; stroke-dasharray: 4 3 }
  @media (prefers-color-scheme: dark) {
    .origin0 { fill: #f0a95c } .origin1 { fill: #ef8cc4 } .origin2 { fill: #b7a2f5 } .origin3 { fill: #63c97c }
    .course { stroke: #63b0f4 }
    .move { fill: #63c97c } .rotate { fill: #c193ef } .stop { fill: #f2776e } .set { fill: #9aa6b4 }
    .failed { stroke: #f2776e } .power { stroke: #f2776e }
  }
)";

/// What marks a request, around its place.
const struct Mark {
    const char* request; // "": one that failed
    const char* shape;
    const char* name; // shown where the pointer is on the mark
} MARKS[] = {
    {"MOVE", "<path class='move' d='M0-6l6 11h-12z'/>", "move"},
    {"ROTATE", "<circle class='rotate' r='4.5'/>", "rotate"},
    {"STOP", "<path class='stop' d='M-4.5-4.5h9v9h-9z'/>", "stop"},
    {"SET_POSITION", "<path class='set' d='M0-6l6 6l-6 6l-6-6z'/>", "position set"},
    {"", "<path class='failed' d='M-5-5l10 10m0-10l-10 10'/>", "request failed"},
    {JOURNAL_POWER_LOSS, "<path class='power' d='M0-200v200'/>", "power loss"},
};

const Mark* markOf(const LabJournalEntry& entry)
{
    const std::string request = entry.result != 0 ? "" : entry.request;
    const auto* found =
        std::find_if(std::begin(MARKS), std::end(MARKS), [&](const Mark& m) { return request == m.request; });
    return found == std::end(MARKS) ? nullptr : found;
}

double seconds(int64_t ns)
{
    return static_cast<double>(ns) / NS_PER_SECOND;
}

/// Lab times, which the scale names by the wall clock.
struct TimeScale {
    double from;
    double to;
    double localAtZero; // local time at lab time 0, in seconds since 1970

    /// A step of a clock, in seconds, of which the scale has 13 at most.
    double step() const
    {
        for (const double step : {1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 10800, 21600, 43200})
            if ((to - from) / step <= 13)
                return step;
        return 86400 * std::ceil((to - from) / (86400 * 13));
    }
    double firstTick() const
    {
        return std::ceil((from + localAtZero) / step()) * step() - localAtZero;
    }
    std::string label(double time) const
    {
        const auto local = static_cast<time_t>(std::llround(time + localAtZero));
        tm parts{};
        gmtime_r(&local, &parts); // the offset has been added already
        const bool midnight = parts.tm_hour == 0 && parts.tm_min == 0 && parts.tm_sec == 0;
        char text[32];
        std::strftime(text, sizeof(text), midnight ? "%a %H:%M" : step() < 60 ? "%H:%M:%S" : "%H:%M", &parts);
        return text;
    }
};

using Journal = std::vector<LabJournalEntry>;

double endOfMotion(const LabJournalEntry& entry)
{
    if (entry.rate == 0)
        return seconds(entry.labNs);
    return seconds(entry.labNs) + std::abs(static_cast<double>(entry.left) / static_cast<double>(entry.rate));
}

/// From the first thing that happened to the last, or to the end of the motions under way if that came before `until`.
TimeScale timeScaleOf(const Journal& journal, const std::vector<LabCetEntry>& cetLog, double until)
{
    std::vector<double> times;
    double ends[LAB_AXIS_COUNT] = {};
    for (const LabJournalEntry& entry : journal) {
        times.push_back(seconds(entry.labNs));
        ends[entry.axis] = std::min(endOfMotion(entry), until); // of the latest request: it replaces those before
    }
    for (const LabCetEntry& entry : cetLog)
        times.push_back(seconds(entry.labNs));
    if (times.empty())
        times.push_back(until);
    const double first = *std::min_element(times.begin(), times.end());
    const double last = std::max({*std::max_element(times.begin(), times.end()), ends[LAB_PAN], ends[LAB_TILT]});
    const double margin = std::max((last - first) * 0.01, 0.01);
    return {first - margin, last + margin, 0};
}

/// A motion as it was announced: between a moving and the next idle notification.
struct Span {
    double from;
    double to;
};

/// The announced motions of each origin; one that is still open runs to the end.
std::map<std::string, std::vector<Span>> spansOf(const std::vector<LabCetEntry>& cetLog, double end)
{
    std::map<std::string, std::vector<Span>> spans;
    Span* open = nullptr;
    for (const LabCetEntry& entry : cetLog) {
        if (entry.isEvent)
            continue;
        if (entry.name == "notify_motor_moving" && !open) {
            open = &spans[entry.text].emplace_back(Span{seconds(entry.labNs), end});
        } else if (entry.name == "notify_motor_idle" && open) {
            open->to = seconds(entry.labNs);
            open = nullptr;
        }
    }
    return spans;
}

/// A row for each origin that occurs, so that a short motion does not hide the one before it. @return their height.
double drawOrigins(Picture& picture, const TimeScale& time, const std::vector<LabCetEntry>& cetLog)
{
    const std::map<std::string, const char*> names = {{"0", "user"}, {"1", "tracking"}, {"2", "return"}, {"3", "tour"}};
    Panel lane{LEFT, TOP, RIGHT - LEFT, LANE_HEIGHT, time.from, time.to};
    for (const auto& [origin, spans] : spansOf(cetLog, time.to)) {
        const auto name = names.find(origin);
        picture.text(LEFT - 8, lane.bottom() - 4, name == names.end() ? "unknown" : name->second, "", "end");
        picture.line("grid", LEFT, lane.y(0.5), RIGHT, lane.y(0.5));
        for (const Span& span : spans)
            picture.box("origin" + origin, lane.x(span.from), lane.top + 1,
                        std::max(lane.x(span.to) - lane.x(span.from), NARROWEST_SPAN), LANE_HEIGHT - 3);
        lane.top += LANE_HEIGHT;
    }
    if (lane.top == TOP)
        return 0;
    picture.text(LEFT, TOP - 6, "Motion announced <tspan class='unit'>by origin</tspan>");
    return lane.top - TOP + LANES_GAP;
}

/// One axis: its panel, whose values are lab time in seconds and steps.
struct AxisPlot {
    LabAxisId axis;
    LabAxisSetting setting;
    Panel panel;

    /// A line at each round coordinate, named in coordinate units.
    void drawFrame(Picture& picture, const TimeScale& time) const
    {
        for (double t = time.firstTick(); t <= time.to; t += time.step()) {
            picture.line("grid", panel.x(t), panel.top, panel.x(t), panel.bottom());
            if (axis == LAB_TILT) // "Tue 00:00" would be cut off at the edge
                picture.text(std::min(panel.x(t), WIDTH - 34), panel.bottom() + 16, time.label(t), "", "middle");
        }
        Panel coordinates = panel;
        coordinates.toY = std::max(setting.range, 1) / 2.0 * MARGIN;
        coordinates.fromY = -coordinates.toY;
        const double half = setting.range / 2.0;
        coordinates.draw(picture, -half, half, roundStep(std::max(setting.range, 1), 6));
        picture.text(LEFT, panel.top - 8,
                     std::string(axis == LAB_PAN ? "Pan" : "Tilt") + " <tspan class='unit'>coordinate units</tspan>");
    }

    /// The driver's position. After each request the axis rests or runs at a known rate until its steps are made, an
    /// end of the travel is reached, or the next request comes.
    void drawCourse(Picture& picture, const TimeScale& time, const Journal& journal) const
    {
        std::vector<std::pair<double, double>> points;
        const auto point = [&](double t, double steps) { points.emplace_back(panel.x(t), panel.y(steps)); };
        const LabJournalEntry* former = nullptr;
        const auto runUntil = [&](double until) {
            const double start = seconds(former->labNs);
            const auto rate = static_cast<double>(former->rate);
            double end = std::min(endOfMotion(*former), until);
            const double steps = former->count + rate * (end - start);
            const double limited = std::clamp<double>(steps, 0, setting.total_steps);
            if (limited != steps)
                end = start + (limited - former->count) / rate;
            point(end, limited);
            point(until, limited);
        };
        for (const LabJournalEntry& entry : journal) {
            if (entry.axis != axis)
                continue;
            if (former)
                runUntil(seconds(entry.labNs));
            point(seconds(entry.labNs), entry.count);
            former = &entry;
        }
        if (former)
            runUntil(time.to);
        picture.course("course", points);
    }

    void drawMarks(Picture& picture, const Journal& journal) const
    {
        for (const LabJournalEntry& entry : journal) {
            const Mark* mark = entry.axis == axis ? markOf(entry) : nullptr;
            if (mark)
                picture.add("<g transform='translate(" + number(panel.x(seconds(entry.labNs))) + " " +
                            number(panel.y(entry.count)) + ")'><title>" + mark->name + "</title>" + mark->shape +
                            "</g>\n");
        }
    }
};

} // namespace

std::string plotLab(const Journal& journal, const std::vector<LabCetEntry>& cetLog,
                    const LabAxisSetting (&axes)[LAB_AXIS_COUNT], int64_t untilLabNs, int64_t wallAtZeroNs)
{
    TimeScale time = timeScaleOf(journal, cetLog, seconds(untilLabNs));
    const auto wall = static_cast<time_t>(wallAtZeroNs / NS_PER_SECOND);
    tm local{};
    localtime_r(&wall, &local);
    time.localAtZero = seconds(wallAtZeroNs) + static_cast<double>(local.tm_gmtoff);
    Picture picture(WIDTH, "Pan and tilt over time", STYLE);
    picture.text(LEFT, 22, "Pan and tilt over time", "title");
    double top = TOP + drawOrigins(picture, time, cetLog);
    for (const LabAxisId axis : {LAB_PAN, LAB_TILT}) {
        const double middle = axes[axis].total_steps / 2.0;
        const double half = std::max(middle, 0.5) * MARGIN;
        const AxisPlot plot{axis,
                            axes[axis],
                            {LEFT, top, RIGHT - LEFT, PANEL_HEIGHT, time.from, time.to, middle - half, middle + half}};
        plot.drawFrame(picture, time);
        plot.drawCourse(picture, time, journal);
        plot.drawMarks(picture, journal);
        top += PANEL_HEIGHT + PANEL_GAP;
    }
    const double height = top - PANEL_GAP + 56;
    picture.text((LEFT + RIGHT) / 2, height - 12, "the lab's wall clock", "unit", "middle");
    return picture.finish(height);
}
