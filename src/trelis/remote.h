// The store of another host: one value, read over TCP. This header has the format that both sides
// share (the serving side is daemons/registryd/store_server.h) and the reading side.
//
// A connection carries one read, and the server closes it. All is text, a line ends with LF:
//
//     request   VTSTORE1 GET KEY
//     reply     VTSTORE1 STATUS LENGTH
//               and LENGTH bytes of the value, without line end or zero byte
//
// KEY is an absolute path below 512 bytes, without control characters. STATUS is one digit (see
// below); without a value LENGTH is 0. LENGTH is decimal, at most 65536. To anything else the
// server answers nothing and closes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace trelis {

inline constexpr std::size_t kRemoteKeySize = 512;
inline constexpr std::size_t kRemoteMostValue = 65536;

enum class RemoteStatus : char {
    kFound = '0',
    kMissing = '1',  // or not for other hosts
    kTooLong = '2',
};

// The request's line for a key; empty if the key can't travel.
std::string RemoteRequest(const std::string& key);
inline constexpr std::size_t kRemoteMostRequest = sizeof "VTSTORE1 GET \n" - 1 + kRemoteKeySize - 1;
// The key of a request (with its LF), or nothing if it is none.
std::optional<std::string> ParseRemoteRequest(const std::string& line);
// A whole reply; the value is sent with kFound alone.
std::string RemoteReply(RemoteStatus status, const std::string& value);

// Reads one value of the store of `address` (host byte order). Nothing if there is none, if that
// host doesn't let others read it, or if it has not answered within 2 s in all. Any thread; throws
// std::bad_alloc only.
std::optional<std::string> RemoteGetValue(std::uint32_t address, std::uint16_t port,
                                          const std::string& key);

}  // namespace trelis
