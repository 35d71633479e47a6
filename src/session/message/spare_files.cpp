#include "session/message/spare_files.h"

#include <algorithm>
#include <array>
#include <utility>

namespace {

constexpr char kDirectory[] = "spare";
constexpr std::size_t kMostKept = 256;
// As many as messages come at a time, as a rule; descriptors are for connections.
constexpr std::size_t kMostOpen = 16;
// Emptying costs less than that many zeros.
constexpr std::size_t kMostBlanked = 65536;

std::string Directory() {
    char path[4096];
    return GetTempPathA(sizeof path, path) == 0 ? std::string() : std::string(path) + kDirectory;
}

// Leaves nothing of the message in it.
bool Blank(platform::File& file, std::uint64_t size, bool sent) {
    static constexpr std::array<char, kMostBlanked> kZeros{};
    if (sent || size > kMostBlanked) return file.MakeEmpty();
    return file.Replace({kZeros.data(), static_cast<std::size_t>(size)});
}

}  // namespace

// With all the room that it may need: a file is given back also where nothing may throw.
SpareFiles::SpareFiles() {
    open_.reserve(kMostOpen);
    closed_.reserve(kMostKept);
}

SpareFiles& SpareFiles::Instance() {
    static SpareFiles& files = *new SpareFiles;
    return files;
}

SpareFile SpareFiles::Take(int group) {
    SpareFile spare = TakeKept(group);
    if (!spare.file) spare = Make(group);
    if (spare.file && spare.number == 0) {
        const auto state = spare.file.State();
        if (!state) return {};
        spare.number = state->number;
    }
    // What has its name may be another message's by now.
    if (!spare.file || !Enter(spare.number)) return {};
    return spare;
}

bool SpareFiles::Enter(std::uint64_t number) {
    const std::lock_guard lock(mutex_);
    if (!inHand_.insert(number).second) return false;
    // The system gives numbers of files that are gone to new ones.
    std::replace(dropped_.begin(), dropped_.end(), number, std::uint64_t{0});
    return true;
}

void SpareFiles::Leave(std::uint64_t number, bool stays) {
    const std::lock_guard lock(mutex_);
    if (inHand_.erase(number) == 0 || !stays) return;
    dropped_[nextDropped_] = number;
    nextDropped_ = (nextDropped_ + 1) % dropped_.size();
}

// Without a file: there is none.
SpareFile SpareFiles::TakeKept(int group) {
    const std::lock_guard lock(mutex_);
    while (!open_.empty() || !closed_.empty()) {
        std::vector<SpareFile>& from = open_.empty() ? closed_ : open_;
        SpareFile spare = std::move(from.back());
        from.pop_back();
        if (!spare.file) {
            spare.file = platform::File::OpenAppend(spare.path.c_str());
            spare.number = 0;  // what has the name now may be another one
        }
        if (spare.file && spare.group == group) return spare;
        DeleteFileA(spare.path.c_str());  // the setting has changed, for example
    }
    return {};
}

SpareFile SpareFiles::Make(int group) {
    const std::string directory = Directory();
    if (directory.empty()) return {};
    SpareFile made;
    made.group = group;
    {
        const std::lock_guard lock(mutex_);
        if (useless_) return {};
        made.path = directory + platform::kSeparator + std::to_string(++lastName_);
    }
    made.file = platform::File::CreateExclusive(made.path.c_str(), group);
    if (!made.file) {
        CreateDirectoryA(directory.c_str(), nullptr);
        made.file = platform::File::CreateExclusive(made.path.c_str(), group);
    }
    if (!made.file || made.file.OnlyOurs(made.path.c_str())) return made;
    DeleteFileA(made.path.c_str());
    const std::lock_guard lock(mutex_);
    useless_ = true;
    return {};
}

void SpareFiles::Give(SpareFile spare, bool sent) {
    const auto state = spare.file.OnlyOurs(spare.path.c_str());
    if (!state || !Blank(spare.file, state->size, sent)) return Drop(spare);
    {
        const std::lock_guard lock(mutex_);
        const bool open = open_.size() < kMostOpen;
        if (open || (closed_.size() < kMostKept && spare.file.Close())) {
            inHand_.erase(spare.number);
            return (open ? open_ : closed_).push_back(std::move(spare));
        }
    }
    Drop(spare);
}

void SpareFiles::Drop(const SpareFile& spare) {
    if (spare.path.empty()) return;
    DeleteFileA(spare.path.c_str());
    const auto state = spare.file ? spare.file.State() : std::nullopt;
    Leave(spare.number, !state || state->names > 0);
}

bool SpareFiles::IsAnothers(std::uint64_t number) {
    const std::lock_guard lock(mutex_);
    const auto waits = [number](const SpareFile& each) { return each.number == number; };
    return inHand_.count(number) != 0 || std::any_of(open_.begin(), open_.end(), waits) ||
           std::any_of(closed_.begin(), closed_.end(), waits) ||
           std::find(dropped_.begin(), dropped_.end(), number) != dropped_.end();
}

void CleanSpareFiles() {
    const std::string directory = Directory();
    if (!directory.empty()) platform::RemoveFiles(directory, "");
}
