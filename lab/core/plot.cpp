// Pan and tilt over time as a picture.

#include "lab/lab.h"

#include "lab/clock.h"
#include "lab/picture.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <map>
#include <optional>
#include <sstream>

namespace {

constexpr double WIDTH = 1000;
constexpr double LEFT = 70;
constexpr double RIGHT = 20;
constexpr double PANEL_TOP = 78;
constexpr double PANEL_HEIGHT = 220;
constexpr double PANEL_GAP = 46;
constexpr double LANES_TOP = 78; // rows of the origins, above the panels
constexpr double LANE_HEIGHT = 16;
constexpr double LANES_GAP = 30;
constexpr double NARROWEST_SPAN = 4; // visible, however short the motion was

constexpr const char* STYLE = R"(<style>
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
</style>
)";

double seconds(int64_t ns)
{
    return static_cast<double>(ns) / NS_PER_SECOND;
}

std::string number(double value)
{
    std::ostringstream text;
    text.precision(6);
    text << (std::abs(value) < 1e-9 ? 0 : value);
    return text.str();
}

/// A step of a clock's scale, in seconds, so that a span has about `count` of them.
double clockStep(double span, int count)
{
    constexpr double HOUR = 3600;
    for (const double step : {1.0, 2.0, 5.0, 10.0, 15.0, 30.0, 60.0, 120.0, 300.0, 600.0, 900.0, 1800.0, HOUR, 2 * HOUR,
                              3 * HOUR, 6 * HOUR, 12 * HOUR})
        if (span / step <= count)
            return step;
    return 24 * HOUR * std::ceil(span / (24 * HOUR * count));
}

/// The pixel column of a lab time, and what the scale calls it: lab time, or the wall clock where the lab has its own.
struct TimeScale {
    double from;
    double to;
    std::optional<double> localAtZero = {}; // local time at lab time 0, in seconds since 1970

    double step() const
    {
        return localAtZero ? clockStep(to - from, 13) : roundStep(to - from, 10);
    }
    double firstTick() const
    {
        const double offset = localAtZero.value_or(0);
        return std::ceil((from + offset) / step()) * step() - offset;
    }
    std::string label(double time) const
    {
        if (!localAtZero)
            return number(time);
        const auto local = static_cast<time_t>(std::llround(time + *localAtZero));
        tm parts{};
        gmtime_r(&local, &parts); // the offset has been added already
        const bool midnight = parts.tm_hour == 0 && parts.tm_min == 0 && parts.tm_sec == 0;
        char text[32];
        std::strftime(text, sizeof(text), midnight ? "%a %H:%M" : step() < 60 ? "%H:%M:%S" : "%H:%M", &parts);
        return text;
    }
    double x(double time) const
    {
        return LEFT + (time - from) / (to - from) * (WIDTH - LEFT - RIGHT);
    }
};

/// One axis: its place on the page and its scale.
struct Panel {
    const char* name;
    double top;
    LabAxisSetting setting;

    double coordinate(double steps) const
    {
        return steps * setting.range / std::max(setting.total_steps, 1) - setting.range / 2.0;
    }
    /// The pixel row of a coordinate; the travel fills the panel but for a margin.
    double y(double coord) const
    {
        const double half = std::max(setting.range, 1) / 2.0 * 1.08;
        return top + PANEL_HEIGHT / 2 - coord / half * PANEL_HEIGHT / 2;
    }
    double yOfSteps(double steps) const
    {
        return y(coordinate(steps));
    }
};

using Journal = std::vector<LabJournalEntry>;

double endOfMotion(const LabJournalEntry& entry)
{
    if (entry.rate == 0)
        return seconds(entry.labNs);
    return seconds(entry.labNs) +
           static_cast<double>(std::abs(entry.left)) / static_cast<double>(std::llabs(entry.rate));
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
    return {first - margin, last + margin};
}

