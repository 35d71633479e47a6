#include "net/address.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace {

constexpr std::array<std::uint8_t, 12> kV4Prefix = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
constexpr int kBits = 128;
constexpr int kV4Bits = 32;
constexpr char kEveryAddress[] = "0.0.0.0";

}  // namespace

IpAddress IpAddress::OfV4(std::uint32_t address) {
    IpAddress made;
    std::copy(kV4Prefix.begin(), kV4Prefix.end(), made.bytes_.begin());
    std::memcpy(made.bytes_.data() + kV4Prefix.size(), &address, sizeof address);
    return made;
}

IpAddress IpAddress::OfV6(const std::array<std::uint8_t, 16>& bytes) {
    IpAddress made;
    made.bytes_ = bytes;
    return made;
}

std::optional<IpAddress> IpAddress::Parse(std::string_view text) {
    // inet_pton stops at a zero byte, as a text in C does.
    if (text.find('\0') != std::string_view::npos) return std::nullopt;
    const std::string whole(text);
    if (in_addr v4{}; inet_pton(AF_INET, whole.c_str(), &v4) == 1) return OfV4(v4.s_addr);
    std::array<std::uint8_t, 16> v6{};
    if (inet_pton(AF_INET6, whole.c_str(), v6.data()) == 1) return OfV6(v6);
    return std::nullopt;
}

IpAddress IpAddress::Of(const SocketAddress& address) {
    if (address.Family() != AF_INET6) return OfV4(address.V4().sin_addr.s_addr);
    std::array<std::uint8_t, 16> bytes{};
    std::memcpy(bytes.data(), &address.V6().sin6_addr, bytes.size());
    return OfV6(bytes);
}

SocketAddress IpAddress::WithPort(std::uint16_t port) const {
    if (IsV4()) {
        sockaddr_in record{};
        record.sin_family = AF_INET;
        record.sin_port = htons(port);
        record.sin_addr.s_addr = V4();
        return SocketAddress(record);
    }
    sockaddr_in6 record{};
    record.sin6_family = AF_INET6;
    record.sin6_port = htons(port);
    std::memcpy(&record.sin6_addr, bytes_.data(), bytes_.size());
    return SocketAddress(record);
}

bool IpAddress::IsLoopback() const {
    if (IsV4()) return ntohl(V4()) >> 24 == IN_LOOPBACKNET;
    return bytes_ == std::array<std::uint8_t, 16>{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
}

bool IpAddress::IsV4() const {
    return std::equal(kV4Prefix.begin(), kV4Prefix.end(), bytes_.begin());
}

std::uint32_t IpAddress::V4() const {
    std::uint32_t address = 0;
    std::memcpy(&address, bytes_.data() + kV4Prefix.size(), sizeof address);
    return address;
}

std::string IpAddress::Text() const {
    char text[INET6_ADDRSTRLEN] = "";
    if (IsV4()) {
        inet_ntop(AF_INET, bytes_.data() + kV4Prefix.size(), text, sizeof text);
    } else {
        inet_ntop(AF_INET6, bytes_.data(), text, sizeof text);
    }
    return text;
}

// The system would listen on a broadcast address and on one of "this network", where no client ever
// comes, and would keep the port from a good entry.
std::optional<IpAddress> ListenAddress(const std::string& text) {
    if (text.find(':') != std::string::npos) return IpAddress::Parse(text);
    const std::uint32_t address = inet_addr(text.empty() ? kEveryAddress : text.c_str());
    if (address != INADDR_ANY && (address == INADDR_NONE || ntohl(address) >> 24 == 0))
        return std::nullopt;
    return IpAddress::OfV4(address);
}

std::optional<IpNetwork> IpNetwork::Parse(std::string_view text) {
    const std::size_t slash = text.find('/');
    const std::optional<IpAddress> address = IpAddress::Parse(text.substr(0, slash));
    if (!address) return std::nullopt;
    const int most = address->IsV4() ? kV4Bits : kBits;
    int prefix = most;
    if (slash != std::string_view::npos) {
        const std::string_view digits = text.substr(slash + 1);
        const auto [rest, error] =
            std::from_chars(digits.data(), digits.data() + digits.size(), prefix);
        if (error != std::errc() || rest != digits.data() + digits.size() || prefix < 0 ||
            prefix > most)
            return std::nullopt;
    }
    IpNetwork network;
    network.address_ = *address;
    network.prefix_ = prefix + kBits - most;
    return network;
}

bool IpNetwork::Contains(const IpAddress& address) const {
    if (address.IsV4() != address_.IsV4()) return false;
    const auto whole = static_cast<std::size_t>(prefix_ / 8);
    const int bits = prefix_ % 8;
    const auto& theirs = address.Bytes();
    const auto& ours = address_.Bytes();
    if (!std::equal(ours.begin(), ours.begin() + whole, theirs.begin())) return false;
    return bits == 0 || (ours[whole] ^ theirs[whole]) >> (8 - bits) == 0;
}

int IpNetwork::Bits() const { return prefix_ - (IsV4() ? kBits - kV4Bits : 0); }
