// What time and a crash leave to be done.
#include <dirent.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <set>
#include <thread>

#include "daemons/quarantine/form.h"
#include "daemons/quarantine/quarantine.h"
#include "platform/clock.h"

namespace quarantine {

namespace {

// Messages that are seen to before others, who have a message to keep, get their turn.
constexpr std::size_t kAtOnce = 200;
void LetOthersIn() { std::this_thread::sleep_for(std::chrono::milliseconds(2)); }

constexpr std::int64_t kDay = 86400LL * 1000;  // milliseconds

std::vector<std::string> Names(const std::string& directory) {
    struct CloseDirectory {
        void operator()(DIR* open) const { closedir(open); }
    };
    std::vector<std::string> names;
    const std::unique_ptr<DIR, CloseDirectory> open(opendir(directory.c_str()));
    while (const dirent* entry = open == nullptr ? nullptr : readdir(open.get()))
        names.emplace_back(entry->d_name);
    return names;
}

// Records are small, but one may name thousands of recipients.
constexpr long long kLongestRecord = 64LL << 20;

// Nothing also if there is none: errno says so.
std::optional<std::string> ReadRecord(const std::string& path) {
    const platform::File file = platform::File::OpenRead(path.c_str());
    const long long size = file ? file.Size() : -1;
    if (size < 0 || size > kLongestRecord) {
        if (file) errno = EIO;
        return std::nullopt;
    }
    std::string text(static_cast<std::size_t>(size), '\0');
    for (long long at = 0; at < size;) {
        const long long count =
            file.ReadAt(at, text.data() + at, static_cast<std::size_t>(size - at));
        if (count <= 0) {
            errno = EIO;
            return std::nullopt;
        }
        at += count;
    }
    return text;
}

// Whether it was written to its end; the disk has the message before its record, and both before
// anybody is told, so a record that was cut off is nobody's.
bool IsWhole(const std::string& record) {
    const std::size_t last = record.find_last_of('\n', record.size() - 2);
    return record.size() > 2 && record.back() == '\n' && last != std::string::npos &&
           record.compare(last + 1, 6, "size: ") == 0;
}

}  // namespace

std::vector<std::string> Quarantine::UnknownIds(std::string& complaint) {
    std::set<std::string> unknown;
    for (const std::string& name : Names(directory_)) {
        const std::size_t dot = name.rfind('.');
        if (dot == std::string::npos) continue;
        const std::string id = name.substr(0, dot);
        const std::string ending = name.substr(dot);
        if (IsId(id) && (ending == ".meta" || ending == ".eml")) unknown.insert(id);
    }
    const std::lock_guard lock(mutex_);
    const auto known = index_.Ids();
    if (!known) {
        complaint = index_.Complaint();
        return {};
    }
    for (const std::string& id : *known) unknown.erase(id);
    return {unknown.begin(), unknown.end()};
}

// Within a transaction. A message whose pair is whole was, or may have been, about to be in our
// hands. False on a failure of the index.
bool Quarantine::TakeLeaving(const std::string& id, int leavingSeconds, std::string& complaint) {
    const auto doubt = [&](const char* what) {
        complaint = MessagePath(id) + " is left as it is: " + what;
        return true;
    };
    const platform::File message = platform::File::OpenRead(MessagePath(id).c_str());
    if (!message && errno != ENOENT) return doubt("it can't be read");
    // Whoever is at it has it locked.
    if (message && flock(message.Descriptor(), LOCK_EX | LOCK_NB) != 0) return true;
    const std::optional<std::string> record = ReadRecord(MetaPath(id));
    if (!record && errno != ENOENT) return doubt("its record can't be read");
    const auto meta = platform::LookAtFile(MetaPath(id));
    const auto state = message ? message.State() : std::nullopt;
    const auto newest = std::max(state ? state->written : 0, meta ? meta->written : 0);
    if (leavingSeconds > 0 && newest / 1'000'000'000 + leavingSeconds > platform::UtcSeconds())
        return true;
    if (index_.Find(id)) return true;
    if (!index_.Complaint().empty()) return false;
    if (!message || !record || !IsWhole(*record)) {
        RemoveFiles(id);
        return true;
    }
    const std::optional<KeptMessage> form = ReadForm(*record);
    if (!form || form->id != id || form->size != message.Size())
        return doubt("its record is of another one");
    return index_.Put(*form);
}

bool Quarantine::TakeLeavings(std::span<const std::string> ids, int leavingSeconds,
                              std::string& complaint) {
    const std::lock_guard lock(mutex_);
    bool good = index_.Begin();
    for (const std::string& id : ids) good = good && TakeLeaving(id, leavingSeconds, complaint);
    if (good && index_.Commit()) return true;
    complaint = index_.Complaint();
    index_.Rollback();
    return false;
}

std::optional<int> Quarantine::TidyUp(const Limits& limits, int leavingSeconds,
                                      std::string& complaint) {
    complaint.clear();
    if (!platform::LookAtFile(directory_)) return 0;
    {
        const std::lock_guard lock(mutex_);
        if (!OpenIndex(true, complaint)) return std::nullopt;
    }
    std::string doubts;
    const std::vector<std::string> unknown = UnknownIds(doubts);
    for (std::span<const std::string> rest(unknown); !rest.empty() && !ending_;) {
        const auto some = rest.first(std::min(rest.size(), kAtOnce));
        if (!TakeLeavings(some, leavingSeconds, doubts)) break;
        rest = rest.subspan(some.size());
        LetOthersIn();
    }
    std::optional<int> count = limits.keepDays == 0 ? 0 : Expire(limits.keepDays, complaint);
    while (count) {
        std::vector<KeptMessage> gone;
        if (!Admit(nullptr, limits, kAtOnce, gone, complaint)) return std::nullopt;
        Tell(gone);
        *count += static_cast<int>(gone.size());
        if (gone.size() < kAtOnce || ending_) break;
        LetOthersIn();
    }
    if (complaint.empty()) complaint = doubts;
    return count;
}

// The records first: a message without one is not taken in again, should the rest not come to pass.
std::optional<int> Quarantine::ExpireSome(std::int64_t before, std::string& complaint) {
    const std::lock_guard lock(mutex_);
    if (!OpenIndex(true, complaint)) return std::nullopt;
    bool good = index_.Begin();
    auto old = good ? index_.Before(before, static_cast<int>(kAtOnce)) : std::nullopt;
    good = old.has_value();
    if (good) std::erase_if(*old, [this](const std::string& id) { return IsBeingReleased(id); });
    for (std::size_t i = 0; good && i < old->size(); ++i) {
        unlink(MetaPath((*old)[i]).c_str());
        good = index_.Remove((*old)[i]);
    }
    if (!good || !index_.Add(counter::kExpired, static_cast<int>(old->size())) ||
        !index_.Commit()) {
        complaint = index_.Complaint();
        index_.Rollback();
        return std::nullopt;
    }
    for (const std::string& id : *old) unlink(MessagePath(id).c_str());
    return static_cast<int>(old->size());
}

std::optional<int> Quarantine::Expire(int days, std::string& complaint) {
    complaint.clear();
    if (!platform::LookAtFile(directory_)) return 0;
    const std::int64_t before = platform::UtcMilliseconds() - days * kDay;
    for (int count = 0;;) {
        const std::optional<int> some = ExpireSome(before, complaint);
        if (!some) return std::nullopt;
        count += *some;
        if (*some == 0 || ending_) return count;
        LetOthersIn();
    }
}

}  // namespace quarantine