void drawGrid(std::ostream& out, const Panel& panel, const TimeScale& time, bool timeLabels)
{
    const double bottom = panel.top + PANEL_HEIGHT;
    for (double t = time.firstTick(); t <= time.to; t += time.step()) {
        out << "<line class='grid' x1='" << time.x(t) << "' x2='" << time.x(t) << "' y1='" << panel.top << "' y2='"
            << bottom << "'/>\n";
        if (timeLabels)
            out << "<text x='" << std::min(time.x(t), WIDTH - 34) << "' y='" << bottom + 16 << "' text-anchor='middle'>"
                << time.label(t) << "</text>\n"; // "Tue 00:00" would be cut off at the edge
    }
    const double half = panel.setting.range / 2.0;
    const double step = roundStep(std::max(panel.setting.range, 1), 6);
    for (double c = std::ceil(-half / step) * step; c <= half; c += step) {
        out << "<line class='grid' x1='" << LEFT << "' x2='" << WIDTH - RIGHT << "' y1='" << panel.y(c) << "' y2='"
            << panel.y(c) << "'/>\n<text x='" << LEFT - 8 << "' y='" << panel.y(c) + 4 << "' text-anchor='end'>"
            << number(c) << "</text>\n";
    }
    out << "<rect class='frame' x='" << LEFT << "' y='" << panel.top << "' width='" << WIDTH - LEFT - RIGHT
        << "' height='" << PANEL_HEIGHT << "'/>\n<text x='" << LEFT << "' y='" << panel.top - 8 << "'>" << panel.name
        << " <tspan class='unit'>coordinate units</tspan></text>\n";
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
        if (entry.name == "notify_motor_moving" && !open)
            open = &spans[entry.text].emplace_back(Span{seconds(entry.labNs), end});
        else if (entry.name == "notify_motor_idle" && open) {
            open->to = seconds(entry.labNs);
            open = nullptr;
        }
    }
    return spans;
}

/// A row for each origin that occurs, so that a short motion does not hide the one before it. @return their height.
double drawOrigins(std::ostream& out, const TimeScale& time, const std::vector<LabCetEntry>& cetLog)
{
    constexpr const char* NAMES[] = {"user", "tracking", "return", "tour"};
    double y = LANES_TOP;
    for (const auto& [origin, spans] : spansOf(cetLog, time.to)) {
        const size_t type = origin.size() == 1 ? static_cast<size_t>(origin[0] - '0') : std::size(NAMES);
        out << "<text x='" << LEFT - 8 << "' y='" << y + LANE_HEIGHT - 4 << "' text-anchor='end'>"
            << (type < std::size(NAMES) ? NAMES[type] : "unknown") << "</text>\n<line class='grid' x1='" << LEFT
            << "' x2='" << WIDTH - RIGHT << "' y1='" << y + LANE_HEIGHT / 2 << "' y2='" << y + LANE_HEIGHT / 2
            << "'/>\n";
        for (const Span& span : spans)
            out << "<rect class='origin" << origin << "' x='" << time.x(span.from) << "' y='" << y + 1 << "' width='"
                << std::max(time.x(span.to) - time.x(span.from), NARROWEST_SPAN) << "' height='" << LANE_HEIGHT - 3
                << "'/>\n";
        y += LANE_HEIGHT;
    }
    if (y > LANES_TOP)
        out << "<text x='" << LEFT << "' y='" << LANES_TOP - 6 << "'>Motion announced <tspan class='unit'>by origin"
            << "</tspan></text>\n";
    return y > LANES_TOP ? y - LANES_TOP + LANES_GAP : 0;
}

/// The driver's position. After each request the axis rests or runs at a known rate until its steps are made, an end
/// of the travel is reached, or the next request comes.
void drawCourse(std::ostream& out, const Panel& panel, const TimeScale& time, const Journal& journal, LabAxisId axis)
{
    std::ostringstream points;
    const auto point = [&](double t, double steps) { points << time.x(t) << ',' << panel.yOfSteps(steps) << ' '; };
    const LabJournalEntry* former = nullptr;
    const auto runFrom = [&](const LabJournalEntry& entry, double until) {
        const double start = seconds(entry.labNs);
        double end = std::min(endOfMotion(entry), until);
        double steps = entry.count + static_cast<double>(entry.rate) * (end - start);
        const double limited = std::clamp<double>(steps, 0, panel.setting.total_steps);
        if (limited != steps)
            end = start + (limited - entry.count) / static_cast<double>(entry.rate);
        point(end, limited);
        point(until, limited);
    };
    for (const LabJournalEntry& entry : journal) {
        if (entry.axis != axis)
            continue;
        if (former)
            runFrom(*former, seconds(entry.labNs));
        point(seconds(entry.labNs), entry.count);
        former = &entry;
    }
    if (former)
        runFrom(*former, time.to);
    out << "<polyline class='course' points='" << points.str() << "'/>\n";
}

void drawPowerLoss(std::ostream& out, double x, double from, double to)
{
    out << "<line class='power' x1='" << x << "' x2='" << x << "' y1='" << from << "' y2='" << to << "'/>\n";
}

