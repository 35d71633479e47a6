// Snapshots in the text format 0.0.4 of Prometheus.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "metrics/snapshot.h"

namespace metrics {

inline constexpr char kExpositionType[] = "text/plain; version=0.0.4; charset=utf-8";

// Writes families, one after the other: all samples of one stand together.
class Exposition {
  public:
    using Pairs = std::vector<std::pair<std::string_view, std::string_view>>;

    void Family(const char* name, Kind kind, std::string_view help);
    // Of the family that was begun last; suffix: behind its name.
    void Sample(const Pairs& labels, double value, std::string_view suffix = {});
    std::string Take() { return std::move(text_); }

  private:
    std::string text_;
    std::string name_;
};

// All that the rows know of these programs, whether each runs, and since when.
void Write(Exposition& exposition, const std::vector<Snapshot>& programs);

}  // namespace metrics
