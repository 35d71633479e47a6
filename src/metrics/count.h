// Counting. Any thread, at any time; nothing waits, fails or calls the system. A label's place that
// is none is not counted.
#pragma once

#include <string_view>

#include "metrics/layout.h"

namespace metrics {

// From here on this process counts, from zero, where others can read it: in metrics/PROGRAM of the
// instance, with the process's number, start and version. The program's instance lock is held: one
// writer a file. Before, and where the file can't be had, it counts in memory of its own; false
// then. Once, before the threads that count. What was counted before is left behind.
bool Open(Program program);
// The place of an interface for the label; the same for the same name. One thread.
std::size_t InterfacePlace(std::string_view name);

// Of the calling thread, in the process's page.
Word* Stripe();

template <Metric kMetric>
Word* WordAt(std::size_t place) {
    constexpr const Row& kRow = RowOf(kMetric);
    if (place >= PlacesOf(kRow)) return nullptr;
    return Stripe() + kOffsets[static_cast<std::size_t>(kMetric)] + place * WordsOf(kRow);
}

template <Metric kMetric>
void Add(std::size_t place = 0, std::uint64_t count = 1) {
    static_assert(RowOf(kMetric).kind != Kind::kHistogram);
    if (Word* const word = WordAt<kMetric>(place))
        word->fetch_add(count, std::memory_order_relaxed);
}
template <Metric kMetric, typename Place>
requires std::is_enum_v<Place>
void Add(Place place, std::uint64_t count = 1) {
    Add<kMetric>(static_cast<std::size_t>(place), count);
}

template <Metric kMetric>
void Subtract(std::size_t place = 0, std::uint64_t count = 1) {
    static_assert(RowOf(kMetric).kind == Kind::kGauge);
    if (Word* const word = WordAt<kMetric>(place))
        word->fetch_sub(count, std::memory_order_relaxed);
}

// For a gauge that is only set; those who set it keep an order among themselves.
void SetWord(std::size_t offset, std::uint64_t value);
template <Metric kMetric>
void Set(std::size_t place, std::uint64_t value) {
    static_assert(RowOf(kMetric).kind == Kind::kGauge);
    if (place < PlacesOf(RowOf(kMetric)))
        SetWord(kOffsets[static_cast<std::size_t>(kMetric)] + place, value);
}
template <Metric kMetric, typename Place>
requires std::is_enum_v<Place>
void Set(Place place, std::uint64_t value) { Set<kMetric>(static_cast<std::size_t>(place), value); }

// value: in the unit that the row counts in.
template <Metric kMetric>
void Observe(std::uint64_t value) {
    constexpr const Row& kRow = RowOf(kMetric);
    static_assert(kRow.kind == Kind::kHistogram);
    std::size_t bucket = 0;
    while (bucket < kRow.bounds.size() && value > kRow.bounds[bucket]) ++bucket;
    Word* const words = WordAt<kMetric>(0);
    words[bucket].fetch_add(1, std::memory_order_relaxed);
    words[kRow.bounds.size() + 1].fetch_add(value, std::memory_order_relaxed);
}

}  // namespace metrics
