// A stored message: its parts begin and end in order, within the bounds and the file; what the
// engine would be asked about is made.
#include <sys/mman.h>

#include <cstdint>
#include <vector>

#include "daemons/maild/antivirus/doubtful.h"
#include "platform/file.h"

namespace {

class Watcher final : public maild::PartSink {
  public:
    explicit Watcher(long long size) : size_(size) {}

    void Begin(const maild::Part& part) override {
        open_.push_back(part.place);
        if (++parts_ > 100 || part.depth >= 10) __builtin_trap();
    }
    void Data(std::span<const std::byte> bytes) override {
        if (open_.empty() || bytes.empty()) __builtin_trap();
    }
    void End(const maild::Part& part) override {
        if (open_.empty() || open_.back() != part.place) __builtin_trap();
        open_.pop_back();
        for (const maild::Range& range : {part.whole, part.body}) {
            if (range.begin < 0 || range.end < range.begin || range.end > size_) __builtin_trap();
        }
    }
    void Done(const maild::WalkResult&) override {
        if (!open_.empty() || done_) __builtin_trap();
        done_ = true;
    }

  private:
    const long long size_;
    std::vector<std::string> open_;
    int parts_ = 0;
    bool done_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    // The first byte says how the file is to be read.
    const maild::Dots dots = (data[0] & 1U) != 0 ? maild::Dots::kStuffed : maild::Dots::kPlain;
    platform::File file(memfd_create("fuzz", MFD_CLOEXEC));
    if (!file || !file.Write(data + 1, size - 1)) return 0;
    int asked = 0;
    maild::Questions questions(
        [&asked](int, long long) {
            if (++asked > 200) __builtin_trap();
            return ScanResult{ScanOutcome::kClean, ""};
        },
        file.Size());
    const maild::WalkLimits limits{10, 100, 4096};
    maild::DoubtfulParts doubtful(questions, {file.Descriptor(), dots, {0, file.Size()}}, limits);
    Watcher watcher(file.Size());
    maild::PartSink* const sinks[] = {&watcher, &doubtful};
    maild::WalkMessage(file.Descriptor(), dots, limits, sinks);
    return 0;
}
