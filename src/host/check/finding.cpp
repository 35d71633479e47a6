#include "host/check/finding.h"

#include <algorithm>

#include "text/printable.h"

namespace {

const char* Word(Severity severity) { return severity == Severity::kError ? "error" : "warning"; }

std::string Count(std::ptrdiff_t count, const char* word) {
    return std::to_string(count) + ' ' + word + (count == 1 ? "" : "s");
}

std::ptrdiff_t CountOf(const std::vector<Finding>& all, Severity severity) {
    return std::count_if(all.begin(), all.end(),
                         [severity](const Finding& each) { return each.severity == severity; });
}

}  // namespace

std::string Findings::Text() const {
    std::string text;
    for (const Finding& each : all_)
        text += std::string(Word(each.severity)) + ": " + CleanText(each.key) + ": " +
                CleanText(each.problem) + "; " + CleanText(each.remedy) + '\n';
    if (all_.empty()) return "nothing to complain of\n";
    return text + Count(CountOf(all_, Severity::kError), "error") + ", " +
           Count(CountOf(all_, Severity::kWarning), "warning") + '\n';
}

std::string Findings::Json() const {
    std::string text = "[";
    for (const Finding& each : all_) {
        text += &each == &all_.front() ? "\n" : ",\n";
        text += "  {\"severity\": " + QuotedText(Word(each.severity)) +
                ", \"key\": " + QuotedText(each.key) +
                ", \"problem\": " + QuotedText(each.problem) +
                ", \"remedy\": " + QuotedText(each.remedy) + '}';
    }
    return text + (all_.empty() ? "]\n" : "\n]\n");
}

int Findings::ExitCode() const {
    if (all_.empty()) return 0;
    return CountOf(all_, Severity::kError) > 0 ? 2 : 1;
}
