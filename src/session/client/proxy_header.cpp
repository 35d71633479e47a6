// Version 1 is a line: "PROXY TCP4 192.0.2.1 198.51.100.2 40000 25" CR LF: from, to, and the ports.
//
// Version 2, numbers in network byte order:
//
//     12 bytes  signature
//      1        version (2) in the upper half, command in the lower: 0 LOCAL, 1 PROXY
//      1        family in the upper half (1 IPv4, 2 IPv6), 1 in the lower: a stream
//      2        length of all that follows
//     12 or 36  from and to (4 or 16 bytes each), and their ports (2 each)
//      ...      further elements: type (1), length (2), value
#include "session/client/proxy_header.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <optional>
#include <string_view>

using namespace std::string_view_literals;

namespace {

constexpr std::string_view kLineStart = "PROXY "sv;
// With its line end.
constexpr std::size_t kLongestLine = 107;

constexpr std::string_view kSignature = "\r\n\r\n\0\r\nQUIT\n"sv;
constexpr std::size_t kFixedPart = 16;
// The format allows 64 KiB behind the fixed part. Balancers fill a few hundred bytes with what they
// know of a client and its TLS; nobody gets more than this from us.
constexpr std::size_t kMostRest = 4096;
constexpr char kLocalCommand = 0x20;
constexpr char kProxyCommand = 0x21;
constexpr char kUnspecified = 0x00;
constexpr char kTcp4 = 0x11;
constexpr char kTcp6 = 0x21;
constexpr std::size_t kV4Size = 4;
constexpr std::size_t kV6Size = 16;

// Whether what has come so far can become the start of this text, or of more behind it.
bool CanBe(std::string_view come, std::string_view start) {
    const std::size_t size = std::min(come.size(), start.size());
    return come.substr(0, size) == start.substr(0, size);
}

// The bytes of a header, taken from the socket as they come and no further than asked for.
class Taker {
  public:
    Taker(CSocket& socket, const Deadline& deadline) : socket_(socket), deadline_(deadline) {}

    // Takes what is there, up to `most` bytes in all and no further than a line feed with `line`.
    // At least one byte; waits for it. False at the end of connection or time.
    bool Take(std::size_t most, bool line);
    std::string_view Taken() const { return {bytes_.data(), size_}; }

  private:
    CSocket& socket_;
    const Deadline& deadline_;
    std::array<char, kFixedPart + kMostRest> bytes_;
    std::size_t size_ = 0;
};

bool Taker::Take(std::size_t most, bool line) {
    if (most <= size_ || most > bytes_.size()) return false;
    char* const at = bytes_.data() + size_;
    const int room = static_cast<int>(most - size_);
    for (;;) {
        int count = SocketReceiveNow(socket_.Handle(), at, room, true);
        if (count == SOCKET_WOULD_BLOCK) {
            SocketWatch watch{socket_.Handle(), SocketWant::kRead, {}};
            if (!SocketWaitAny(&watch, 1, deadline_.Left()) || watch.found.exception) return false;
            continue;
        }
        if (count < 1) return false;
        const void* const end =
            line ? std::memchr(at, '\n', static_cast<std::size_t>(count)) : nullptr;
        if (end != nullptr) count = static_cast<int>(static_cast<const char*>(end) - at) + 1;
        if (SocketReceiveNow(socket_.Handle(), at, count, false) != count) return false;
        size_ += static_cast<std::size_t>(count);
        return true;
    }
}

// Both forms end here. A client of no address is none. Whoever names the ends of the very
// connection that this came by speaks for itself: so do balancers in version 1 that look whether we
// are there.
ProxyHeader Told(ClientIdentity& identity, const IpAddress& from, std::uint16_t fromPort,
                 const IpAddress& to, std::uint16_t toPort) {
    if (from == IpAddress() || from == IpAddress::OfV4(0)) return ProxyHeader::kBroken;
    if (from == identity.address && fromPort == identity.port && to == identity.destination &&
        toPort == identity.destinationPort)
        return ProxyHeader::kLocal;
    identity.address = from;
    identity.port = fromPort;
    identity.destination = to;
    identity.destinationPort = toPort;
    return ProxyHeader::kTold;
}

// Cuts off what stands before the next blank, and the blank.
std::string_view NextField(std::string_view& text) {
    const std::string_view field = text.substr(0, text.find(' '));
    text.remove_prefix(std::min(field.size() + 1, text.size()));
    return field;
}

std::optional<IpAddress> AddressOf(std::string_view text, bool v6) {
    if (v6 != (text.find(':') != std::string_view::npos)) return std::nullopt;
    return IpAddress::Parse(text);
}

// No sign, no needless zero.
std::optional<std::uint16_t> PortOf(std::string_view text) {
    std::uint16_t port = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, port);
    if (error != std::errc() || rest != end || (text.size() > 1 && text.front() == '0'))
        return std::nullopt;
    return port;
}

