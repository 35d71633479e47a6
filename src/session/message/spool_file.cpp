#include "session/message/spool_file.h"

#include <atomic>
#include <mutex>

namespace {

constexpr char kDirectory[] = "VTNP";
constexpr char kPrefix[] = "VTSMTP";
constexpr std::size_t kStemSize = 260;  // with its zero byte
std::atomic<int> g_group{-1};

std::string Directory() {
    char path[4096];
    return GetTempPathA(sizeof path, path) == 0 ? std::string() : std::string(path) + kDirectory;
}

void MakeDirectory() {
    const std::string directory = Directory();
    if (CreateDirectoryA(directory.c_str(), nullptr) != FALSE)
        platform::ShareDirectory(directory.c_str(), g_group);
}

}  // namespace

void SetSpoolGroup(int group) { g_group = group; }

void CleanSpoolDirectory() {
    const std::string directory = Directory();
    if (!directory.empty()) platform::RemoveFiles(directory, kPrefix);
}

bool SpoolFile::Name(SOCKET client) {
    const std::string directory = Directory();
    if (directory.empty()) return false;
    // Made by the first session; one that is missing later, or can't be made, shows when a file is
    // opened in it.
    static std::once_flag made;
    std::call_once(made, MakeDirectory);
    stem_ = directory + platform::kSeparator + kPrefix + std::to_string(client);
    return stem_.size() < kStemSize;
}

std::string SpoolFile::Path() const { return stem_ + "x" + std::to_string(number_); }

bool SpoolFile::OpenNext() {
    Remove();
    ++number_;
    size_ = 0;
    const std::string path = Path();
    file_ = platform::File::CreateExclusive(path.c_str(), g_group);
    if (!file_) {
        // The instance's lock makes this process the only one here: whatever has the name is a
        // leaving. Or the directory has been cleared away.
        DeleteFileA(path.c_str());
        MakeDirectory();
        file_ = platform::File::CreateExclusive(path.c_str(), g_group);
    }
    present_ = static_cast<bool>(file_);
    return present_;
}

bool SpoolFile::OpenAgain() {
    file_ = platform::File::OpenAppend(Path().c_str());
    return static_cast<bool>(file_);
}

bool SpoolFile::Write(const void* data, std::size_t length) {
    if (!file_.Write(data, length)) return false;
    size_ += static_cast<long long>(length);
    return true;
}

void SpoolFile::Remove() {
    file_.Close();
    if (!present_) return;
    DeleteFileA(Path().c_str());
    present_ = false;
}
