#include "metrics/exposition.h"

#include <algorithm>
#include <charconv>

#include "text/printable.h"

namespace metrics {
namespace {

const char* WordOf(Kind kind) {
    switch (kind) {
        case Kind::kCounter:
            return "counter";
        case Kind::kGauge:
            return "gauge";
        case Kind::kHistogram:
            break;
    }
    return "histogram";
}

// The shortest that reads back as the same.
std::string NumberText(double value) {
    char text[32];
    const auto [end, error] = std::to_chars(text, text + sizeof text, value);
    return error == std::errc() ? std::string(text, end) : "NaN";
}

std::string_view Name(const Snapshot& from) {
    return kProgramNames[static_cast<std::size_t>(from.program)];
}

void WriteHistogram(Exposition& exposition, const Row& row, const std::uint64_t* words,
                    Exposition::Pairs labels) {
    const auto unit = static_cast<double>(row.perUnit);
    std::uint64_t count = 0;
    for (std::size_t i = 0; i <= row.bounds.size(); ++i) {
        count += words[i];
        const std::string bound =
            i == row.bounds.size() ? "+Inf" : NumberText(static_cast<double>(row.bounds[i]) / unit);
        labels.emplace_back("le", bound);
        exposition.Sample(labels, static_cast<double>(count), "_bucket");
        labels.pop_back();
    }
    exposition.Sample(labels, static_cast<double>(words[row.bounds.size() + 1]) / unit, "_sum");
    exposition.Sample(labels, static_cast<double>(count), "_count");
}

void WriteRow(Exposition& exposition, Metric metric, const Snapshot& from) {
    const Row& row = RowOf(metric);
    const std::uint64_t* const words = from.Of(metric);
    for (std::size_t place = 0; place < from.Places(metric); ++place) {
        Exposition::Pairs labels;
        if (row.InMany()) labels.emplace_back("program", Name(from));
        if (row.labels == Labels::kFixed) labels.emplace_back(row.label, row.values[place]);
        if (row.labels == Labels::kInterfaces)
            labels.emplace_back(row.label, from.interfaces[place]);
        const std::uint64_t* const at = words + place * WordsOf(row);
        if (row.kind == Kind::kHistogram) {
            WriteHistogram(exposition, row, at, labels);
        } else if (row.kind == Kind::kGauge) {
            exposition.Sample(labels, static_cast<double>(from.Gauge(metric, place)));
        } else {
            exposition.Sample(labels, static_cast<double>(*at));
        }
    }
}

}  // namespace

void Exposition::Family(const char* name, Kind kind, std::string_view help) {
    name_ = name;
    text_.append("# HELP ").append(name_).append(" ").append(help).append("\n");
    text_.append("# TYPE ").append(name_).append(" ").append(WordOf(kind)).append("\n");
}

void Exposition::Sample(const Pairs& labels, double value, std::string_view suffix) {
    text_.append(name_).append(suffix);
    for (const auto& [label, text] : labels) {
        text_ += &label == &labels.front().first ? '{' : ',';
        text_.append(label).append("=").append(QuotedText(text));
    }
    if (!labels.empty()) text_ += '}';
    text_.append(" ").append(NumberText(value)).append("\n");
}

void Write(Exposition& exposition, const std::vector<Snapshot>& programs) {
    exposition.Family("vantrel_program_up", Kind::kGauge, "1 if the program runs.");
    for (std::size_t i = 0; i < kProgramNames.size(); ++i) {
        const auto found = std::find_if(
            programs.begin(), programs.end(),
            [i](const Snapshot& each) { return static_cast<std::size_t>(each.program) == i; });
        const bool up = found != programs.end() && found->running;
        exposition.Sample({{"program", kProgramNames[i]}}, up ? 1 : 0);
    }
    exposition.Family("vantrel_process_start_time_seconds", Kind::kGauge,
                      "When the program was started, since 1970.");
    for (const Snapshot& each : programs) {
        if (each.running)
            exposition.Sample({{"program", Name(each)}}, static_cast<double>(each.started));
    }
    exposition.Family("vantrel_build_info", Kind::kGauge, "What runs: always 1.");
    for (const Snapshot& each : programs) {
        if (each.running)
            exposition.Sample({{"program", Name(each)}, {"version", each.version}}, 1);
    }
    for (std::size_t i = 0; i < kRowCount; ++i) {
        const Row& row = kRows[i];
        const auto counts = [&row](const Snapshot& each) {
            return (row.programs & In(each.program)) != 0;
        };
        if (std::none_of(programs.begin(), programs.end(), counts)) continue;
        exposition.Family(row.name, row.kind, row.help);
        for (const Snapshot& each : programs) {
            if (counts(each)) WriteRow(exposition, static_cast<Metric>(i), each);
        }
    }
}

}  // namespace metrics
