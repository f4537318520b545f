#include "picture.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>

namespace {

constexpr const char* STYLE = R"(<style>
  svg { font: 12px sans-serif }
  .paper { fill: #ffffff } .grid { stroke: #d8dde3; stroke-width: 1 } .frame { stroke: #7a8594; fill: none }
  text { fill: #2b333d } .title { font-size: 15px; font-weight: bold } .unit { fill: #5b6672 }
  @media (prefers-color-scheme: dark) {
    .paper { fill: #14181d } .grid { stroke: #313a45 } .frame { stroke: #8592a3 }
    text { fill: #dbe2ea } .unit { fill: #9aa6b4 }
  }
</style>
)";

/// printf into a string.
[[gnu::format(printf, 1, 2)]] std::string print(const char* format, ...)
{
    char text[1024];
    va_list values;
    va_start(values, format);
    (void)vsnprintf(text, sizeof(text), format, values);
    va_end(values);
    return text;
}

} // namespace

Picture::Picture(double width, std::string title, std::string style)
    : width_(width), title_(std::move(title)), style_(std::move(style))
{
}

void Picture::text(double x, double y, const std::string& words, const char* kind, const char* anchor)
{
    add(print("<text class='%s' x='%g' y='%g' text-anchor='%s'>", kind, x, y, anchor) + words + "</text>\n");
}

void Picture::line(const char* kind, double x1, double y1, double x2, double y2)
{
    add(print("<line class='%s' x1='%g' y1='%g' x2='%g' y2='%g'/>\n", kind, x1, y1, x2, y2));
}

void Picture::box(const std::string& kind, double x, double y, double width, double height)
{
    add(print("<rect class='%s' x='%g' y='%g' width='%g' height='%g'/>\n", kind.c_str(), x, y, width, height));
}

void Picture::dot(const std::string& kind, double x, double y, double radius)
{
    add(print("<circle class='%s' cx='%g' cy='%g' r='%g'/>\n", kind.c_str(), x, y, radius));
}

void Picture::course(const std::string& kind, const std::vector<std::pair<double, double>>& points)
{
    add("<polyline class='" + kind + "' points='");
    for (const auto& [x, y] : points)
        add(print("%g,%g ", x, y));
    add("'/>\n");
}

void Picture::add(const std::string& svg)
{
    body_ += svg;
}

std::string Picture::finish(double height) const
{
    return print("<svg xmlns='http://www.w3.org/2000/svg' viewBox='0 0 %g %g' width='%g' height='%g' role='img' "
                 "aria-label='%s'>\n",
                 width_, height, width_, height, title_.c_str()) +
           STYLE + "<style>\n" + style_ + "</style>\n<rect class='paper' width='100%' height='100%'/>\n" + body_ +
           "</svg>\n";
}

void Panel::draw(Picture& picture, double low, double high, double step) const
{
    for (double value = std::ceil(low / step) * step; value <= high; value += step) {
        picture.line("grid", left, y(value), right(), y(value));
        picture.text(left - 8, y(value) + 4, number(value), "", "end");
    }
    picture.box("frame", left, top, width, height);
}

std::string number(double value)
{
    return print("%g", std::abs(value) < 1e-9 ? 0 : value);
}

double roundStep(double span, int count)
{
    const double rough = span / count;
    const double power = std::pow(10, std::floor(std::log10(rough)));
    const double digit = rough / power;
    return power * (digit <= 1 ? 1 : digit <= 2 ? 2 : digit <= 5 ? 5 : 10);
}
