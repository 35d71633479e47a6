// Stacked bars over time as inline SVG.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace stats {

struct PlotSeries {
    std::string name;
    int color;                         // class s0 to s7 of the page's style
    std::vector<std::int64_t> values;  // one a bar
};

struct Plot {
    std::string title;                // "Last 24 hours"
    std::string xTitle;               // "hour (UTC)"
    std::string yTitle;               // "messages"
    std::vector<std::string> labels;  // one a bar, short
    std::vector<PlotSeries> series;   // the lowest first
};

// A figure with its title, axes and bars; each bar tells its numbers to a pointer. Without any
// events it says so in words.
std::string SvgPlot(const Plot& plot);
// What the colors mean.
std::string PlotLegend(const std::vector<PlotSeries>& series);

// The step between the marks of an axis for values up to `most`: 1, 2 or 5 times a power of ten,
// so that there are 2 to 5 marks.
std::int64_t AxisStep(std::int64_t most);
// At most four characters or so: 950, 1.2k, 30k, 4M.
std::string ShortNumber(std::int64_t number);

}  // namespace stats