void drawMark(std::ostream& out, const LabJournalEntry& entry, double x, double y)
{
    if (entry.result != 0)
        out << "<path class='failed' d='M" << x - 5 << ' ' << y - 5 << "l10 10m0 -10l-10 10'/>\n";
    else if (entry.request == "MOVE")
        out << "<path class='move' d='M" << x << ' ' << y - 6 << "l6 11h-12z'/>\n";
    else if (entry.request == "ROTATE")
        out << "<circle class='rotate' cx='" << x << "' cy='" << y << "' r='4.5'/>\n";
    else if (entry.request == "STOP")
        out << "<rect class='stop' x='" << x - 4.5 << "' y='" << y - 4.5 << "' width='9' height='9'/>\n";
    else if (entry.request == "SET_POSITION")
        out << "<path class='set' d='M" << x << ' ' << y - 6 << "l6 6l-6 6l-6 -6z'/>\n";
}

void drawMarks(std::ostream& out, const Panel& panel, const TimeScale& time, const Journal& journal, LabAxisId axis)
{
    for (const LabJournalEntry& entry : journal) {
        if (entry.axis != axis)
            continue;
        const double x = time.x(seconds(entry.labNs));
        if (entry.request == JOURNAL_POWER_LOSS)
            drawPowerLoss(out, x, panel.top, panel.top + PANEL_HEIGHT);
        else
            drawMark(out, entry, x, panel.yOfSteps(entry.count));
    }
}

/// Names the marks that the journal has.
void drawLegend(std::ostream& out, const Journal& journal)
{
    const struct {
        const char* request;
        int result;
        const char* text;
        double width;
    } marks[] = {{"MOVE", 0, "move", 68},        {"ROTATE", 0, "rotate", 72},
                 {"STOP", 0, "stop", 62},        {"SET_POSITION", 0, "position set", 108},
                 {"", 1, "request failed", 116}, {JOURNAL_POWER_LOSS, 0, "power loss", 96}};
    constexpr double Y = 40;
    double x = LEFT + 5;
    for (const auto& mark : marks) {
        const bool failure = mark.result != 0;
        if (std::none_of(journal.begin(), journal.end(), [&](const LabJournalEntry& entry) {
                return failure ? entry.result != 0 : entry.result == 0 && entry.request == mark.request;
            }))
            continue;
        LabJournalEntry sample{};
        sample.request = mark.request;
        sample.result = mark.result;
        if (sample.request == JOURNAL_POWER_LOSS)
            drawPowerLoss(out, x, Y - 9, Y + 7);
        else
            drawMark(out, sample, x, Y);
        out << "<text x='" << x + 12 << "' y='" << Y + 4 << "'>" << mark.text << "</text>\n";
        x += mark.width;
    }
}

} // namespace

std::string plotLab(const Journal& journal, const std::vector<LabCetEntry>& cetLog,
                    const LabAxisSetting (&axes)[LAB_AXIS_COUNT], int64_t untilLabNs,
                    std::optional<int64_t> wallAtZeroNs)
{
    TimeScale time = timeScaleOf(journal, cetLog, seconds(untilLabNs));
    if (wallAtZeroNs) {
        const auto wall = static_cast<time_t>(*wallAtZeroNs / NS_PER_SECOND);
        tm local{};
        localtime_r(&wall, &local);
        time.localAtZero = seconds(*wallAtZeroNs) + static_cast<double>(local.tm_gmtoff);
    }
    std::ostringstream origins;
    const double top = PANEL_TOP + drawOrigins(origins, time, cetLog);
    const Panel panels[] = {{"Pan", top, axes[LAB_PAN]}, {"Tilt", top + PANEL_HEIGHT + PANEL_GAP, axes[LAB_TILT]}};
    const double height = top + 2 * PANEL_HEIGHT + PANEL_GAP + 56;
    std::ostringstream out;
    out << "<svg xmlns='http://www.w3.org/2000/svg' viewBox='0 0 " << WIDTH << ' ' << height << "' width='" << WIDTH
        << "' height='" << height << "' role='img' aria-label='Pan and tilt over time'>\n"
        << PICTURE_STYLE << STYLE << "<rect class='paper' width='100%' height='100%'/>\n<text class='title' x='" << LEFT
        << "' y='22'>Pan and tilt over time</text>\n";
    drawLegend(out, journal);
    out << origins.str();
    for (const LabAxisId axis : {LAB_PAN, LAB_TILT}) {
        drawGrid(out, panels[axis], time, axis == LAB_TILT);
        drawCourse(out, panels[axis], time, journal, axis);
        drawMarks(out, panels[axis], time, journal, axis);
    }
    out << "<text class='unit' x='" << (LEFT + WIDTH - RIGHT) / 2 << "' y='" << height - 12 << "' text-anchor='middle'>"
        << (wallAtZeroNs ? "the lab's wall clock" : "lab time in s") << "</text>\n</svg>\n";
    return out.str();
}
