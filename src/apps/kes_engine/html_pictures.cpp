// Pictures of numbers, in SVG.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "html.h"

namespace kes_engine::html {
namespace {

constexpr double kWidth = 900;
// Of bars.
constexpr double kNameWidth = 110;
constexpr double kNumberWidth = 90;
constexpr double kBarHeight = 18;
constexpr double kBarDistance = 24;
// Of curves.
constexpr double kLeft = 70;
constexpr double kTop = 36;
constexpr double kPanelHeight = 170;
constexpr double kPanelDistance = 30;
constexpr double kBottom = 36;

std::string Number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}

std::string Picture(double height, std::string_view what, const std::string &content) {
    return "<svg viewBox=\"0 0 " + Number(kWidth) + " " + Number(height) +
           "\" role=\"img\" aria-label=\"" + Escaped(what) + "\">\n" + content + "</svg>\n";
}

std::string Text(double x, double y, std::string_view anchor, std::string_view text,
                 std::string_view style = "") {
    return "<text x=\"" + Number(x) + "\" y=\"" + Number(y) + "\" text-anchor=\"" +
           std::string(anchor) + "\" class=\"" + std::string(style) + "\">" + Escaped(text) +
           "</text>\n";
}

std::string Line(double x1, double y1, double x2, double y2, std::string_view style) {
    return "<line x1=\"" + Number(x1) + "\" y1=\"" + Number(y1) + "\" x2=\"" + Number(x2) +
           "\" y2=\"" + Number(y2) + "\" class=\"" + std::string(style) + "\"/>\n";
}

// The distance of about `count` round numbers up to the highest.
double RoundStep(double highest, double count) {
    const double rough = highest / count;
    const double power = std::pow(10, std::floor(std::log10(rough)));
    for (const double factor : {1.0, 2.0, 5.0}) {
        if (factor * power >= rough) {
            return factor * power;
        }
    }
    return 10 * power;
}

// A round number, without digits that say nothing.
std::string RoundText(double value, double step) {
    const double digits = step < 1 ? std::ceil(-std::log10(step)) : 0;
    return Decimal(value, static_cast<int>(digits));
}

double HighestOf(const std::vector<Series> &series) {
    double highest = 0;
    for (const Series &one : series) {
        for (const double value : one.values) {
            highest = std::max(highest, value);
        }
    }
    return highest;
}

// Where a curve's points are.
struct Frame {
    double top;
    double seconds;
    double highest;

    double X(double time) const {
        return kLeft + time / seconds * (kWidth - kLeft - 10);
    }
    double Y(double value) const {
        return top + kPanelHeight * (1 - value / highest);
    }
};

// Each value holds between two times.
std::string Curve(const Frame &frame, const std::vector<double> &times, const Series &series,
                  bool filled) {
    const auto point = [&](double time, double value) {
        return Number(frame.X(time)) + " " + Number(frame.Y(value));
    };
    std::string path;
    for (size_t i = 0; i < series.values.size(); ++i) {
        path += (i == 0 ? "M" : "L") + point(times[i], series.values[i]) + "L" +
                point(times[i + 1], series.values[i]);
    }
    if (filled) {
        path += "L" + point(times.back(), 0) + "L" + point(times.front(), 0) + "Z";
    }
    return std::string("<path class=\"") + (filled ? "area " : "curve ") + series.style +
           "\" d=\"" + path + "\"/>\n";
}

std::string DrawPanel(const Frame &frame, const std::vector<double> &times, const Panel &panel) {
    std::string content = Text(kLeft, frame.top - 8, "start", panel.unit);
    const double step = RoundStep(frame.highest, 4);
    for (size_t i = 0; static_cast<double>(i) * step <= frame.highest * 1.001; ++i) {
        const double value = static_cast<double>(i) * step;
        content += Line(kLeft, frame.Y(value), kWidth - 10, frame.Y(value), "grid") +
                   Text(kLeft - 6, frame.Y(value) + 4, "end", RoundText(value, step));
    }
    for (const Series &series : panel.series) {
        content += Curve(frame, times, series, panel.filled);
    }
    return content;
}

}  // namespace

std::string Bars(std::string_view what, const std::vector<std::string> &names,
                 const std::vector<Series> &series) {
    std::vector<double> sums(names.size());
    for (const Series &one : series) {
        for (size_t i = 0; i < names.size(); ++i) {
            sums[i] += one.values[i];
        }
    }
    const double highest = std::max(1.0, names.empty() ? 0 : *std::ranges::max_element(sums));
    const double scale = (kWidth - kNameWidth - kNumberWidth) / highest;
    std::string content;
    for (size_t i = 0; i < names.size(); ++i) {
        const double y = kBarDistance * static_cast<double>(i) + 2;
        content += Text(kNameWidth - 8, y + 13.5, "end", names[i], "name");
        double x = kNameWidth;
        for (const Series &one : series) {
            const double width = one.values[i] * scale;
            if (width > 0) {
                content += "<rect class=\"" + one.style + "\" x=\"" + Number(x) + "\" y=\"" +
                           Number(y) + "\" width=\"" + Number(std::max(width, 0.6)) +
                           "\" height=\"" + Number(kBarHeight) + "\"/>\n";
            }
            x += width;
        }
        content += Text(x + 6, y + 13.5, "start", Grouped(static_cast<uint64_t>(sums[i])));
    }
    return Picture(kBarDistance * static_cast<double>(names.size()) + 2, what, content);
}

std::string Curves(std::string_view what, const std::vector<double> &times,
                   const std::vector<Panel> &panels, const std::vector<Mark> &marks) {
    const double seconds = std::max(times.back(), 1e-6);
    std::string content;
    double top = kTop;
    for (const Panel &panel : panels) {
        const double highest = std::max(HighestOf(panel.series), 1.0);
        content += DrawPanel({top, seconds, highest}, times, panel);
        top += kPanelHeight + kPanelDistance;
    }
    const double bottom = top - kPanelDistance;
    const Frame axis = {0, seconds, 1};
    const double step = RoundStep(seconds, 8);
    for (size_t i = 0; static_cast<double>(i) * step <= seconds * 1.001; ++i) {
        const double time = static_cast<double>(i) * step;
        content += Line(axis.X(time), bottom, axis.X(time), bottom + 5, "grid") +
                   Text(axis.X(time), bottom + 18, "middle", RoundText(time, step));
    }
    content += Text(kWidth - 10, bottom + 32, "end", "seconds since the first frame");
    for (const Mark &mark : marks) {
        const bool isLate = mark.at > seconds * 0.8;
        content += Line(axis.X(mark.at), kTop - 20, axis.X(mark.at), bottom, "mark") +
                   Text(axis.X(mark.at) + (isLate ? -4 : 4), kTop - 14, isLate ? "end" : "start",
                        mark.text, "marked");
    }
    return Picture(bottom + kBottom, what, content);
}

}  // namespace kes_engine::html
