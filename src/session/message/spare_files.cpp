#include "session/message/spare_files.h"

#include <utility>

namespace {

constexpr char kDirectory[] = "spare";
constexpr std::size_t kMostKept = 256;
// As many as messages come at a time, as a rule; descriptors are for connections.
constexpr std::size_t kMostOpen = 16;

std::string Directory() {
    char path[4096];
    return GetTempPathA(sizeof path, path) == 0 ? std::string() : std::string(path) + kDirectory;
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
    {
        const std::lock_guard lock(mutex_);
        if (useless_) return {};
        while (!open_.empty() || !closed_.empty()) {
            std::vector<SpareFile>& from = open_.empty() ? closed_ : open_;
            SpareFile spare = std::move(from.back());
            from.pop_back();
            if (!spare.file) spare.file = platform::File::OpenAppend(spare.path.c_str());
            if (spare.file && spare.group == group) return spare;
            Drop(spare);  // the setting has changed, for example
        }
    }
    return Make(group);
}

SpareFile SpareFiles::Make(int group) {
    const std::string directory = Directory();
    if (directory.empty()) return {};
    SpareFile made;
    made.group = group;
    {
        const std::lock_guard lock(mutex_);
        made.path = directory + platform::kSeparator + std::to_string(++lastName_);
    }
    made.file = platform::File::CreateExclusive(made.path.c_str(), group);
    if (!made.file) {
        CreateDirectoryA(directory.c_str(), nullptr);
        made.file = platform::File::CreateExclusive(made.path.c_str(), group);
    }
    if (!made.file || made.file.OnlyOurs(made.path.c_str())) return made;
    Drop(made);
    const std::lock_guard lock(mutex_);
    useless_ = true;
    return {};
}

void SpareFiles::Give(SpareFile spare) {
    if (spare.file.OnlyOurs(spare.path.c_str()) && spare.file.MakeEmpty()) {
        const std::lock_guard lock(mutex_);
        if (open_.size() < kMostOpen) return open_.push_back(std::move(spare));
        if (spare.file.Close() && closed_.size() < kMostKept)
            return closed_.push_back(std::move(spare));
    }
    Drop(spare);
}

void SpareFiles::Drop(const SpareFile& spare) {
    if (!spare.path.empty()) DeleteFileA(spare.path.c_str());
}

void CleanSpareFiles() {
    const std::string directory = Directory();
    if (!directory.empty()) platform::RemoveFiles(directory, "");
}
