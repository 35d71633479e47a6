#include "session/message/spool_file.h"

#include <atomic>
#include <cerrno>
#include <map>
#include <mutex>
#include <utility>

#include "metrics/count.h"

namespace {

constexpr char kDirectory[] = "VTNP";
constexpr char kPrefix[] = "VTSMTP";
constexpr std::size_t kStemSize = 260;  // with its zero byte
constexpr std::size_t kMostKept = 65536;
std::atomic<int> g_group{-1};

// What other sessions may not call their files, for each stem: numbers up to this one.
struct TakenNumbers {
    std::mutex mutex;
    std::map<std::string, int> last;  // guarded by mutex
};
TakenNumbers& Taken() {
    static TakenNumbers& taken = *new TakenNumbers;
    return taken;
}

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

void SetSpoolGroup(int group) {
    // The directory may be there already, without the group.
    if (g_group.exchange(group) != group) platform::ShareDirectory(Directory().c_str(), group);
}

void CleanSpoolDirectory() {
    const std::string directory = Directory();
    if (!directory.empty()) platform::RemoveFiles(directory, kPrefix);
    CleanSpareFiles();
}

bool SpoolFile::Name(SOCKET client) {
    const std::string directory = Directory();
    if (directory.empty()) return false;
    // Made by the first session; one that is missing later, or can't be made, shows when a file is
    // opened in it.
    static std::once_flag made;
    std::call_once(made, MakeDirectory);
    stem_ = directory + platform::kSeparator + kPrefix + std::to_string(client);
    const std::lock_guard lock(Taken().mutex);
    const auto taken = Taken().last.find(stem_);
    number_ = taken == Taken().last.end() ? 0 : taken->second;
    return stem_.size() < kStemSize;
}

void SpoolFile::KeepName() {
    const std::lock_guard lock(Taken().mutex);
    Taken().last[stem_] = number_;
    scanFailed_ = true;
}

bool SpoolFile::OpenNext() {
    Remove();
    path_ = stem_ + "x" + std::to_string(++number_);
    size_ = 0;
    const int group = g_group;
    spare_ = SpareFiles::Instance().Take(group);
    present_ = spare_.file && platform::LinkFile(spare_.path, path_);
    // Somebody may have been at it meanwhile, or have put another file in its place.
    const auto state = present_ ? platform::LookAtFile(path_) : std::nullopt;
    if (!state || !state->plain || state->names != 2 || state->number != spare_.number) {
        SpareFiles::Instance().Drop(std::exchange(spare_, {}));
        // The instance's lock makes this process the only one here: whatever has the name is a
        // leaving. Or the directory has been cleared away.
        DeleteFileA(path_.c_str());
        MakeDirectory();
        spare_.file = platform::File::CreateExclusive(path_.c_str(), group);
        present_ = static_cast<bool>(spare_.file);
        if (const auto made = present_ ? spare_.file.State() : std::nullopt) {
            spare_.number = made->number;
            SpareFiles::Instance().Enter(made->number);
        }
    }
    keeping_ = present_;
    return present_;
}

bool SpoolFile::OpenAgain() { return static_cast<bool>(spare_.file); }

bool SpoolFile::Write(std::string_view bytes) {
    counted_ += bytes.size();
    metrics::Add<metrics::Metric::kSpoolBytes>(0, bytes.size());
    size_ += static_cast<long long>(bytes.size());
    if (!keeping_) return spare_.file.Write(bytes.data(), bytes.size());
    kept_.append(bytes);
    if (kept_.size() <= kMostKept) return true;
    const bool stored = Store();
    Forget();
    return stored;
}

// What is in memory alone.
bool SpoolFile::Store() {
    const std::string_view left = std::string_view(kept_).substr(stored_);
    const bool first = stored_ == 0;  // what is in the file is none of the message
    stored_ = kept_.size();
    return first ? spare_.file.Replace(left) : spare_.file.Write(left.data(), left.size());
}

void SpoolFile::Forget() {
    std::string().swap(kept_);
    stored_ = 0;
    keeping_ = false;
}

bool SpoolFile::Close() {
    const bool first = keeping_ && stored_ == 0;  // then Store sees to its size
    if (keeping_ && !Store()) return false;
    if (!first && spare_.file.Size() != size_) return false;
    // A close that fails tells of a write that did: the message is not whole on the disk. Where
    // files are used again there are no such late news.
    return !spare_.path.empty() || spare_.file.Settle();
}

SpoolFile::Found SpoolFile::LookAgain() {
    const std::optional<platform::FileState> now =
        spare_.file ? platform::LookAtFile(path_) : std::nullopt;
    if (now && now->plain && now->number == spare_.number) {
        size_ = static_cast<long long>(now->size);
        if (keeping_ && (now->size != kept_.size() || !spare_.file.BeginsWith(kept_))) Forget();
        return Found::kWhole;
    }
    return LookAtAnother();
}

// At what has the message's name, whatever file that is.
SpoolFile::Found SpoolFile::LookAtAnother() {
    Forget();
    changed_ = platform::File::OpenRead(path_.c_str());
    if (!changed_) return errno == ENOENT && NameAloneIsGone() ? Found::kGone : Found::kUnreadable;
    const auto state = changed_.State();
    if (!state || !state->plain || SpareFiles::Instance().IsAnothers(state->number))
        return Found::kUnreadable;
    // Nobody puts an empty file in the place of a message, but a spare one may have come there.
    if (state->size == 0 && size_ > 0) return Found::kUnreadable;
    size_ = static_cast<long long>(state->size);
    return Found::kWhole;
}

// All that the daemon takes away. Whoever clears the directories takes more.
bool SpoolFile::NameAloneIsGone() const {
    if (!platform::LookAtFile(Directory())) return false;
    if (spare_.path.empty()) return true;
    const auto own = platform::LookAtFile(spare_.path);
    return own && own->number == spare_.number;
}

std::optional<std::string_view> SpoolFile::Kept() const {
    return keeping_ ? std::optional<std::string_view>(kept_) : std::nullopt;
}

void SpoolFile::Remove() {
    if (counted_ > 0)
        metrics::Subtract<metrics::Metric::kSpoolBytes>(0, std::exchange(counted_, 0));
    const bool sent = !keeping_;
    Forget();
    changed_.Close();
    const bool failed = std::exchange(scanFailed_, false);
    if (spare_.path.empty()) {
        RemoveOwn();
        return;
    }
    if (std::exchange(present_, false)) DeleteFileA(path_.c_str());
    if (failed) {
        SpareFiles::Instance().Drop(std::exchange(spare_, {}));
    } else {
        SpareFiles::Instance().Give(std::exchange(spare_, {}), sent);
    }
}

// A file that has the message's name alone.
void SpoolFile::RemoveOwn() {
    if (!std::exchange(present_, false)) return;
    DeleteFileA(path_.c_str());
    const auto state = spare_.file.State();
    SpareFiles::Instance().Leave(std::exchange(spare_.number, 0), !state || state->names > 0);
    spare_.file.Close();
}
