// What every part of the bench shares: how much effort it makes, and the rows of its table. One thread.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

/// How long and how often things are measured.
struct Effort {
    int rounds;                       // of an alternation
    std::chrono::milliseconds window; // of closed-loop calls, each side of a round
    int motions;                      // pairs of a motion and a stop, each side
    int starts;                       // of each program
    std::chrono::milliseconds rest;   // observed at rest, and moving
    int saves;                        // counted in the sped-up lab
    double labSpeed;                  // of that lab
    std::vector<int> clients;
    std::vector<int> daemons;
};

/// One line of the table: two medians with their 99th percentiles, or two single figures.
struct Row {
    std::string what;
    std::string unit;
    std::optional<double> ptzd{};
    std::optional<double> ptzd99{};
    std::optional<double> bare{};
    std::optional<double> bare99{};
    std::optional<double> ratio{}; // or the difference that the goal is about
    std::string goal{};
    std::optional<bool> met{};
};

/// A curve of the plot, over what grows.
struct Curve {
    std::string panel; // what is shown, and over what
    std::string name;
    std::vector<std::pair<double, double>> points;
};

class Report {
public:
    void section(const std::string& title);
    void add(Row row);
    /// Adds a point to a curve, which begins with its first point.
    void point(const std::string& panel, const std::string& name, double x, double y);
    /// Notes something that must hold whatever the machine does; without it the bench fails.
    void require(bool holds, const std::string& what);

    [[nodiscard]] const std::vector<Row>& rows() const
    {
        return rows_;
    }
    [[nodiscard]] const std::vector<Curve>& curves() const
    {
        return curves_;
    }
    [[nodiscard]] bool failed() const
    {
        return failed_;
    }

private:
    std::vector<Row> rows_;
    std::vector<Curve> curves_;
    bool failed_ = false;
};

/// The parts, each a group of rows. Each starts and ends its own labs.
using Part = void(const Effort&, Report&);
Part benchCalls;
Part benchMotion;
Part benchSubscribers;
Part benchRest;
Part benchMemory;
Part benchStart;
Part benchWrites;
Part benchClients;
Part benchSettings;
Part benchDaemons;

/// The table as text, which is Markdown too.
std::string tableOf(const Report& report);

/// Ratios with their goals, and the curves, as an SVG picture.
std::string pictureOf(const Report& report);
