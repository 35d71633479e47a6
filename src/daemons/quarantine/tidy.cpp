// What time and a crash leave to be done.
#include <dirent.h>
#include <unistd.h>

#include <memory>

#include "daemons/quarantine/form.h"
#include "daemons/quarantine/quarantine.h"
#include "platform/clock.h"

namespace quarantine {

namespace {

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

}  // namespace

// Under the lock. A message whose pair is whole was, or may have been, about to be in our hands.
void Quarantine::TakeLeavings(int leavingSeconds) {
    for (const std::string& name : Names(directory_)) {
        const std::size_t dot = name.rfind('.');
        if (dot == std::string::npos) continue;
        const std::string id = name.substr(0, dot);
        const std::string ending = name.substr(dot);
        if (!IsId(id) || (ending != ".meta" && ending != ".eml")) continue;
        const auto message = platform::LookAtFile(MessagePath(id));
        const auto meta = platform::LookAtFile(MetaPath(id));
        const auto newest = std::max(message ? message->written : 0, meta ? meta->written : 0);
        if (newest / 1'000'000'000 + leavingSeconds > platform::UtcSeconds()) continue;
        if (index_.Find(id) || !index_.Begin()) continue;
        const bool known = index_.Find(id).has_value();
        const bool readable = index_.Complaint().empty();
        std::string text;
        // Looked for again within the transaction: who deletes a message takes its record first.
        const bool whole = message && platform::ReadWholeFile(MetaPath(id), text);
        const std::optional<KeptMessage> form = whole ? ReadForm(text) : std::nullopt;
        const bool mine =
            form && form->id == id && form->size == static_cast<long long>(message->size);
        if (!known && readable && mine) index_.Put(*form);
        if (!index_.Commit()) {
            index_.Rollback();
            return;
        }
        if (!known && readable && !mine) RemoveFiles(id);
    }
}

std::optional<int> Quarantine::TidyUp(const Limits& limits, int leavingSeconds,
                                      std::string& complaint) {
    complaint.clear();
    if (!platform::LookAtFile(directory_)) return 0;
    {
        const std::lock_guard lock(mutex_);
        if (!OpenIndex(true, complaint)) return std::nullopt;
        TakeLeavings(leavingSeconds);
    }
    std::optional<int> count = limits.keepDays == 0 ? 0 : Expire(limits.keepDays, complaint);
    if (!count) return std::nullopt;
    std::vector<std::string> gone;
    const std::lock_guard lock(mutex_);
    if (!index_.Begin()) {
        complaint = index_.Complaint();
        return std::nullopt;
    }
    if (!MakeRoom(0, limits, gone, complaint) || !index_.Commit()) {
        if (complaint.empty()) complaint = index_.Complaint();
        index_.Rollback();
        return std::nullopt;
    }
    for (const std::string& id : gone) RemoveFiles(id);
    return *count + static_cast<int>(gone.size());
}

std::optional<int> Quarantine::Expire(int days, std::string& complaint) {
    complaint.clear();
    if (!platform::LookAtFile(directory_)) return 0;
    const std::lock_guard lock(mutex_);
    if (!OpenIndex(true, complaint)) return std::nullopt;
    const auto old = index_.Before(platform::UtcMilliseconds() - days * kDay);
    if (!old) {
        complaint = index_.Complaint();
        return std::nullopt;
    }
    for (const KeptMessage& each : *old) {
        if (!RemoveEntry(each.id, complaint)) return std::nullopt;
    }
    return static_cast<int>(old->size());
}

}  // namespace quarantine
