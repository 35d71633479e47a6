#include "daemons/quarantine/quarantine.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "daemons/quarantine/copy.h"
#include "daemons/quarantine/form.h"
#include "platform/clock.h"
#include "platform/home.h"
#include "text/ascii.h"

namespace quarantine {

namespace {

// Of what is kept of a stranger's text for people to read.
constexpr std::size_t kMostText = 1000;

// 20261126T034452-1f0a93c47b2d6e58: sorted by name they are sorted by time.
std::string NewId(std::int64_t at) {
    char random[8] = {};
    if (getrandom(random, sizeof random, 0) != sizeof random) return {};
    std::string id;
    for (const char c : platform::UtcTimeText(at / 1000)) {
        if (c != '-' && c != ':' && c != 'Z') id += c;
    }
    return id + "-" + ToHex({random, sizeof random});
}

std::string Reason() { return std::strerror(errno); }

bool SyncDirectory(const std::string& path) {
    const platform::File directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return directory && fsync(directory.Descriptor()) == 0;
}

// Made durable, with its entry in the directory above.
bool MakeDirectory(const std::string& path) {
    if (mkdir(path.c_str(), 0700) != 0) return errno == EEXIST;
    return SyncDirectory(path.substr(0, path.rfind('/')));
}

// Until it is closed nobody takes it for a leaving of a crash. False: somebody has, just now.
bool Hold(const platform::File& file) {
    struct stat info {};
    return flock(file.Descriptor(), LOCK_EX | LOCK_NB) == 0 &&
           fstat(file.Descriptor(), &info) == 0 && info.st_nlink > 0;
}

std::string Shorter(std::string text) {
    text.resize(std::min(text.size(), kMostText));
    return text;
}

bool WriteNew(const std::string& path, const std::string& text) {
    platform::File file = platform::File::CreateExclusive(path.c_str(), -1);
    return file && file.Write(text.data(), text.size()) && fsync(file.Descriptor()) == 0 &&
           file.Close();
}

}  // namespace

Quarantine::Quarantine() : directory_(platform::HomePath("quarantine")) {}

std::string Quarantine::PathOf(const std::string& id, const char* ending) const {
    return directory_ + "/" + id + ending;
}

// Under the lock. An index whose file has been taken away would take messages nobody finds again.
bool Quarantine::OpenIndex(bool make, std::string& complaint) {
    const std::string path = directory_ + "/index.db";
    const auto there = platform::LookAtFile(path);
    if (index_.IsOpen() && there && there->number == indexNumber_) return true;
    if (index_.Open(path, make)) {
        const auto opened = platform::LookAtFile(path);
        indexNumber_ = opened ? opened->number : 0;
        return true;
    }
    complaint = "can't open " + path + ": " + index_.Complaint();
    return false;
}

void Quarantine::RemoveFiles(const std::string& id) const {
    unlink(MetaPath(id).c_str());
    unlink(PathOf(id, ".fresh").c_str());
    unlink(MessagePath(id).c_str());
}

std::optional<std::string> Quarantine::Keep(int file, maild::Dots dots, KeptMessage message,
                                            const Limits& limits, std::string& complaint) {
    complaint.clear();
    message.at = message.changed = platform::UtcMilliseconds();
    message.id = NewId(message.at);
    if (message.id.empty() || directory_.empty() || !MakeDirectory(directory_)) {
        complaint = "can't make " + directory_ + ": " + Reason();
        return std::nullopt;
    }
    platform::File copy = platform::File::CreateExclusive(MessagePath(message.id).c_str(), -1);
    if (copy && Hold(copy)) {
        const Copied copied = CopyMessage(file, dots, copy);
        message.size = copied.size;
        message.subject = Shorter(copied.subject);
        message.reason = Shorter(message.reason);
        message.helo = Shorter(message.helo);
        message.logId = Shorter(message.logId);
        std::vector<KeptMessage> gone;
        if (RoomOf(message) > limits.maxSize) {
            complaint = "it is larger than Quarantine/MaxSize";
        } else if (copied.whole && fsync(copy.Descriptor()) == 0 &&
                   WriteNew(MetaPath(message.id), WriteForm(message)) &&
                   SyncDirectory(directory_) &&
                   Admit(&message, limits, SIZE_MAX, gone, complaint)) {
            Tell(gone);
            return message.id;
        }
    }
    if (complaint.empty()) complaint = "can't write to " + directory_ + ": " + Reason();
    RemoveFiles(message.id);
    return std::nullopt;
}

std::optional<std::vector<KeptMessage>> Quarantine::List(const Filter& filter,
                                                         std::string& complaint) {
    if (!platform::LookAtFile(directory_)) return std::vector<KeptMessage>();
    const std::lock_guard lock(mutex_);
    if (!OpenIndex(true, complaint)) return std::nullopt;
    std::optional<std::vector<KeptMessage>> found = index_.List(filter);
    if (!found) complaint = index_.Complaint();
    return found;
}

std::optional<KeptMessage> Quarantine::Find(const std::string& id, std::string& complaint) {
    complaint = "there is no message " + id;
    if (!IsId(id) || !platform::LookAtFile(directory_)) return std::nullopt;
    const std::lock_guard lock(mutex_);
    if (!OpenIndex(true, complaint)) return std::nullopt;
    std::optional<KeptMessage> found = index_.Find(id);
    if (!index_.Complaint().empty()) complaint = index_.Complaint();
    return found;
}

std::optional<Numbers> Quarantine::Count(std::string& complaint) {
    if (!platform::LookAtFile(directory_)) return Numbers();
    const std::lock_guard lock(mutex_);
    if (!OpenIndex(true, complaint)) return std::nullopt;
    std::optional<Numbers> numbers = index_.Count();
    if (!numbers) complaint = index_.Complaint();
    return numbers;
}

platform::File Quarantine::Open(const std::string& id) const {
    return IsId(id) ? platform::File::OpenRead(MessagePath(id).c_str()) : platform::File();
}

// The server may still refuse it.
bool Quarantine::IsBeingReleased(const std::string& id) const {
    const platform::File file = Open(id);
    return file && flock(file.Descriptor(), LOCK_EX | LOCK_NB) != 0;
}

// The record first: a message without one is not taken in again, should the rest not come to pass.
bool Quarantine::RemoveEntry(const std::string& id, std::string& complaint) {
    bool good = index_.Begin() && index_.Remove(id);
    if (good) unlink(MetaPath(id).c_str());
    good = good && index_.Commit();
    if (good) {
        unlink(MessagePath(id).c_str());
        return true;
    }
    complaint = index_.Complaint();
    index_.Rollback();
    return false;
}

bool Quarantine::Delete(const std::string& id, std::string& complaint) {
    if (!Find(id, complaint)) return false;
    if (IsBeingReleased(id)) {
        complaint = "somebody releases " + id + " now";
        return false;
    }
    const std::lock_guard lock(mutex_);
    return RemoveEntry(id, complaint);
}

// So that an index that is made anew knows whether somebody has it. The old one is enough without.
void Quarantine::NoteState(const std::string& id) {
    const std::optional<KeptMessage> message = index_.Find(id);
    const std::string fresh = PathOf(id, ".fresh");
    if (!message) return;
    unlink(fresh.c_str());
    if (WriteNew(fresh, WriteForm(*message)) &&
        std::rename(fresh.c_str(), MetaPath(id).c_str()) == 0)
        SyncDirectory(directory_);
    else
        unlink(fresh.c_str());
}

platform::File Quarantine::Claim(const std::string& id, bool again, std::string& complaint,
                                 bool* spent) {
    if (spent != nullptr) *spent = false;
    if (!Find(id, complaint)) return {};
    platform::File file = Open(id);
    if (!file) {
        complaint = "can't read " + MessagePath(id) + ": " + Reason();
        return {};
    }
    // Held by whoever is at it now, and gone with its process.
    if (flock(file.Descriptor(), LOCK_EX | LOCK_NB) != 0) {
        complaint = "somebody else releases it now";
        return {};
    }
    const std::lock_guard lock(mutex_);
    const std::int64_t now = platform::UtcMilliseconds();
    const bool claimed =
        again ? index_.Change(id,
                              {state::kHeld, state::kOriginal, state::kReleasing, state::kReleased},
                              state::kReleasing, now)
              : index_.Change(id, {state::kHeld, state::kOriginal}, state::kReleasing, now);
    if (claimed) {
        NoteState(id);
        return file;
    }
    if (!index_.Complaint().empty()) {
        complaint = index_.Complaint();
        return {};
    }
    const std::optional<KeptMessage> found = index_.Find(id);
    if (spent != nullptr) *spent = found.has_value();
    complaint = found ? "its state is `" + found->state + "`" : "there is no message " + id;
    return {};
}

bool Quarantine::EndRelease(const std::string& id, bool released, std::string& complaint) {
    const std::lock_guard lock(mutex_);
    if (!OpenIndex(false, complaint)) return false;
    const std::int64_t now = platform::UtcMilliseconds();
    const bool ended = released ? index_.Change(id, {state::kReleasing}, state::kReleased, now)
                                : index_.ChangeBack(id, now);
    if (!ended)
        complaint = index_.Complaint().empty() ? "it is not there any more" : index_.Complaint();
    if (!ended) return false;
    if (released) index_.Add(counter::kReleased, 1);
    NoteState(id);
    return true;
}

}  // namespace quarantine
