#include "daemons/statd/web/accounts.h"

#include <crypt.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <memory>

#include "platform/file.h"
#include "text/ascii.h"
#include "text/base64.h"
#include "trelis/keys/settings.h"

namespace stats {
namespace {

constexpr trelis::Key kAccount{trelis::kStatsKey, "Accounts/*"};
constexpr std::size_t kNameMost = 64;
constexpr std::size_t kHeaderMost = 1024;
constexpr std::size_t kTokenBytes = 32;
// Password hashes that are computed at a time, each for a different client address, and requests
// that wait for their turn. The server has more threads than both together.
constexpr std::size_t kHashesAtOnce = 2;
constexpr int kWaitersMost = 3;
constexpr std::chrono::seconds kWaitLimit{3};

// The setting is a salt (crypt_gensalt) or a whole hash. Empty on failure.
std::string Hash(const std::string& text, const std::string& setting) {
    const auto data = std::make_unique<crypt_data>();
    const char* const hash = crypt_r(text.c_str(), setting.c_str(), data.get());
    std::string result = hash == nullptr || hash[0] == '*' ? "" : hash;
    explicit_bzero(data.get(), sizeof *data);
    return result;
}

std::string NewSalt(const char* prefix, unsigned long rounds) {
    std::array<char, CRYPT_GENSALT_OUTPUT_SIZE> salt{};
    // Without bytes of ours it takes them from the system.
    return crypt_gensalt_rn(prefix, rounds, nullptr, 0, salt.data(),
                            static_cast<int>(salt.size())) == nullptr
               ? ""
               : salt.data();
}

// Slow on purpose: what a guess costs. Null prefix: the library's best.
std::string HashPassword(const std::string& password) {
    return Hash(password, NewSalt(nullptr, 0));
}

// An existing token, if it is a file of ours that nobody else could have read or written.
std::string ReadToken(const std::string& path) {
    platform::File file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    struct stat info {};
    if (!file || fstat(file.Descriptor(), &info) != 0 || !S_ISREG(info.st_mode) ||
        info.st_uid != geteuid() || (info.st_mode & 077) != 0)
        return {};
    std::array<char, 256> buffer{};
    const long long count = file.Read(buffer.data(), buffer.size());
    std::string pair(buffer.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
    while (!pair.empty() && (pair.back() == '\n' || pair.back() == '\r')) pair.pop_back();
    const std::string start = std::string(kOwnerName) + ':';
    const bool good = pair.size() >= start.size() + kTokenBytes && pair.starts_with(start) &&
                      std::all_of(pair.begin() + static_cast<std::ptrdiff_t>(start.size()),
                                  pair.end(), [](char c) { return c > ' ' && c < 0x7F; });
    return good ? pair : "";
}

}  // namespace

bool ValidAccountName(std::string_view name) {
    constexpr std::string_view kExtra = "._-@";
    return !name.empty() && name.size() <= kNameMost && name[0] != '-' && name != kOwnerName &&
           std::all_of(name.begin(), name.end(), [&](char c) {
               return IsLetter(c) || IsDigit(c) || kExtra.find(c) != std::string_view::npos;
           });
}

bool StoreAccount(const std::string& name, const std::string& password) {
    const std::string hash = HashPassword(password);
    return !hash.empty() &&
           TrelisSetValue(kLocalStore, kAccount.Path({name}).c_str(), hash.c_str()) == 0;
}

bool DeleteAccount(const std::string& name) {
    const std::string key = kAccount.Path({name});
    return trelis::ReadIfGiven(kAccount, {name}) && TrelisDelKey(kLocalStore, key.c_str()) == 0;
}

std::string OwnerPair(const std::string& path) {
    if (std::string pair = ReadToken(path); !pair.empty()) return pair;
    const std::string random = RandomHex(kTokenBytes);
    if (random.empty()) return {};
    const std::string pair = std::string(kOwnerName) + ':' + random;
    const std::string fresh = path + ".new";
    unlink(fresh.c_str());
    platform::File file(
        open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    const std::string line = pair + '\n';
    const bool good = file && file.Write(line.data(), line.size()) && file.Close() &&
                      std::rename(fresh.c_str(), path.c_str()) == 0;
    return good ? pair : "";
}

std::string RandomHex(std::size_t count) {
    std::string bytes(count, '\0');
    return getentropy(bytes.data(), bytes.size()) == 0 ? ToHex(bytes) : "";
}

bool SameText(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    volatile unsigned char difference = 0;
    for (std::size_t i = 0; i < a.size(); ++i)
        difference = static_cast<unsigned char>(difference | (a[i] ^ b[i]));
    return difference == 0;
}

std::string DecodeBasic(std::string_view header) {
    constexpr std::string_view kScheme = "basic ";
    if (header.size() > kHeaderMost ||
        !EqualIgnoringCase(header.substr(0, kScheme.size()), kScheme))
        return {};
    header.remove_prefix(kScheme.size());
    while (!header.empty() && header.front() == ' ') header.remove_prefix(1);
    while (!header.empty() && (header.back() == ' ' || header.back() == '\t'))
        header.remove_suffix(1);
    while (!header.empty() && header.back() == '=') header.remove_suffix(1);
    std::string text;
    std::uint32_t bits = 0;
    int count = 0;
    for (const char c : header) {
        const int digit = Base64Digit(c);
        if (digit < 0) return {};
        bits = (bits << 6 | static_cast<std::uint32_t>(digit)) & 0xFFFFFF;
        count += 6;
        if (count < 8) continue;
        count -= 8;
        text += static_cast<char>(bits >> count & 0xFF);
    }
    // crypt(3) ends at a zero byte: behind one, anything would do.
    return text.find('\0') == std::string::npos && text.find(':') != std::string::npos ? text : "";
}

Accounts::Accounts(std::string ownerPair)
    : ownerPair_(std::move(ownerPair)),
      decoy_(HashPassword(RandomHex(kTokenBytes))),
      digestSalt_(NewSalt("$5$", 1000)) {}

Accounts::Verdict Accounts::Check(std::string_view header, std::uint32_t clientAddress) {
    const std::string pair = DecodeBasic(header);
    if (pair.empty()) return Verdict::kBad;
    if (!ownerPair_.empty() && SameText(pair, ownerPair_)) return Verdict::kGood;

    const std::size_t colon = pair.find(':');
    const std::string name = pair.substr(0, colon);
    const std::string password = pair.substr(colon + 1);
    if (password.size() > kPasswordLimit) return Verdict::kBad;
    const std::string stored =
        ValidAccountName(name) ? trelis::ReadText(kAccount, {name}) : std::string();
    const std::string digest = Hash(password, digestSalt_);
    if (Remembered(name, stored, digest)) return Verdict::kGood;

    if (!Enter(clientAddress)) return Verdict::kBusy;
    // Without an account the same work is done for nothing.
    const std::string setting = stored.empty() ? decoy_ : stored;
    const std::string hash = Hash(password, setting);
    Leave(clientAddress);
    if (stored.empty() || hash.empty() || !SameText(hash, stored)) return Verdict::kBad;
    const std::lock_guard lock(mutex_);
    seen_[name] = {stored, digest};
    return Verdict::kGood;
}

bool Accounts::Remembered(const std::string& name, const std::string& stored,
                          const std::string& digest) {
    const std::lock_guard lock(mutex_);
    const auto found = seen_.find(name);
    if (found == seen_.end()) return false;
    // The account was changed or deleted.
    if (found->second.stored != stored) {
        seen_.erase(found);
        return false;
    }
    return !digest.empty() && SameText(found->second.digest, digest);
}

bool Accounts::Enter(std::uint32_t clientAddress) {
    std::unique_lock lock(mutex_);
    const auto mayHash = [&] {
        return hashing_.size() < kHashesAtOnce && !hashing_.contains(clientAddress);
    };
    if (!mayHash()) {
        if (waiting_ >= kWaitersMost) return false;
        ++waiting_;
        const bool free = left_.wait_for(lock, kWaitLimit, mayHash);
        --waiting_;
        if (!free) return false;
    }
    hashing_.insert(clientAddress);
    return true;
}

void Accounts::Leave(std::uint32_t clientAddress) {
    {
        const std::lock_guard lock(mutex_);
        hashing_.erase(clientAddress);
    }
    left_.notify_all();
}

}  // namespace stats