// The line without its end.
ProxyHeader ReadLine(std::string_view line, ClientIdentity& identity) {
    line.remove_prefix(kLineStart.size());
    const std::string_view family = NextField(line);
    if (family == "UNKNOWN"sv) return ProxyHeader::kLocal;
    if (family != "TCP4"sv && family != "TCP6"sv) return ProxyHeader::kBroken;
    const bool v6 = family == "TCP6"sv;
    const auto from = AddressOf(NextField(line), v6);
    const auto to = AddressOf(NextField(line), v6);
    const auto fromPort = PortOf(NextField(line));
    const auto toPort = PortOf(line);
    if (!from || !to || !fromPort || !toPort) return ProxyHeader::kBroken;
    return Told(identity, *from, *fromPort, *to, *toPort);
}

ProxyHeader TakeLine(Taker& taker, ClientIdentity& identity) {
    while (!taker.Taken().ends_with('\n')) {
        if (!CanBe(taker.Taken(), kLineStart) || !taker.Take(kLongestLine, true))
            return ProxyHeader::kBroken;
    }
    std::string_view line = taker.Taken();
    if (!line.starts_with(kLineStart) || !line.ends_with("\r\n"sv)) return ProxyHeader::kBroken;
    line.remove_suffix(2);
    return ReadLine(line, identity);
}

std::size_t NumberAt(std::string_view bytes, std::size_t at) {
    return static_cast<std::size_t>(static_cast<unsigned char>(bytes[at])) << 8 |
           static_cast<unsigned char>(bytes[at + 1]);
}

// Elements that nobody here asks for, but a length that lies says that the header can't be read.
bool ElementsFit(std::string_view elements) {
    while (!elements.empty()) {
        if (elements.size() < 3) return false;
        const std::size_t size = 3 + NumberAt(elements, 1);
        if (size > elements.size()) return false;
        elements.remove_prefix(size);
    }
    return true;
}

IpAddress AddressAt(std::string_view bytes, std::size_t at, std::size_t size) {
    if (size == kV4Size) {
        std::uint32_t address = 0;
        std::memcpy(&address, bytes.data() + at, sizeof address);
        return IpAddress::OfV4(address);
    }
    std::array<std::uint8_t, kV6Size> address{};
    std::memcpy(address.data(), bytes.data() + at, address.size());
    return IpAddress::OfV6(address);
}

// Of both addresses and ports; 0 where there are none to read.
std::size_t AddressesSize(char command, char family) {
    if (command == kLocalCommand || family == kUnspecified) return 0;
    return 2 * (family == kTcp4 ? kV4Size : kV6Size) + 4;
}

// What stands behind the fixed part, of addresses and ports of that size.
ProxyHeader ReadRest(std::size_t size, std::string_view rest, ClientIdentity& identity) {
    if (!ElementsFit(rest.substr(size))) return ProxyHeader::kBroken;
    const std::size_t ports = size - 4;
    const std::size_t each = ports / 2;
    return Told(identity, AddressAt(rest, 0, each),
                static_cast<std::uint16_t>(NumberAt(rest, ports)), AddressAt(rest, each, each),
                static_cast<std::uint16_t>(NumberAt(rest, ports + 2)));
}

