// metrics/: numbers that a process counts as it works, in memory that other processes see.
//
//   table     the kinds of rows; rows.h the table of all metrics: to add one is one row there
//   count     counting: a relaxed atomic addition, and no call of the system
//   layout    the file in which the numbers stand, one a program
//   snapshot  what another process reads there
//   exposition  the text in which Prometheus takes it
//
// This header: what a row can say.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace metrics {

enum class Program : std::size_t { kProxy, kMailDaemon, kLogger, kStatistics, kStore };
// As people call them, and so the files below metrics/ of the instance.
inline constexpr std::array<const char*, 5> kProgramNames{"vtsmtpproxy", "vtmaild", "vtlogd",
                                                          "vtstatd", "vtregistry"};

constexpr unsigned In(Program program) { return 1U << static_cast<unsigned>(program); }

enum class Kind { kCounter, kGauge, kHistogram };

// The values of a row's label.
enum class Labels {
    kNone,
    kFixed,      // those that the row names
    kInterfaces  // the names of the interfaces that there have been
};

using Texts = std::span<const char* const>;
using Bounds = std::span<const std::uint64_t>;

struct Row {
    const char* name;
    Kind kind;
    unsigned programs;  // which count it; more than one: it has the label program
    const char* help;
    Labels labels = Labels::kNone;
    const char* label = nullptr;
    Texts values{};
    Bounds bounds{};            // of a histogram, rising, in the unit that is counted in
    std::uint64_t perUnit = 1;  // of these in the unit that is shown: microseconds of a second

    constexpr Row With(const char* which, Texts these) const {
        Row row = *this;
        row.labels = Labels::kFixed;
        row.label = which;
        row.values = these;
        return row;
    }
    constexpr Row ByInterface() const {
        Row row = *this;
        row.labels = Labels::kInterfaces;
        row.label = "interface";
        return row;
    }
    constexpr Row Over(Bounds these, std::uint64_t counted = 1) const {
        Row row = *this;
        row.bounds = these;
        row.perUnit = counted;
        return row;
    }
    constexpr bool InMany() const { return (programs & (programs - 1)) != 0; }
};

// Interfaces have places in the order in which they are first heard of. Who comes when all are
// taken is counted in the last one, which has this name.
inline constexpr std::size_t kInterfacePlaces = 64;
inline constexpr char kOtherInterfaces[] = "(others)";

constexpr std::size_t PlacesOf(const Row& row) {
    if (row.labels == Labels::kInterfaces) return kInterfacePlaces;
    return row.labels == Labels::kFixed ? row.values.size() : 1;
}
// A histogram has a word a bucket, the last for what is above all bounds, and its sum.
constexpr std::size_t WordsOf(const Row& row) {
    return row.kind == Kind::kHistogram ? row.bounds.size() + 2 : 1;
}

}  // namespace metrics
