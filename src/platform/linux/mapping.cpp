#include "platform/mapping.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <utility>

namespace platform {
namespace {

// Read by the signal's handler, which may meet a mapping that is being taken back: nobody looks
// into that one any more.
struct Guarded {
    std::atomic<bool> taken{false};
    std::atomic<std::uintptr_t> begin{0};  // 0: none, set last and taken back first
    std::atomic<std::size_t> size{0};
    std::atomic<int> descriptor{-1};
    std::atomic<int> repairs{0};
};
constexpr std::size_t kMostMappings = 64;
// A file that is cut again and again, or whose disk is broken, is given up.
constexpr int kMostRepairs = 100;
Guarded g_mappings[kMostMappings];

// Whether what is at the address can be read and written again. Only what a handler may call.
bool Repair(std::uintptr_t address) {
    for (Guarded& each : g_mappings) {
        const std::uintptr_t begin = each.begin.load(std::memory_order_acquire);
        const std::size_t size = each.size.load(std::memory_order_relaxed);
        if (begin == 0 || address < begin || address - begin >= size) continue;
        // With its place on the disk, or a full one would lead here again.
        if (each.repairs.fetch_add(1) < kMostRepairs &&
            fallocate(each.descriptor, 0, 0, static_cast<off_t>(size)) == 0)
            return true;
        return mmap(reinterpret_cast<void*>(begin), size, PROT_READ | PROT_WRITE,
                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) != MAP_FAILED;
    }
    return false;
}

// What is none of ours ends the process, behind this.
void OnBusError(int number, siginfo_t* info, void*) {
    const int error = errno;
    if (info->si_code <= 0 || !Repair(reinterpret_cast<std::uintptr_t>(info->si_addr))) {
        std::signal(number, SIG_DFL);
        std::raise(number);
    }
    errno = error;
}

bool Guard() {
    struct sigaction action {};
    action.sa_sigaction = OnBusError;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    return sigaction(SIGBUS, &action, nullptr) == 0;
}

int TakePlace() {
    for (std::size_t i = 0; i < kMostMappings; ++i) {
        if (!g_mappings[i].taken.exchange(true)) return static_cast<int>(i);
    }
    return -1;
}

}  // namespace

Mapping& Mapping::operator=(Mapping&& other) noexcept {
    if (this == &other) return *this;
    Unmap();
    file_ = std::move(other.file_);
    data_ = std::exchange(other.data_, nullptr);
    size_ = std::exchange(other.size_, 0);
    place_ = std::exchange(other.place_, -1);
    return *this;
}

Mapping Mapping::Map(platform::File file, std::size_t size, bool writing) {
    static const bool guarded = Guard();
    Mapping made;
    if (!file || !guarded || (made.place_ = TakePlace()) < 0) return {};
    made.file_ = std::move(file);
    made.size_ = size;
    void* const at = mmap(nullptr, size, writing ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED,
                          made.file_.Descriptor(), 0);
    if (at == MAP_FAILED) return {};
    made.data_ = at;
    Guarded& place = g_mappings[made.place_];
    place.size = size;
    place.descriptor = made.file_.Descriptor();
    place.repairs = 0;
    place.begin.store(reinterpret_cast<std::uintptr_t>(at), std::memory_order_release);
    return made;
}

void Mapping::Unmap() {
    if (place_ < 0) return;
    Guarded& place = g_mappings[std::exchange(place_, -1)];
    place.begin = 0;
    if (data_ != nullptr) munmap(std::exchange(data_, nullptr), size_);
    place.taken = false;
}

}  // namespace platform
