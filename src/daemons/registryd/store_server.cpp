#include "daemons/registryd/store_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <vector>

#include "platform/socket.h"
#include "trelis/keys/settings.h"
#include "trelis/remote.h"

namespace {

using namespace std::chrono_literals;
using platform::UniqueDescriptor;

consteval trelis::Key Key(const char* name) { return {trelis::kStoreKey, name}; }
// Below the first all may be read but the second and what is below it: password hashes.
constexpr char kOpen[] = "/VTWIN/Daemons/";
constexpr char kClosed[] = "/VTWIN/Daemons/StatsDaemon/Accounts";

constexpr std::size_t kMostPeers = 32;
constexpr int kBacklog = 64;
constexpr auto kPeerLimit = 2s;
constexpr auto kLookInterval = 500ms;  // at the settings, of which a look costs one atomic load
constexpr auto kListenRetry = 5s;

bool MayRead(const std::string& key) {
    return key.starts_with(kOpen) && key != kClosed && !key.starts_with(std::string(kClosed) + '/');
}

std::string ReplyTo(const std::string& key) {
    using trelis::RemoteStatus;
    std::vector<char> value(trelis::kRemoteMostValue + 2);
    if (!MayRead(key) ||
        TrelisGetValue(kLocalStore, key.c_str(), value.data(), static_cast<int>(value.size())) != 0)
        return trelis::RemoteReply(RemoteStatus::kMissing, {});
    const std::string text = value.data();
    return trelis::RemoteReply(
        text.size() > trelis::kRemoteMostValue ? RemoteStatus::kTooLong : RemoteStatus::kFound,
        text);
}

bool WouldBlock() { return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR; }

}  // namespace

bool StoreServer::Start() {
    wake_.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake_) return false;
    watch_.emplace(trelis::kStoreKey);
    settings_ = ReadSettings();
    nextTry_ = Clock::now();
    try {
        thread_ = std::thread(&StoreServer::Serve, this);
    } catch (const std::system_error&) {
        watch_.reset();
        return false;
    }
    return true;
}

void StoreServer::Stop() {
    if (!thread_.joinable()) return;
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(wake_.Get(), &one, sizeof one);
    thread_.join();
    peers_.clear();
    listener_.Reset();
    watch_.reset();
}

std::optional<StoreServer::Settings> StoreServer::ReadSettings() {
    if (!trelis::ReadFlag(Key("RemoteReads"))) return std::nullopt;
    in_addr address{htonl(INADDR_ANY)};
    const std::string text = trelis::ReadText(Key("Address"));
    // A slip of the pen must not open the store to everybody.
    if (!text.empty() && inet_pton(AF_INET, text.c_str(), &address) != 1) {
        std::fprintf(stderr, "store server: %s: no address: %s\n", Key("Address").Path().c_str(),
                     text.c_str());
        return std::nullopt;
    }
    return Settings{address.s_addr, static_cast<std::uint16_t>(trelis::ReadInt(Key("Port")))};
}

void StoreServer::Listen() {
    nextTry_ = Clock::now() + kListenRetry;
    UniqueDescriptor listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener) return;
    SocketAllowReuse(listener.Get());
    sockaddr_in record{};
    record.sin_family = AF_INET;
    record.sin_port = htons(settings_->port);
    record.sin_addr.s_addr = settings_->address;
    if (bind(listener.Get(), reinterpret_cast<const sockaddr*>(&record), sizeof record) != 0 ||
        listen(listener.Get(), kBacklog) != 0) {
        std::fprintf(stderr, "store server: can't listen on port %d: %s\n", settings_->port,
                     std::strerror(errno));
        return;
    }
    listener_ = std::move(listener);
}

// Looks whether the settings have changed. Switched off, nobody is served to the end either.
void StoreServer::Follow() {
    if (watch_->Changed()) {
        const std::optional<Settings> now = ReadSettings();
        if (now != settings_) {
            settings_ = now;
            listener_.Reset();
            peers_.clear();
            nextTry_ = Clock::now();
        }
    }
    if (settings_ && !listener_ && Clock::now() >= nextTry_) Listen();
}

void StoreServer::Accept() {
    while (peers_.size() < kMostPeers) {
        UniqueDescriptor socket(
            accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!socket) {
            // Whatever waits stays readable: no descriptors is not to become a busy loop.
            held_ = !WouldBlock() && errno != ECONNABORTED;
            return;
        }
        peers_.push_back({std::move(socket), Clock::now() + kPeerLimit, {}, {}});
    }
}

// Reads or writes what is possible. False when the peer is finished with, in whatever way.
bool StoreServer::Advance(Peer& peer) {
    const int descriptor = peer.socket.Get();
    if (peer.reply.empty()) {
        char block[trelis::kRemoteMostRequest];
        const std::size_t room = trelis::kRemoteMostRequest - peer.request.size();
        const ssize_t count = recv(descriptor, block, room, 0);
        if (count < 0) return WouldBlock();
        if (count == 0) return false;
        peer.request.append(block, static_cast<std::size_t>(count));
        if (peer.request.find('\n') == std::string::npos)
            return peer.request.size() < trelis::kRemoteMostRequest;
        const std::optional<std::string> key = trelis::ParseRemoteRequest(peer.request);
        if (!key) return false;
        peer.reply = ReplyTo(*key);
    }
    const ssize_t count = send(descriptor, peer.reply.data(), peer.reply.size(), MSG_NOSIGNAL);
    if (count < 0) return WouldBlock();
    peer.reply.erase(0, static_cast<std::size_t>(count));
    return !peer.reply.empty();
}

void StoreServer::Serve() {
    for (;;) {
        try {
            if (!Round()) return;
        } catch (const std::exception&) {
            peers_.clear();  // memory ran out: the strangers go first
        }
    }
}

// One wait and what it brings. False at the end.
bool StoreServer::Round() {
    Follow();
    const bool accepting = listener_ && !held_ && peers_.size() < kMostPeers;
    held_ = false;
    std::vector<platform::DescriptorWatch> watches{{wake_.Get()},
                                                   {accepting ? listener_.Get() : -1}};
    Clock::time_point end = Clock::now() + kLookInterval;
    for (const Peer& peer : peers_) {
        using platform::Want;
        watches.push_back({peer.socket.Get(), peer.reply.empty() ? Want::kRead : Want::kWrite});
        end = std::min(end, peer.end);
    }
    platform::WaitForDescriptors(watches, end);
    if (watches[0].ready) return false;
    auto watch = watches.begin() + 2;
    for (auto peer = peers_.begin(); peer != peers_.end(); ++watch) {
        const bool inTime = Clock::now() < peer->end;
        const bool stays = inTime && (!watch->ready || Advance(*peer));
        peer = stays ? std::next(peer) : peers_.erase(peer);
    }
    if (watches[1].ready) Accept();
    return true;
}
