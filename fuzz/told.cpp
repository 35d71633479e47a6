// What somebody trusted tells of a client: a PROXY header in front of everything, or the words
// behind XCLIENT. The first byte chooses.
//
// Whatever is told: nothing changes unless it could be read; what was read can be told on, in
// commands that nothing gets out of, and is read there as it was here.
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "session/client/proxy_header.h"
#include "session/client/xclient.h"

namespace {

void Must(bool holds) {
    if (!holds) __builtin_trap();
}

bool SameAddresses(const ClientIdentity& a, const ClientIdentity& b) {
    return a.address == b.address && a.port == b.port && a.destinationPort == b.destinationPort &&
           (a.destinationPort == 0 || a.destination == b.destination);
}
bool Same(const ClientIdentity& a, const ClientIdentity& b) {
    return SameAddresses(a, b) && a.name == b.name && a.helo == b.helo && a.login == b.login &&
           a.proto == b.proto;
}

ClientIdentity Peer() {
    ClientIdentity peer;
    peer.address = *IpAddress::Parse("127.0.0.9");
    peer.port = 9;
    peer.destination = *IpAddress::Parse("127.0.0.8");
    peer.destinationPort = 8;
    return peer;
}

// Of bytes, and then the end of the connection. left: what was not taken.
ProxyHeader ReadFrom(std::string_view bytes, ClientIdentity& identity, std::string& left) {
    std::array<int, 2> ends{};
    Must(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends.data()) == 0);
    Must(write(ends[1], bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
    shutdown(ends[1], SHUT_WR);
    CSocket socket(ends[0]);
    const ProxyHeader result = ReadProxyHeader(socket, Deadline(std::uint32_t{5}), identity);
    std::array<char, 8192> rest;
    const ssize_t count = read(ends[0], rest.data(), rest.size());
    left.assign(rest.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
    for (const int each : ends) close(each);
    return result;
}

void Header(std::string_view bytes) {
    ClientIdentity identity = Peer();
    std::string left;
    const ProxyHeader result = ReadFrom(bytes, identity, left);
    Must(bytes.ends_with(left));
    if (result != ProxyHeader::kTold) Must(Same(identity, Peer()));
    if (result == ProxyHeader::kBroken) return;
    const std::string_view taken = bytes.substr(0, bytes.size() - left.size());
    if (taken.front() == 'P')
        Must(taken.size() <= 107 && taken.find('\n') == taken.size() - 1);
    else
        Must(taken.size() >= 16 && taken.size() <= 16 + 4096);
    if (result == ProxyHeader::kLocal) return;
    for (const std::string& header : {ProxyHeaderV1(identity), ProxyHeaderV2(identity)}) {
        ClientIdentity again;
        Must(ReadFrom(header + "next", again, left) == ProxyHeader::kTold);
        Must(SameAddresses(again, identity) && left == "next");
    }
}

void Words(std::string_view words) {
    ClientIdentity identity = Peer();
    if (!ReadXclient(words, identity)) {
        Must(Same(identity, Peer()));
        return;
    }
    ClientIdentity again;
    bool fits = true;
    for (const std::string& each : XclientCommands(identity, kXclientAttributes)) {
        Must(each.size() <= 512 && each.starts_with("XCLIENT ") &&
             each.find_first_of(std::string_view("\r\n\0<>\x7F", 6)) == each.size() - 2);
        Must(ReadXclient(std::string_view(each).substr(7), again));
    }
    for (const std::string* each : {&identity.name, &identity.helo, &identity.login})
        fits = fits && each->size() <= 150;  // also with every byte encoded
    if (fits) Must(Same(again, identity));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1 || size > 6000) return 0;
    const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (data[0] % 2 == 0)
        Header(text);
    else
        Words(text);
    return 0;
}
