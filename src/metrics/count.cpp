#include "metrics/count.h"

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "platform/clock.h"
#include "platform/home.h"
#include "platform/shared_file.h"
#include "platform/sync.h"
#include "text/printable.h"
#include "text/usage.h"

namespace metrics {
namespace {

// Where nothing is shared: to be counted in all the same.
Page g_own{};
std::atomic<Page*> g_page{&g_own};
std::atomic<unsigned> g_threads{0};

std::string NameAt(const Page& page, std::size_t place) {
    char text[kNameBytes];
    for (std::size_t i = 0; i < std::size(page.names[place]); ++i) {
        const std::uint64_t word = page.names[place][i].load(std::memory_order_relaxed);
        std::memcpy(text + i * sizeof word, &word, sizeof word);
    }
    text[kNameBytes - 1] = '\0';
    return text;
}

void PutName(Page& page, std::size_t place, const std::string& name) {
    char text[kNameBytes]{};
    name.copy(text, kNameBytes - 1);
    for (std::size_t i = 0; i < std::size(page.names[place]); ++i) {
        std::uint64_t word = 0;
        std::memcpy(&word, text + i * sizeof word, sizeof word);
        page.names[place][i].store(word, std::memory_order_relaxed);
    }
    page.interfaces.store(place + 1, std::memory_order_release);
}

}  // namespace

bool Open(Program program) {
    if (platform::Home().empty()) return false;
    CreateDirectoryA(platform::HomePath("metrics").c_str(), nullptr);
    const std::string path =
        platform::HomePath("metrics/") + kProgramNames[static_cast<std::size_t>(program)];
    const std::string fresh = path + ".new";
    // Never unmapped: threads that are left at the end, and by an earlier run, still count.
    static auto& kept = *new std::vector<platform::SharedFile>;
    platform::SharedFile made = platform::SharedFile::Make(fresh, sizeof(Page));
    if (!made) return false;
    auto* const page = static_cast<Page*>(made.Data());  // all zero, which is what it starts with
    Header& header = page->header;
    header.magic = kMagic;
    header.version = kLayoutVersion;
    header.shape = Shape();
    header.bytes = sizeof(Page);
    header.process = GetCurrentProcessId();
    header.started = static_cast<std::uint64_t>(platform::UtcSeconds());
    std::string_view(ProgramVersion()).copy(header.program, kVersionBytes - 1);
    if (!made.Publish(fresh, path)) return false;
    kept.push_back(std::move(made));
    g_page.store(page, std::memory_order_release);
    return true;
}

std::size_t InterfacePlace(std::string_view name) {
    Page& page = *g_page.load(std::memory_order_relaxed);
    const std::size_t count = page.interfaces.load(std::memory_order_relaxed);
    const std::string clean = CleanText(name, kNameBytes - 1);
    for (std::size_t i = 0; i < count; ++i) {
        if (NameAt(page, i) == clean) return i;
    }
    if (count + 1 >= kInterfacePlaces) {
        if (count < kInterfacePlaces) PutName(page, count, kOtherInterfaces);
        return kInterfacePlaces - 1;
    }
    PutName(page, count, clean);
    return count;
}

Word* Stripe() {
    thread_local const unsigned stripe =
        g_threads.fetch_add(1, std::memory_order_relaxed) % kStripes;
    return g_page.load(std::memory_order_relaxed)->stripes[stripe];
}

void SetWord(std::size_t offset, std::uint64_t value) {
    g_page.load(std::memory_order_relaxed)
        ->stripes[0][offset]
        .store(value, std::memory_order_relaxed);
}

}  // namespace metrics
