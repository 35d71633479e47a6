// Who may read the statistics: accounts, kept in the store as salted hashes, and the token of the
// instance's owner.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

namespace stats {

// An account is the key Accounts/NAME of the daemon with the hash as crypt(3) writes it.
// The name that goes with the owner's token; no account may have it.
inline constexpr char kOwnerName[] = "local";
inline constexpr std::size_t kPasswordLimit = 256;

// 1 to 64 letters, digits, '.', '_', '-' and '@', no '-' first, and not the owner's name.
bool ValidAccountName(std::string_view name);
// Between TrelisInit2 and TrelisUninit. False on failure.
bool StoreAccount(const std::string& name, const std::string& password);
// False if there is no such account.
bool DeleteAccount(const std::string& name);

// Reads "local:RANDOM" from report.token in the instance's directory, or makes it (mode 0600).
// Empty on failure.
std::string OwnerPair(const std::string& path);

// 2 * count characters from the system's source of randomness, 512 at most; empty on failure.
std::string RandomHex(std::size_t count);
// Takes as long for a wrong text as for the right one of the same length.
bool SameText(std::string_view a, std::string_view b);
// The text behind "basic " of an Authorization header, decoded: NAME:PASSWORD. Empty if it is
// anything else.
std::string DecodeBasic(std::string_view header);

// Judges what clients present. Any thread.
class Accounts {
  public:
    enum class Verdict { kGood, kBad, kBusy };

    explicit Accounts(std::string ownerPair);

    // header: the Authorization header's value. kBusy: too many guesses at a time, ask again later.
    Verdict Check(std::string_view header, std::uint32_t clientAddress);

  private:
    // What was presented last with success, for the hash that the store had then.
    struct Seen {
        std::string stored;
        std::string digest;
    };
    bool Remembered(const std::string& name, const std::string& stored, const std::string& digest);
    bool Enter(std::uint32_t clientAddress);
    void Leave(std::uint32_t clientAddress);

    const std::string ownerPair_;
    const std::string decoy_;       // a hash that no password gives
    const std::string digestSalt_;  // of the quick hash, this process's own

    std::mutex mutex_;  // guards all below
    std::condition_variable left_;
    std::map<std::string, Seen> seen_;  // by account; only those that exist get here
    std::set<std::uint32_t> hashing_;   // addresses for which a password is being hashed
    int waiting_ = 0;
};

}  // namespace stats
