// What a program has counted, as another process finds it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "metrics/layout.h"

namespace metrics {

struct Snapshot {
    Program program{};
    bool running = false;  // else these are its last words
    std::uint64_t process = 0;
    std::int64_t started = 0;  // seconds since 1970
    std::string version;
    std::vector<std::string> interfaces;  // by place
    std::vector<std::uint64_t> words;     // of all rows, summed over the stripes

    // Of the row: the first of its places, each WordsOf long.
    const std::uint64_t* Of(Metric metric) const {
        return words.data() + kOffsets[static_cast<std::size_t>(metric)];
    }
    // A gauge of a program that is gone is 0: nothing of it is left.
    std::int64_t Gauge(Metric metric, std::size_t place = 0) const;
    std::size_t Places(Metric metric) const;
};

// Nothing if there is no file, or none that this program knows how to read: another version's.
std::optional<Snapshot> Read(Program program);
// The same of a file at any path.
std::optional<Snapshot> ReadFile(Program program, const std::string& path);

}  // namespace metrics
