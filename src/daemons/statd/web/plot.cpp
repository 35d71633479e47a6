#include "daemons/statd/web/plot.h"

#include <algorithm>
#include <cstdio>

#include "daemons/statd/report/table.h"
#include "daemons/statd/store/text.h"
#include "daemons/statd/web/html.h"

namespace stats {
namespace {

// The drawing, in units that are pixels in a window of 320.
constexpr double kWidth = 300;
constexpr double kHeight = 170;
constexpr double kLeft = 34;
constexpr double kRight = 4;
constexpr double kTop = 18;
constexpr double kBottom = 34;
constexpr double kBarsWidth = kWidth - kLeft - kRight;
constexpr double kBarsHeight = kHeight - kTop - kBottom;
// A few among thousands can still be seen.
constexpr double kLeastHeight = 1.5;
constexpr double kCharacter = 6;
constexpr double kLabelGap = 7;

std::string Coordinate(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}

std::string TextAt(double x, double y, const char* anchor, const std::string& text) {
    return "<text x=\"" + Coordinate(x) + "\" y=\"" + Coordinate(y) + "\" text-anchor=\"" + anchor +
           "\">" + EscapeHtml(text) + "</text>";
}

std::int64_t Stack(const Plot& plot, std::size_t bar) {
    std::int64_t sum = 0;
    for (const PlotSeries& series : plot.series) sum += series.values[bar];
    return sum;
}

std::string Axes(const Plot& plot, std::int64_t top, std::int64_t step) {
    std::string out;
    for (std::int64_t mark = 0; mark <= top; mark += step) {
        const double y =
            kTop + kBarsHeight * (1 - static_cast<double>(mark) / static_cast<double>(top));
        out += "<line" + std::string(mark == 0 ? " class=\"base\"" : "") + " x1=\"" +
               Coordinate(kLeft) + "\" x2=\"" + Coordinate(kWidth - kRight) + "\" y1=\"" +
               Coordinate(y) + "\" y2=\"" + Coordinate(y) + "\"/>" +
               TextAt(kLeft - 4, y + 4, "end", ShortNumber(mark));
    }
    const std::size_t bars = plot.labels.size();
    const std::size_t fit = std::max<std::size_t>(
        1, static_cast<std::size_t>(
               kBarsWidth /
               (static_cast<double>(plot.labels.back().size()) * kCharacter + kLabelGap)));
    const std::size_t every = (bars + fit - 1) / fit;
    for (std::size_t i = 0; i < bars; i += every) {
        const double x =
            kLeft + kBarsWidth * (static_cast<double>(i) + 0.5) / static_cast<double>(bars);
        out += TextAt(x, kHeight - kBottom + 13, "middle", plot.labels[i]);
    }
    return out + TextAt(0, 10, "start", plot.yTitle) +
           TextAt(kLeft + kBarsWidth / 2, kHeight - 5, "middle", plot.xTitle) + "\n";
}

std::string Bar(const Plot& plot, std::size_t bar, std::int64_t top) {
    const double slot = kBarsWidth / static_cast<double>(plot.labels.size());
    const double width = std::max(slot * 0.8, 1.0);
    const double x = kLeft + slot * static_cast<double>(bar) + (slot - width) / 2;
    double y = kTop + kBarsHeight;
    std::string told = plot.labels[bar];
    std::string out;
    for (const PlotSeries& series : plot.series) {
        const std::int64_t value = series.values[bar];
        if (value == 0) continue;
        const double height = std::max(
            kBarsHeight * static_cast<double>(value) / static_cast<double>(top), kLeastHeight);
        y -= height;
        out += "<rect class=\"s" + std::to_string(series.color) + "\" x=\"" + Coordinate(x) +
               "\" y=\"" + Coordinate(y) + "\" width=\"" + Coordinate(width) + "\" height=\"" +
               Coordinate(height) + "\"/>";
        told += ", " + series.name + " " + Grouped(value, " ");
    }
    return "<g><title>" + EscapeHtml(told) + "</title>" + out + "</g>\n";
}

// The numbers for those who don't point, or don't see.
std::string TableBehind(const Plot& plot) {
    Table table{"", {plot.xTitle}, {}};
    for (const PlotSeries& series : plot.series) table.headings.push_back(series.name);
    for (std::size_t i = 0; i < plot.labels.size(); ++i) {
        auto& row = table.rows.emplace_back(1, plot.labels[i]);
        for (const PlotSeries& series : plot.series)
            row.push_back(std::to_string(series.values[i]));
    }
    return "<details><summary>Table</summary>\n" + HtmlTable(table) + "</details>\n";
}

}  // namespace

std::int64_t AxisStep(std::int64_t most) {
    std::int64_t power = 1;
    for (;; power *= 10) {
        for (const std::int64_t factor : {1, 2, 5}) {
            if (factor * power * 4 >= most) return factor * power;
        }
    }
}

std::string ShortNumber(std::int64_t number) {
    if (number < 1000) return std::to_string(number);
    constexpr const char* kUnits[] = {"k", "M", "G", "T", "P", "E"};
    std::size_t unit = 0;
    std::int64_t divisor = 1000;
    while (number / divisor >= 1000) {
        divisor *= 1000;
        ++unit;
    }
    const std::int64_t tenths = number / (divisor / 10);
    std::string text = std::to_string(tenths / 10);
    if (tenths < 100 && tenths % 10 != 0) text += '.' + std::to_string(tenths % 10);
    return text + kUnits[unit];
}

std::string SvgPlot(const Plot& plot) {
    std::string out = "<figure><h3>" + EscapeHtml(plot.title) + "</h3>\n";
    std::int64_t most = 0;
    for (std::size_t i = 0; i < plot.labels.size(); ++i) most = std::max(most, Stack(plot, i));
    if (most == 0) return out + "<p class=\"dim\">None in this period.</p></figure>\n";
    const std::int64_t step = AxisStep(most);
    const std::int64_t top = (most + step - 1) / step * step;
    out += "<svg class=\"plot\" viewBox=\"0 0 " + Coordinate(kWidth) + " " + Coordinate(kHeight) +
           "\" role=\"img\" aria-label=\"" +
           EscapeHtml(plot.title + ", " + plot.yTitle + " by " + plot.xTitle) + "\">\n" +
           Axes(plot, top, step);
    for (std::size_t i = 0; i < plot.labels.size(); ++i) {
        if (Stack(plot, i) > 0) out += Bar(plot, i, top);
    }
    return out + "</svg>\n" + TableBehind(plot) + "</figure>\n";
}

std::string PlotLegend(const std::vector<PlotSeries>& series) {
    std::string out = "<ul class=\"legend\">";
    for (const PlotSeries& each : series)
        out += "<li><svg viewBox=\"0 0 12 12\" aria-hidden=\"true\"><rect class=\"s" +
               std::to_string(each.color) + "\" width=\"12\" height=\"12\" rx=\"2\"/></svg>" +
               EscapeHtml(each.name) + "</li>";
    return out + "</ul>\n";
}

}  // namespace stats
