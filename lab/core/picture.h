#pragma once
// SVG pictures: what the lab's, the bench's and the soak's have in common. Lengths are pixels. Any thread.

#include <functional>
#include <string>
#include <utility>
#include <vector>

/// A picture in the making. Colours follow the viewer's preference for light or dark.
class Picture {
public:
    /// `style`: sheets for the kinds that this picture adds to paper, grid, frame, text, title and unit.
    Picture(double width, std::string title, std::string style);

    void text(double x, double y, const std::string& words, const char* kind = "", const char* anchor = "start");
    void line(const char* kind, double x1, double y1, double x2, double y2);
    void box(const std::string& kind, double x, double y, double width, double height);
    void dot(const std::string& kind, double x, double y, double radius);
    void course(const std::string& kind, const std::vector<std::pair<double, double>>& points);
    /// Anything else.
    void add(const std::string& svg);

    [[nodiscard]] std::string finish(double height) const;

private:
    double width_;
    std::string title_;
    std::string style_;
    std::string body_;
};

/// A frame in a picture, with the values at its edges.
struct Panel {
    double left;
    double top;
    double width;
    double height;
    double fromX = 0;
    double toX = 1;
    double fromY = 0; // at the lower edge
    double toY = 1;

    [[nodiscard]] double right() const
    {
        return left + width;
    }
    [[nodiscard]] double bottom() const
    {
        return top + height;
    }
    [[nodiscard]] double x(double value) const
    {
        return left + (value - fromX) / (toX - fromX) * width;
    }
    [[nodiscard]] double y(double value) const
    {
        return top + (toY - value) / (toY - fromY) * height;
    }
    /// Draws the frame and a line with its number at every multiple of `step` between `low` and `high`.
    void draw(Picture& picture, double low, double high, double step) const;
};

/// A number as short as it can be: 6 digits at most.
std::string number(double value);

/// 1, 2 or 5 times a power of ten, so that a span above 0 has about `count` of them and no more.
double roundStep(double span, int count);
