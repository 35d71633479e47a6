#include "metrics/snapshot.h"

#include <algorithm>
#include <cstring>

#include "platform/home.h"
#include "platform/shared_file.h"

namespace metrics {
namespace {

// A text in a field that ends it where nothing else does.
std::string TextIn(const char* field, std::size_t size) {
    return {field, static_cast<std::size_t>(std::find(field, field + size, '\0') - field)};
}

std::string NameIn(const Word* words) {
    char text[kNameBytes];
    for (std::size_t i = 0; i < kNameBytes / sizeof(Word); ++i) {
        const std::uint64_t word = words[i].load(std::memory_order_relaxed);
        std::memcpy(text + i * sizeof word, &word, sizeof word);
    }
    return TextIn(text, kNameBytes);
}

bool Known(const platform::SharedFile& file) {
    if (!file || file.Size() != sizeof(Page)) return false;
    const Header& header = static_cast<const Page*>(file.Data())->header;
    return header.magic == kMagic && header.version == kLayoutVersion && header.shape == Shape() &&
           header.bytes == sizeof(Page);
}

}  // namespace

std::int64_t Snapshot::Gauge(Metric metric, std::size_t place) const {
    const Row& row = RowOf(metric);
    if (!running || place >= PlacesOf(row)) return 0;
    // One thread's word may have been read before another's: nothing here is ever below 0.
    return std::max<std::int64_t>(0, static_cast<std::int64_t>(Of(metric)[place]));
}

bool Snapshot::Gone(Metric metric, std::size_t place) const {
    return place < PlacesOf(RowOf(metric)) && Of(metric)[place] == kGone;
}

std::size_t Snapshot::Places(Metric metric) const {
    const Row& row = RowOf(metric);
    return row.labels == Labels::kNames ? names.size() : PlacesOf(row);
}

std::optional<Snapshot> ReadFile(Program program, const std::string& path) {
    const platform::SharedFile file = platform::SharedFile::View(path);
    if (!Known(file)) return std::nullopt;
    const Page& page = *static_cast<const Page*>(file.Data());
    Snapshot snapshot;
    snapshot.program = program;
    snapshot.running = file.WriterLives();
    snapshot.process = page.header.process;
    snapshot.started = static_cast<std::int64_t>(page.header.started);
    snapshot.version = TextIn(page.header.program, kVersionBytes);
    // Whatever the file says, there are no more.
    const std::size_t count =
        std::min<std::size_t>(page.named.load(std::memory_order_acquire), kNamePlaces);
    for (std::size_t i = 0; i < count; ++i) snapshot.names.push_back(NameIn(page.names[i]));
    snapshot.words.assign(kOffsets[kRowCount], 0);
    for (const auto& stripe : page.stripes) {
        for (std::size_t i = 0; i < snapshot.words.size(); ++i)
            snapshot.words[i] += stripe[i].load(std::memory_order_relaxed);
    }
    if (!file.IsWhole()) return std::nullopt;
    return snapshot;
}

std::optional<Snapshot> Read(Program program) {
    const std::string folder = platform::HomePath("metrics/");
    if (folder.empty()) return std::nullopt;
    return ReadFile(program, folder + kProgramNames[static_cast<std::size_t>(program)]);
}

}  // namespace metrics
