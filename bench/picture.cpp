// The bench as a picture: the ratios that have a goal, by the side of it that is good, and what grows.

#include "bench.h"

#include "lab/core/picture.h"

#include <algorithm>
#include <cmath>
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

constexpr const char* STYLE = R"(
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
)";

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

/// Draws the rows of one kind under their heading, from `y` on; nothing where there are none. @return where it ends.
double drawBars(Picture& picture, const std::vector<Row>& rows, bool rates, double y)
{
    constexpr double SCALE = (BAR_RIGHT - LEFT) / SCALE_MAX;
    const double heading = y;
    double goal = 0;
    y += 12;
    for (const Row& row : rows) {
        if (goalOf(row) == 0 || isRate(row) != rates)
            continue;
        goal = goalOf(row);
        const double length = std::min(*row.ratio, SCALE_MAX) * SCALE;
        picture.text(LEFT - 10, y + 15, row.what, "", "end");
        picture.box(row.met.value_or(false) ? "met" : "missed", LEFT, y + 3, length, BAR_HEIGHT - 6);
        picture.line("goal", LEFT + goal * SCALE, y, LEFT + goal * SCALE, y + BAR_HEIGHT);
        picture.text(LEFT + std::max(length, goal * SCALE) + 8, y + 15, number(std::round(*row.ratio * 1000) / 1000),
                     "unit");
        y += BAR_HEIGHT;
    }
    if (goal == 0)
        return heading;
    picture.text(20, heading, rates ? "Rate of calls, relative to a bare object" : "Time, relative to a bare object",
                 "group");
    picture.text(LEFT, heading,
                 (rates ? "higher is better: each bar is to reach the line at "
                        : "lower is better: each bar is to end before the line at ") +
                     number(goal),
                 "unit");
    return y + GROUP_GAP;
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

void drawCurve(Picture& picture, const Panel& panel, const Curve& curve, int place)
{
    const std::string kind = std::to_string(place);
    std::vector<std::pair<double, double>> points;
    double labelled = 0;
    for (const auto& [x, y] : curve.points) {
        points.emplace_back(panel.x(x), panel.y(y));
        picture.dot("d" + kind, panel.x(x), panel.y(y), 3);
        if (place == 0 && panel.x(x) - labelled >= TICK_WIDTH) {
            picture.text(panel.x(x), panel.bottom() + 16, number(x), "unit", "middle");
            labelled = panel.x(x);
        }
    }
    picture.course("curve c" + kind, points);
    const double column = panel.left + place * PANEL_WIDTH / 2;
    picture.dot("d" + kind, column + 5, panel.top - 12, 4);
    picture.text(column + 14, panel.top - 8, curve.name);
}

/// `name`: "what is shown, over what grows", the titles of the two axes.
void drawPanel(Picture& picture, const std::vector<Curve>& curves, const std::string& name, double left, double top)
{
    Panel panel{left, top, PANEL_WIDTH, PANEL_HEIGHT, 0, 0, 0, 0};
    for (const Curve& curve : curves) {
        for (const auto& [x, y] : curve.points) {
            panel.toX = curve.panel == name ? std::max(panel.toX, x) : panel.toX;
            panel.toY = curve.panel == name ? std::max(panel.toY, y) : panel.toY;
        }
    }
    panel.toY = roundUp(panel.toY);
    panel.draw(picture, 0, panel.toY, panel.toY / 4);
    const size_t over = name.find(", over ");
    picture.text(left, top - 30, name.substr(0, over), "group");
    if (over != std::string::npos)
        picture.text(left + PANEL_WIDTH / 2, panel.bottom() + 34, name.substr(over + 7), "unit", "middle");
    int place = 0;
    for (const Curve& curve : curves) {
        if (curve.panel == name)
            drawCurve(picture, panel, curve, place++);
    }
}

} // namespace

std::string pictureOf(const Report& report)
{
    Picture picture(WIDTH, "What the daemon costs", STYLE);
    picture.text(20, 30, "The daemon beside a bare object", "title");
    double y = 60;
    for (const bool rates : {true, false})
        y = drawBars(picture, report.rows(), rates, y);
    std::vector<std::string> panels;
    for (const Curve& curve : report.curves()) {
        if (std::find(panels.begin(), panels.end(), curve.panel) == panels.end())
            panels.push_back(curve.panel);
    }
    y += 30;
    for (size_t i = 0; i < panels.size(); ++i) {
        drawPanel(picture, report.curves(), panels[i], PANEL_LEFT + (i % 2 == 0 ? 0 : PANEL_STRIDE_X), y);
        if (i % 2 == 1 || i + 1 == panels.size())
            y += PANEL_STRIDE_Y;
    }
    return picture.finish(y);
}
