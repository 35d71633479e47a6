// The system's tables of sockets tell who listens where by the number of the socket; whose that is,
// the descriptors of the processes tell.
#include "platform/listener.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>

#include "platform/home.h"

namespace platform {
namespace {

constexpr char kListening[] = "0A";
constexpr std::size_t kV4Digits = 8;

using Sockets = std::set<ino_t>;
using Bytes = std::array<unsigned char, 16>;

struct CloseDirectory {
    void operator()(DIR* directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

// Calls `use` with each entry's name that is a number.
template <typename Use>
void EachNumber(DIR* directory, Use use) {
    while (const dirent* entry = readdir(directory)) {
        if (entry->d_name[0] >= '0' && entry->d_name[0] <= '9') use(entry->d_name);
    }
}

// IPv4 in IPv6 form, so that both tables are compared alike.
Bytes AsV6(const SocketAddress& address) {
    Bytes bytes{};
    if (address.Family() == AF_INET6) {
        std::memcpy(bytes.data(), &address.V6().sin6_addr, bytes.size());
    } else {
        bytes[10] = bytes[11] = 0xFF;
        std::memcpy(bytes.data() + 12, &address.V4().sin_addr, 4);
    }
    return bytes;
}

// The tables have words of four bytes, in the order of this host.
Bytes ReadAddress(const std::string& digits) {
    Bytes bytes{};
    std::size_t at = 0;
    if (digits.size() == kV4Digits) {
        bytes[10] = bytes[11] = 0xFF;
        at = 12;
    }
    for (std::size_t i = 0; i + kV4Digits <= digits.size() && at < bytes.size();
         i += kV4Digits, at += 4) {
        const auto word = static_cast<std::uint32_t>(
            std::strtoul(digits.substr(i, kV4Digits).c_str(), nullptr, 16));
        std::memcpy(bytes.data() + at, &word, sizeof word);
    }
    return bytes;
}

bool IsV4(const Bytes& address) { return address[10] == 0xFF && address[11] == 0xFF; }

// Whether it stands for all addresses of the other one's family; "::" does for both.
bool Covers(const Bytes& address, const Bytes& other) {
    const auto from = address.begin() + (IsV4(address) ? 12 : 0);
    return std::all_of(from, address.end(), [](unsigned char byte) { return byte == 0; }) &&
           (!IsV4(address) || IsV4(other));
}

Sockets ListenersAt(const SocketAddress& address) {
    Sockets found;
    const Bytes wanted = AsV6(address);
    for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
        std::ifstream file(table);
        std::string line;
        std::getline(file, line);
        while (std::getline(file, line)) {
            std::istringstream words(line);
            std::string slot, local, remote, state, queues, timer, retries, user, timeouts;
            ino_t number = 0;
            words >> slot >> local >> remote >> state >> queues >> timer >> retries >> user >>
                timeouts >> number;
            const std::size_t colon = local.find(':');
            if (state != kListening || colon == std::string::npos ||
                std::strtoul(local.c_str() + colon + 1, nullptr, 16) != address.Port())
                continue;
            const Bytes other = ReadAddress(local.substr(0, colon));
            if (other == wanted || Covers(other, wanted) || Covers(wanted, other))
                found.insert(number);
        }
    }
    return found;
}

// The program's name, as everybody may read it.
std::string NameOf(const std::string& process) {
    std::ifstream file(process + "/comm");
    std::string name;
    std::getline(file, name);
    return name;
}

// Takes away what the process has open, if it is the one that has the lock's file open too. False
// if it can't be looked into: it may have powers that we lack.
bool TakeAway(const std::string& process, const struct stat& lock, Sockets& sockets) {
    const std::string folder = process + "/fd";
    const Directory descriptors(opendir(folder.c_str()));
    if (descriptors == nullptr) return false;
    bool serves = false;
    bool hidden = false;
    Sockets open;
    EachNumber(descriptors.get(), [&](const char* number) {
        struct stat info {};
        if (stat((folder + '/' + number).c_str(), &info) != 0) {
            hidden = hidden || errno == EACCES;
            return;
        }
        if (S_ISSOCK(info.st_mode)) open.insert(info.st_ino);
        serves = serves || (info.st_dev == lock.st_dev && info.st_ino == lock.st_ino);
    });
    if (!serves) return !hidden;
    std::erase_if(sockets, [&](ino_t each) { return open.contains(each); });
    return true;
}

}  // namespace

PortHolder WhoListens(const SocketAddress& address, const char* service) {
    Sockets sockets = ListenersAt(address);
    if (sockets.empty()) return PortHolder::kNobody;
    struct stat lock {};
    if (stat((HomePath("services/") + service + ".lock").c_str(), &lock) != 0)
        return PortHolder::kOther;
    const Directory processes(opendir("/proc"));
    bool hidden = false;
    if (processes != nullptr) {
        EachNumber(processes.get(), [&](const char* number) {
            const std::string process = std::string("/proc/") + number;
            struct stat info {};
            if (stat(process.c_str(), &info) != 0 || info.st_uid != geteuid()) return;
            if (!TakeAway(process, lock, sockets) && NameOf(process) == NameOf("/proc/self"))
                hidden = true;
        });
    }
    return sockets.empty() || hidden ? PortHolder::kService : PortHolder::kOther;
}

}  // namespace platform
