#include "figure.h"

#include "lab/picture.h"

#include <algorithm>
#include <cmath>
#include <sstream>

namespace {

constexpr double WIDTH = 1000;
constexpr double LEFT = 80;
constexpr double RIGHT = 20;
constexpr double TOP = 60;
constexpr double GAP = 44;

constexpr const char* STYLE = R"(<style>
  .course { fill: none; stroke: #1668b8; stroke-width: 1.5 } .cut { stroke: #c43a31; stroke-dasharray: 4 3 }
  @media (prefers-color-scheme: dark) {
    .course { stroke: #63b0f4 } .cut { stroke: #f2776e }
  }
</style>
)";

struct Panel {
    const char* name;
    const char* unit;
    long Sample::*value;
    double height;
    double top = 0;
    double most = 0; // at the upper edge

    double y(double at) const
    {
        return top + height * (1 - at / most);
    }
};

class Figure {
public:
    Figure(const std::vector<Sample>& samples, std::ostream& out) : samples_(samples), out_(out)
    {
        last_ = std::max(samples.back().hours, 0.1);
        inDays_ = last_ > 72;
    }
    void draw(const Panel& panel)
    {
        out_ << "<text x='" << LEFT << "' y='" << panel.top - 8 << "'>" << panel.name << " <tspan class='unit'>"
             << panel.unit << "</tspan></text>\n";
        const double step = std::max(roundStep(panel.most, 4), 1.0);
        for (double value = 0; value <= panel.most; value += step) {
            line("grid", LEFT, WIDTH - RIGHT, panel.y(value), panel.y(value));
            out_ << "<text x='" << LEFT - 8 << "' y='" << panel.y(value) + 4 << "' text-anchor='end'>" << value
                 << "</text>\n";
        }
        int life = samples_.front().life;
        std::string points;
        for (size_t i = 0; i < samples_.size(); ++i) {
            const Sample& sample = samples_[i];
            if (sample.life != life) {
                line("cut", x(sample.hours), x(sample.hours), panel.top, panel.top + panel.height);
                course(points);
                life = sample.life;
            }
            const auto sameAs = [&](size_t other) {
                return other < samples_.size() && samples_[other].life == life &&
                       samples_[other].*panel.value == sample.*panel.value;
            };
            if (sameAs(i - 1) && sameAs(i + 1))
                continue; // on a level line
            std::ostringstream point;
            point << x(sample.hours) << ',' << panel.y(static_cast<double>(sample.*panel.value)) << ' ';
            points += point.str();
        }
        course(points);
        out_ << "<rect class='frame' x='" << LEFT << "' y='" << panel.top << "' width='" << WIDTH - LEFT - RIGHT
             << "' height='" << panel.height << "'/>\n";
    }
    void labelTime(double y)
    {
        const double unit = inDays_ ? 24 : 1;
        const double step = roundStep(last_ / unit, 8);
        for (double time = 0; time * unit <= last_; time += step)
            out_ << "<text x='" << x(time * unit) << "' y='" << y << "' text-anchor='middle'>" << time << "</text>\n";
        out_ << "<text class='unit' x='" << (LEFT + WIDTH - RIGHT) / 2 << "' y='" << y + 20 << "' text-anchor='middle'>"
             << (inDays_ ? "days" : "hours") << " of the lab</text>\n";
    }

private:
    double x(double hours) const
    {
        return LEFT + hours / last_ * (WIDTH - LEFT - RIGHT);
    }
    void line(const char* kind, double x1, double x2, double y1, double y2)
    {
        out_ << "<line class='" << kind << "' x1='" << x1 << "' x2='" << x2 << "' y1='" << y1 << "' y2='" << y2
             << "'/>\n";
    }
    void course(std::string& points)
    {
        out_ << "<polyline class='course' points='" << points << "'/>\n";
        points.clear();
    }

    const std::vector<Sample>& samples_;
    std::ostream& out_;
    double last_;
    bool inDays_;
};

} // namespace

std::string drawSamples(const std::vector<Sample>& samples, const std::string& title)
{
    if (samples.empty())
        return "";
    Panel panels[] = {{"Resident memory", "kB", &Sample::residentKb, 180},
                      {"Open descriptors", "", &Sample::descriptors, 70},
                      {"Threads", "at rest", &Sample::threads, 70},
                      {"Timers", "created", &Sample::timers, 70}};
    double bottom = TOP;
    for (Panel& panel : panels) {
        panel.top = bottom + GAP / 2;
        bottom = panel.top + panel.height + GAP / 2;
        for (const Sample& sample : samples)
            panel.most = std::max(panel.most, 1.25 * static_cast<double>(sample.*panel.value));
        panel.most = std::max(panel.most, 1.0);
    }
    std::ostringstream out;
    out << "<svg xmlns='http://www.w3.org/2000/svg' viewBox='0 0 " << WIDTH << ' ' << bottom + 40 << "' width='"
        << WIDTH << "' height='" << bottom + 40 << "' role='img' aria-label='" << title << "'>\n"
        << PICTURE_STYLE << STYLE << "<rect class='paper' width='100%' height='100%'/>\n<text class='title' x='" << LEFT
        << "' y='26'>" << title << "</text>\n<text class='unit' x='" << LEFT
        << "' y='46'>dashed: power cut and new start</text>\n";
    Figure figure(samples, out);
    for (const Panel& panel : panels)
        figure.draw(panel);
    figure.labelTime(bottom);
    out << "</svg>\n";
    return out.str();
}
