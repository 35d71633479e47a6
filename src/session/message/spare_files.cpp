#include "session/message/spare_files.h"

#include <algorithm>
#include <utility>

namespace {

constexpr char kDirectory[] = "spare";
constexpr std::size_t kMostKept = 256;
// Of all the descriptors, most are for connections.
constexpr std::size_t kShare = 16;

std::string Directory() {
    char path[4096];
    return GetTempPathA(sizeof path, path) == 0 ? std::string() : std::string(path) + kDirectory;
}

}  // namespace

// With all the room that it may need: a file is given back also where nothing may throw.
SpareFiles::SpareFiles() : most_(std::min(kMostKept, platform::DescriptorLimit() / kShare)) {
    spares_.reserve(most_);
}

SpareFiles& SpareFiles::Instance() {
    static SpareFiles& files = *new SpareFiles;
    return files;
}

SpareFile SpareFiles::Take(int group) {
    {
        const std::lock_guard lock(mutex_);
        if (useless_) return {};
        while (!spares_.empty()) {
            SpareFile spare = std::move(spares_.back());
            spares_.pop_back();
            if (spare.group == group) return spare;
            Drop(spare);  // the setting has changed
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
        if (spares_.size() < most_) return spares_.push_back(std::move(spare));
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
