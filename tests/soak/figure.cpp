#include "figure.h"

#include "lab/core/picture.h"

#include <algorithm>

namespace {

constexpr double WIDTH = 1000;
constexpr double LEFT = 80;
constexpr double RIGHT = 980;
constexpr double TOP = 82;
constexpr double GAP = 44;

constexpr const char* STYLE = R"(
  .course { fill: none; stroke: #1668b8; stroke-width: 1.5 } .cut { stroke: #c43a31; stroke-dasharray: 4 3 }
  @media (prefers-color-scheme: dark) {
    .course { stroke: #63b0f4 } .cut { stroke: #f2776e }
  }
)";

/// One value over the hours, a course for each life.
void drawCourses(Picture& picture, const Panel& panel, const std::vector<Sample>& samples, size_t what)
{
    std::vector<std::pair<double, double>> points;
    for (size_t i = 0; i < samples.size(); ++i) {
        const Sample& sample = samples[i];
        if (i > 0 && samples[i - 1].life != sample.life) {
            picture.line("cut", panel.x(sample.hours), panel.top, panel.x(sample.hours), panel.bottom());
            picture.course("course", points);
            points.clear();
        }
        const auto sameAs = [&](size_t other) {
            return other < samples.size() && samples[other].life == sample.life &&
                   samples[other].held[what] == sample.held[what];
        };
        if (!sameAs(i - 1) || !sameAs(i + 1)) // else on a level line
            points.emplace_back(panel.x(sample.hours), panel.y(static_cast<double>(sample.held[what])));
    }
    picture.course("course", points);
}

} // namespace

std::string drawSamples(const std::vector<Sample>& samples, const std::string& title)
{
    const struct {
        const char* name;
        double height;
    } rows[HELD_COUNT] = {{"Resident memory <tspan class='unit'>kB</tspan>", 180},
                          {"Open descriptors", 70},
                          {"Threads <tspan class='unit'>at rest</tspan>", 70},
                          {"Timers <tspan class='unit'>created</tspan>", 70}};
    const double last = samples.empty() ? 0.1 : std::max(samples.back().hours, 0.1);
    Picture picture(WIDTH, title, STYLE);
    picture.text(LEFT, 26, title, "title");
    picture.text(LEFT, 46, "dashed: power cut and new start", "unit");
    Panel panel{LEFT, TOP, RIGHT - LEFT, 0, 0, last};
    for (size_t what = 0; what < HELD_COUNT; ++what) {
        panel.height = rows[what].height;
        panel.toY = 1;
        for (const Sample& sample : samples)
            panel.toY = std::max(panel.toY, 1.25 * static_cast<double>(sample.held[what]));
        picture.text(LEFT, panel.top - 8, rows[what].name);
        panel.draw(picture, 0, panel.toY, std::max(roundStep(panel.toY, 4), 1.0));
        drawCourses(picture, panel, samples, what);
        panel.top = panel.bottom() + GAP;
    }
    const bool inDays = last > 72;
    const double unit = inDays ? 24 : 1;
    const double bottom = panel.top - GAP / 2;
    for (double time = 0; time * unit <= last; time += roundStep(last / unit, 8))
        picture.text(panel.x(time * unit), bottom, number(time), "", "middle");
    picture.text((LEFT + RIGHT) / 2, bottom + 20, inDays ? "days of the lab" : "hours of the lab", "unit", "middle");
    return picture.finish(bottom + 40);
}
