// The bench as a picture: the ratios that have a goal, by the side of it that is good, and what grows.

#include "bench.h"

#include "lab/picture.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr double WIDTH = 1000;
constexpr double LEFT = 330;
constexpr double BAR_RIGHT = 960;
constexpr double BAR_HEIGHT = 22;
constexpr double PANEL_LEFT = 60;
constexpr double PANEL_WIDTH = 390;
constexpr double PANEL_HEIGHT = 180;
constexpr double PANEL_STRIDE_X = 490;
constexpr double PANEL_STRIDE_Y = 270;
constexpr double GROUP_GAP = 34;
constexpr double TICK_WIDTH = 18;
constexpr double SCALE_MAX = 1.5; // of the ratios' bars

constexpr const char* STYLE = R"(<style>
  .met { fill: #2f8f46 } .missed { fill: #c43a31 } .goal { stroke: #2b333d; stroke-width: 2 }
  .group { font-weight: bold }
  .curve { fill: none; stroke-width: 2; stroke-linejoin: round }
  .c0 { stroke: #1668b8 } .c1 { stroke: #b86a16 } .c2 { stroke: #8a4fbf } .c3 { stroke: #2f8f46 }
  .d0 { fill: #1668b8 } .d1 { fill: #b86a16 } .d2 { fill: #8a4fbf } .d3 { fill: #2f8f46 }
  @media (prefers-color-scheme: dark) {
    .goal { stroke: #dbe2ea }
    .met { fill: #63c97c } .missed { fill: #f2776e }
    .c0 { stroke: #63b0f4 } .c1 { stroke: #f0a95c } .c2 { stroke: #c193ef } .c3 { stroke: #63c97c }
    .d0 { fill: #63b0f4 } .d1 { fill: #f0a95c } .d2 { fill: #c193ef } .d3 { fill: #63c97c }
  }
</style>
)";

/// printf into a string.
__attribute__((format(printf, 1, 2))) std::string print(const char* format, ...)
{
    char text[2048];
    va_list values;
    va_start(values, format);
    (void)vsnprintf(text, sizeof(text), format, values);
    va_end(values);
    return text;
}

std::string text(double x, double y, const std::string& words, const char* style = "", const char* anchor = "start")
{
    return print("<text x='%.0f' y='%.0f' class='%s' text-anchor='%s'>%s</text>\n", x, y, style, anchor, words.c_str());
}

std::string line(const char* style, double x1, double y1, double x2, double y2)
{
    return print("<line class='%s' x1='%.1f' y1='%.1f' x2='%.1f' y2='%.1f'/>\n", style, x1, y1, x2, y2);
}

/// The number that a goal of the form "≤ 1.1" or "rate ≥ 0.95" names; 0 when it is about something else than the ratio.
double goalOf(const Row& row)
{
    const size_t sign = row.goal.find_first_of("0123456789");
    const bool ratio = row.goal.starts_with("≤") || row.goal.starts_with("rate");
    return row.ratio && ratio && sign != std::string::npos ? strtod(row.goal.c_str() + sign, nullptr) : 0;
}

/// Rows whose ratio is that of rates, which may not be lower than the goal; else that of times, which may not be
/// higher.
bool isRate(const Row& row)
{
    return row.goal.starts_with("rate");
}

/// The rows of one kind under their heading; nothing where there are none.
std::string bars(const std::vector<Row>& rows, bool rates, double& y)
{
    constexpr double SCALE = (BAR_RIGHT - LEFT) / SCALE_MAX;
    const double heading = y;
    double goal = 0;
    std::string svg;
    y += 12;
    for (const Row& row : rows) {
        if (goalOf(row) == 0 || isRate(row) != rates)
            continue;
        goal = goalOf(row);
        const double length = std::min(*row.ratio, SCALE_MAX) * SCALE;
        svg += text(LEFT - 10, y + 15, row.what, "", "end");
        svg += print("<rect class='%s' x='%.0f' y='%.1f' width='%.1f' height='%.0f'/>\n",
                     row.met.value_or(false) ? "met" : "missed", LEFT, y + 3, length, BAR_HEIGHT - 6);
        svg += line("goal", LEFT + goal * SCALE, y, LEFT + goal * SCALE, y + BAR_HEIGHT);
        svg += text(LEFT + std::max(length, goal * SCALE) + 8, y + 15, print("%.3f", *row.ratio), "unit");
        y += BAR_HEIGHT;
    }
    if (svg.empty()) {
        y = heading;
        return svg;
    }
    y += GROUP_GAP;
    const std::string good = (rates ? "higher is better: each bar is to reach the line at "
                                    : "lower is better: each bar is to end before the line at ") +
                             print("%g", goal);
    return text(20, heading, rates ? "Rate of calls, relative to a bare object" : "Time, relative to a bare object",
                "group") +
           text(LEFT, heading, good, "unit") + svg;
}

/// A round number that is not below the value.
double roundUp(double value)
{
    const double power = std::pow(10, std::floor(std::log10(std::max(value, 1e-9))));
    for (const double digit : {1.0, 1.2, 1.6, 2.0, 2.4, 3.2, 4.0, 6.0, 8.0}) { // a quarter of each is round too
        if (value <= digit * power)
            return digit * power;
    }
    return 10 * power;
}

struct Panel {
    double left;
    double top;
    double maxX;
    double maxY;

    [[nodiscard]] double x(double value) const
    {
        return left + value / maxX * PANEL_WIDTH;
    }
    [[nodiscard]] double y(double value) const
    {
        return top + (1 - value / maxY) * PANEL_HEIGHT;
    }
};

/// `name`: "what is shown, over what grows", the titles of the two axes.
std::string frameOf(const Panel& panel, const std::string& name)
{
    const size_t over = name.find(", over ");
    std::string svg;
    for (int i = 0; i <= 4; ++i) {
        const double value = panel.maxY * i / 4;
        svg += line("grid", panel.left, panel.y(value), panel.left + PANEL_WIDTH, panel.y(value));
        svg += text(panel.left - 6, panel.y(value) + 4, print("%g", value), "unit", "end");
    }
    svg += print("<rect class='frame' x='%.0f' y='%.0f' width='%.0f' height='%.0f'/>\n", panel.left, panel.top,
                 PANEL_WIDTH, PANEL_HEIGHT);
    svg += text(panel.left, panel.top - 30, name.substr(0, over), "group");
    return over == std::string::npos ? svg
                                     : svg + text(panel.left + PANEL_WIDTH / 2, panel.top + PANEL_HEIGHT + 34,
                                                  name.substr(over + 7), "unit", "middle");
}

std::string curveIn(const Panel& panel, const Curve& curve, int number)
{
    std::string points;
    std::string dots;
    double labelled = 0;
    for (const auto& [x, y] : curve.points) {
        points += print("%.1f,%.1f ", panel.x(x), panel.y(y));
        dots += print("<circle class='d%d' cx='%.1f' cy='%.1f' r='3'/>\n", number, panel.x(x), panel.y(y));
        if (number == 0 && panel.x(x) - labelled >= TICK_WIDTH) {
            dots += text(panel.x(x), panel.top + PANEL_HEIGHT + 16, print("%g", x), "unit", "middle");
            labelled = panel.x(x);
        }
    }
    const double column = panel.left + number * PANEL_WIDTH / 2;
    return print("<polyline class='curve c%d' points='%s'/>\n", number, points.c_str()) + dots +
           print("<circle class='d%d' cx='%.0f' cy='%.0f' r='4'/>\n", number, column + 5, panel.top - 12) +
           text(column + 14, panel.top - 8, curve.name);
}

std::string panelOf(const std::vector<Curve>& curves, const std::string& name, double left, double top)
{
    Panel panel{left, top, 0, 0};
    for (const Curve& curve : curves) {
        for (const auto& [x, y] : curve.points) {
            panel.maxX = curve.panel == name ? std::max(panel.maxX, x) : panel.maxX;
            panel.maxY = curve.panel == name ? std::max(panel.maxY, y) : panel.maxY;
        }
    }
    panel.maxY = roundUp(panel.maxY);
    std::string svg = frameOf(panel, name);
    int number = 0;
    for (const Curve& curve : curves) {
        if (curve.panel == name)
            svg += curveIn(panel, curve, number++);
    }
    return svg;
}

} // namespace

std::string pictureOf(const Report& report)
{
    double y = 60;
    std::string body = text(20, 30, "The daemon beside a bare object", "title");
    for (const bool rates : {true, false})
        body += bars(report.rows(), rates, y);
    std::vector<std::string> panels;
    for (const Curve& curve : report.curves()) {
        if (std::find(panels.begin(), panels.end(), curve.panel) == panels.end())
            panels.push_back(curve.panel);
    }
    y += 30;
    for (size_t i = 0; i < panels.size(); ++i) {
        body += panelOf(report.curves(), panels[i], PANEL_LEFT + (i % 2 == 0 ? 0 : PANEL_STRIDE_X), y);
        if (i % 2 == 1 || i + 1 == panels.size())
            y += PANEL_STRIDE_Y;
    }
    return print(
               "<svg xmlns='http://www.w3.org/2000/svg' viewBox='0 0 %.0f %.0f' width='%.0f' height='%.0f' role='img' "
               "aria-label='What the daemon costs'>\n",
               WIDTH, y, WIDTH, y) +
           PICTURE_STYLE + STYLE + "<rect class='paper' width='100%' height='100%'/>\n" + body + "</svg>\n";
}
