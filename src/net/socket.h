// net/: the network primitives: CSocket with its timed waits, line reader and writer, name
// resolution and the start of a thread. The only place above platform/ that touches TCP.
//
// No operation logs, throws or retries; a failed read or write leaves the socket open. Nothing is
// locked: a CSocket is used by one thread at a time. Times are whole seconds; 0 makes a wait a
// poll.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/socket.h"
#include "platform/sync.h"

// One socket handle, a plain value: its owner calls Shutdown, then Close. 0 means empty; a failed
// Create or Accept leaves the invalid handle value.
class CSocket {
  public:
    CSocket() = default;
    explicit CSocket(SOCKET handle) : handle_(handle) {}

    SOCKET Handle() const { return handle_; }
    bool Empty() const { return handle_ == 0; }

    // Opens an IPv4 socket; type 1 is a stream.
    bool Create(int type);
    // Or a non-blocking one that can be bound or connected to this address.
    bool Create(int type, const SocketAddress& address);
    void Close();
    void Shutdown();
    bool Bind(const SocketAddress& address);
    bool Listen();
    // Opens a non-blocking listener, which gets its port while old connections of it linger. Its
    // connections send without waiting for acknowledgements: what belongs together is put together
    // before, and the other side's delay, some 40 ms a piece, would be all that is had. An IPv6 one
    // takes IPv4 clients too with `bothFamilies`. 0, or the platform's error value: it is
    // empty then.
    int CreateListener(const SocketAddress& address, bool bothFamilies);
    // out holds the new socket, non-blocking. address may be null.
    bool Accept(CSocket& out, SocketAddress* address);
    // Waits as long as the system tries.
    bool Connect(const SocketAddress& address);
    // Waits no longer than that; the socket is non-blocking afterwards. 0, or the platform's error
    // value. `underWay` is called once the attempt has begun, and may end it by false; from then on
    // a shutdown of the socket by another thread ends the wait.
    int Connect(const SocketAddress& address, std::chrono::milliseconds limit,
                const std::function<bool()>& underWay);
    // 0, or the platform's error value.
    int GetPeerAddress(SocketAddress& address) const;
    // Our side's.
    int GetOwnAddress(SocketAddress& address) const;

    // Urgent data, a pending error or a reset connection. A half-closed connection is none. Never
    // waits.
    bool HasException() const;
    // 1 ready, 0 time over or failure, -1 exception condition.
    int WaitReadable(std::uint32_t seconds) const;
    int WaitWritable(std::uint32_t seconds) const;

    // One receive of up to length bytes: the count, 0 if the peer has closed, -1 on time-out or
    // error.
    int ReceiveTimed(void* buffer, int length, std::uint32_t seconds);
    // Reads one line with its line end, zero-terminated; nothing behind it is taken from the
    // socket. At most size - 2 bytes pass unchanged; a longer line is cut to size - 1 bytes that
    // end in CR LF, and what has arrived behind it is thrown away. The time limit counts anew with
    // each arrival. 1, or 0 on time-out, close, error, or size below 3.
    int ReadLine(char* buffer, int& length, int size, std::uint32_t seconds);
    // Reads exactly length bytes and adds a zero byte (length + 1 bytes of room). 1, or 0.
    int ReadExact(char* buffer, int length, std::uint32_t seconds);
    // Sends all; length 0 means a zero-terminated text. 1, or 0 on failure or after 300 s without
    // progress.
    int SendAll(const void* buffer, int length);
    int SendAll(const char* text) { return SendAll(text, 0); }

  private:
    SOCKET handle_ = 0;
};

// The host's first IPv4 address and the port (host order); all zero if the name is unknown. Any
// thread.
SocketAddress ResolveHost(const char* name, std::uint16_t port);
// All addresses of the host, of both families, in the resolver's order; none if the name is
// unknown. A host in numbers is its one address, also in the forms that NumericAddress takes. Any
// thread; waits as long as the system's resolver does.
std::vector<SocketAddress> ResolveAll(const std::string& host, std::uint16_t port);

// An IPv4 address in numbers and a port (host order). A text that is none gives all ones, as null
// does.
SocketAddress NumericAddress(const char* text, std::uint16_t port);
// The address in numbers, without the port.
std::string AddressText(const SocketAddress& address);
// And with it: 192.0.2.1:25, [2001:db8::1]:25.
std::string AddressAndPort(const SocketAddress& address);

// Starts a thread at once. With an out handle the caller owns it. 0, or -1.
int StartThread(HANDLE* out, LPTHREAD_START_ROUTINE procedure, LPVOID argument);
