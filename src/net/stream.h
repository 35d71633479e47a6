// One connection as its user sees it: lines and blocks in, whole pieces out. What has been read and
// not yet asked for stays here, so that a line reader and a block reader can take turns on one
// connection, and nothing that has come is ever lost between them.
//
// The socket stays its owner's, who closes it. One thread at a time. Nothing throws but a failed
// allocation. A failed read or write leaves the socket open: what follows is the owner's decision.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "net/socket.h"
#include "net/transport.h"
#include "platform/clock.h"
#include "platform/file.h"

// The end of a time that several waits share; it may be some milliseconds late.
class Deadline {
  public:
    explicit Deadline(std::chrono::milliseconds limit) : end_(platform::TickBehind(limit)) {}
    explicit Deadline(std::uint32_t seconds) : Deadline(std::chrono::seconds(seconds)) {}
    // Not below zero.
    std::chrono::milliseconds Left() const;
    bool Over() const { return Left().count() == 0; }

  private:
    std::chrono::steady_clock::time_point end_;
};

class Stream {
  public:
    // From now on the socket's bytes pass here. What an earlier socket left is forgotten.
    void Attach(const CSocket& socket);
    // And from now on they pass through the transport, which speaks with the same socket. What was
    // read ahead before is forgotten: it came from whoever can write into the bare connection.
    void Secure(std::unique_ptr<Transport> transport);
    const CSocket& Socket() const { return socket_; }
    bool Secured() const { return transport_ != nullptr; }

    // The limit of one write, and the one that each arrival gets where a read has none of its own.
    void SetLimit(std::uint32_t seconds) { seconds_ = seconds; }

    enum class Line {
        kWhole,    // with its line end, LF or CR LF
        kTooLong,  // read to its end, wherever that was; `line` holds its beginning
        kFailed    // time over, closed or broken
    };
    // The next line, of at most `limit` bytes with its end. The time counts anew with each arrival,
    // but nobody holds a session by a byte now and then: kLongestLineTimes of it are the end. With
    // `whole` it is that for all of it. With `other`, a broken connection there is a failure. The
    // view holds until the next read.
    static constexpr std::uint32_t kLongestLineTimes = 5;
    Line ReadLine(std::string_view& line, std::size_t limit, const Deadline* whole = nullptr,
                  const CSocket* other = nullptr);

    enum class Wait { kReady, kTimeOver, kFailed };
    // Waits until there is something to read, or the end of the connection. With `other`, a broken
    // connection there ends the wait with kFailed.
    Wait WaitReadable(std::chrono::milliseconds limit, const CSocket* other = nullptr);

    // Up to `size` bytes, at once where some are there: the count, 0 once the peer has closed, -1
    // on failure or when the time is over. Bytes that were read ahead come first and alone.
    int Read(char* buffer, int size, std::chrono::milliseconds limit,
             const CSocket* other = nullptr);
    bool HasReadAhead() const { return at_ < ahead_.size(); }
    // Whether a whole line has been read ahead.
    bool HasLineAhead() const { return ahead_.find('\n', at_) != std::string::npos; }
    // Gives bytes back that were read and belong to the next reader.
    void PutBack(std::string_view bytes);

    // Sends all of it. False on failure, or when the limit is over before the last byte is out.
    bool Send(std::string_view bytes);
    // The same, but it may wait for what follows: until Send or Flush, or until there is too much
    // of it.
    bool Queue(std::string_view bytes);
    bool Flush();
    // The same of `length` bytes of the file, from its position `offset` on; without TLS they don't
    // pass our memory. False also if the file has fewer.
    bool SendFile(const platform::File& file, long long offset, long long length);

    // Whether the peer has closed, with nothing that it sent left to read, or the connection is
    // broken. Never waits.
    bool PeerGone();
    // Urgent data, a pending error or a reset.
    bool HasException() const { return socket_.HasException(); }
    // Closes in such a way that the last reply reaches a peer that is still sending: says that
    // nothing more comes, and takes what is on its way, up to a bound in bytes and time.
    void EndSending();
    // Says the last word of a secured connection, as far as it goes out at once, and lets go of the
    // socket, whose number may soon be another's: its owner then closes it.
    void Detach();

  private:
    bool FindLine(std::string_view& line);
    int TakeAhead(char* buffer, int size);
    // These look at the connection alone, not at what was read ahead.
    int ReceiveNow(char* buffer, int size);
    int FillAhead();
    int ReceiveWaiting(char* buffer, int size, std::chrono::milliseconds limit,
                       const CSocket* other);
    // Whether a call that would have blocked has seen that the socket has nothing: a transport may
    // have had enough of it before.
    bool Blocked() const { return transport_ == nullptr; }
    // `blocked` as SocketWaitAny has it.
    Wait WaitForSocket(std::chrono::milliseconds limit, const CSocket* other, bool blocked);
    void LetOthersRun(int bytes);

    bool SendNow(std::string_view bytes);
    bool WaitForRoom(const Deadline& deadline);

    CSocket socket_;  // a copy: not closed here
    std::unique_ptr<Transport> transport_;
    std::uint32_t seconds_ = 0;
    std::string ahead_;       // what has come and was not asked for yet, from at_ on
    std::size_t at_ = 0;      // everything in front of it has been given out
    std::size_t looked_ = 0;  // no line end between at_ and it
    std::string queued_;      // to be sent
    // A short read has taken all that was there: what comes next is worth a wait, not a look.
    bool drained_ = false;
    int unwaited_ = 0;  // what has been read and written since the last wait
};
