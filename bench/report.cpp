// The table of the bench.

#include "bench.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

namespace {

constexpr size_t COLUMNS = 9;
using Cells = std::array<std::string, COLUMNS>;

const Cells HEAD = {"", "unit", "ptzd", "99 %", "bare", "99 %", "ratio", "goal", "met"};

/// Three digits that count, no exponent.
std::string number(const std::optional<double>& value)
{
    if (!value)
        return "";
    char text[32];
    const double size = std::abs(*value);
    if (size < 0.0005)
        return "0";
    const bool whole = *value == std::floor(*value) && size < 1e6;
    const int decimals = whole || size >= 100 ? 0 : size >= 10 ? 1 : size >= 1 ? 2 : 3;
    (void)snprintf(text, sizeof(text), "%.*f", decimals, *value);
    return text;
}

std::string ratio(const std::optional<double>& value)
{
    char text[32];
    (void)snprintf(text, sizeof(text), "%.3f", value.value_or(0));
    return value ? text : "";
}

bool isTitle(const Row& row)
{
    return row.unit.empty();
}

Cells cellsOf(const Row& row)
{
    return {isTitle(row) ? "**" + row.what + "**" : row.what,
            row.unit,
            number(row.ptzd),
            number(row.ptzd99),
            number(row.bare),
            number(row.bare99),
            ratio(row.ratio),
            row.goal,
            !row.met   ? ""
            : *row.met ? "yes"
                       : "no"};
}

/// Columns of a terminal that a text takes: its bytes without the continuation bytes of UTF-8.
size_t widthOf(const std::string& text)
{
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

} // namespace

void Report::section(const std::string& title)
{
    rows_.push_back(Row{title, ""});
}

void Report::add(Row row)
{
    fprintf(stderr, "  %s\n", row.what.c_str());
    rows_.push_back(std::move(row));
}

void Report::point(const std::string& panel, const std::string& name, double x, double y)
{
    const auto known = std::find_if(curves_.begin(), curves_.end(),
                                    [&](const Curve& curve) { return curve.panel == panel && curve.name == name; });
    Curve& curve = known != curves_.end() ? *known : curves_.emplace_back(Curve{panel, name, {}});
    curve.points.emplace_back(x, y);
}

void Report::require(bool holds, const std::string& what)
{
    if (!holds)
        fprintf(stderr, "bench: this does not hold: %s\n", what.c_str());
    failed_ = failed_ || !holds;
}

std::string tableOf(const Report& report)
{
    std::vector<Cells> lines = {HEAD};
    for (const Row& row : report.rows())
        lines.push_back(cellsOf(row));
    std::array<size_t, COLUMNS> widths{};
    for (const Cells& line : lines) {
        for (size_t i = 0; i < COLUMNS; ++i)
            widths[i] = std::max({widths[i], widthOf(line[i]), size_t{3}});
    }
    std::string text;
    for (size_t n = 0; n < lines.size(); ++n) {
        for (size_t i = 0; i < COLUMNS; ++i) {
            const std::string blanks(widths[i] - widthOf(lines[n][i]), ' ');
            const bool figure = i >= 2 && i <= 6;
            text += "| " + (figure ? blanks + lines[n][i] : lines[n][i] + blanks) + " ";
        }
        text += "|\n";
        for (size_t i = 0; n == 0 && i < COLUMNS; ++i)
            text += std::string(i >= 2 && i <= 6 ? "|-" : "|:") + std::string(widths[i], '-') +
                    (i >= 2 && i <= 6 ? ":" : "-");
        text += n == 0 ? "|\n" : "";
    }
    return text;
}