// The fixed part as far as it has come.
bool CanBeFixedPart(std::string_view come) {
    if (!CanBe(come, kSignature)) return false;
    if (come.size() <= 12) return true;
    if (come[12] == kLocalCommand) return true;
    if (come[12] != kProxyCommand) return false;
    // Datagrams and sockets of the machine are no way that mail comes; whoever says so is confused,
    // and must not be taken for the balancer itself.
    return come.size() == 13 || come[13] == kTcp4 || come[13] == kTcp6 || come[13] == kUnspecified;
}

ProxyHeader TakeBinary(Taker& taker, ClientIdentity& identity) {
    for (;;) {
        if (!CanBeFixedPart(taker.Taken())) return ProxyHeader::kBroken;
        if (taker.Taken().size() == kFixedPart) break;
        if (!taker.Take(kFixedPart, false)) return ProxyHeader::kBroken;
    }
    const std::size_t addresses = AddressesSize(taker.Taken()[12], taker.Taken()[13]);
    const std::size_t rest = NumberAt(taker.Taken(), 14);
    if (rest < addresses || rest > kMostRest) return ProxyHeader::kBroken;
    while (taker.Taken().size() < kFixedPart + rest) {
        if (!taker.Take(kFixedPart + rest, false)) return ProxyHeader::kBroken;
    }
    if (addresses == 0) return ProxyHeader::kLocal;
    return ReadRest(addresses, taker.Taken().substr(kFixedPart), identity);
}

// In a header of one family both addresses are of it.
bool NeedsV6(const ClientIdentity& identity) {
    return !identity.address.IsV4() ||
           (identity.destinationPort != 0 && !identity.destination.IsV4());
}

// Where it is not known, an address that says so.
IpAddress DestinationOf(const ClientIdentity& identity) {
    if (identity.destinationPort != 0) return identity.destination;
    return NeedsV6(identity) ? IpAddress() : IpAddress::OfV4(0);
}

std::string TextOf(const IpAddress& address, bool v6) {
    return (v6 && address.IsV4() ? "::ffff:" : "") + address.Text();
}

void AppendNumber(std::string& bytes, std::size_t number) {
    bytes += static_cast<char>(number >> 8 & 0xFF);
    bytes += static_cast<char>(number & 0xFF);
}

void AppendAddress(std::string& bytes, const IpAddress& address, bool v6) {
    const auto& all = address.Bytes();
    bytes.append(v6 ? all.begin() : all.end() - kV4Size, all.end());
}

}  // namespace

ProxyHeader ReadProxyHeader(CSocket& socket, const Deadline& deadline, ClientIdentity& identity) {
    if (socket.Empty()) return ProxyHeader::kBroken;
    Taker taker(socket, deadline);
    if (!taker.Take(1, false)) return ProxyHeader::kBroken;
    return taker.Taken().front() == kLineStart.front() ? TakeLine(taker, identity)
                                                       : TakeBinary(taker, identity);
}

std::string ProxyHeaderV1(const ClientIdentity& identity) {
    const bool v6 = NeedsV6(identity);
    std::string line(kLineStart);
    line += v6 ? "TCP6 " : "TCP4 ";
    line += TextOf(identity.address, v6) + " " + TextOf(DestinationOf(identity), v6) + " ";
    line += std::to_string(identity.port) + " " + std::to_string(identity.destinationPort);
    return line + "\r\n";
}

std::string ProxyHeaderV2(const ClientIdentity& identity) {
    const bool v6 = NeedsV6(identity);
    std::string bytes(kSignature);
    bytes += kProxyCommand;
    bytes += v6 ? kTcp6 : kTcp4;
    AppendNumber(bytes, 2 * (v6 ? kV6Size : kV4Size) + 4);
    AppendAddress(bytes, identity.address, v6);
    AppendAddress(bytes, DestinationOf(identity), v6);
    AppendNumber(bytes, identity.port);
    AppendNumber(bytes, identity.destinationPort);
    return bytes;
}
