// The session's connection to the real server: commands out, whole replies in, and the NOOPs that
// keep it while the session is busy with something else.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "net/stream.h"
#include "platform/clock.h"
#include "session/settings.h"

// One reply, its lines as they go to the client.
struct ServerReply {
    std::string text;
    std::string_view Last() const;  // the last line
    bool Is(std::string_view code) const { return Last().starts_with(code); }
    bool Refuses() const { return Is("4") || Is("5"); }
};

class ServerLink {
  public:
    explicit ServerLink(const SessionSettings& settings) : settings_(settings) {}

    // Whom the replies are for: no reply is waited for any more once that connection is broken. An
    // empty one is never.
    void SetClient(const CSocket& client) { client_ = client; }

    // The socket is the session's, connected.
    void Attach(const CSocket& socket);

    // From now on the server's bytes pass through TLS.
    void Secure(std::unique_ptr<Transport> transport) { stream_.Secure(std::move(transport)); }
    // The session is about to close the socket.
    void Detach() {
        stream_.Detach();
        socket_ = CSocket();
    }
    // Whether more has come than was asked for.
    bool HasReadAhead() const { return stream_.HasReadAhead(); }
    // A reply that has been read already, and is the answer to what comes next.
    void HoldReply(ServerReply reply) { held_ = std::move(reply.text); }

    // False if the server takes no more.
    bool Send(std::string_view bytes);
    // The same, but it may wait for what is sent next.
    bool Queue(std::string_view bytes);
    bool Flush() { return stream_.Flush(); }
    bool SendFile(const platform::File& file, long long offset, long long length) {
        lastSent_ = platform::LastTick();
        return stream_.SendFile(file, offset, length);
    }
    bool Ask(std::string_view command, ServerReply& reply) {
        return Send(command) && ReadReply(reply);
    }

    // Reads one reply line by line: Begin, then Next until it gives false; Failed tells whether the
    // reply came to its end. All of it has to come within the connection's time-out.
    class ReplyReader {
      public:
        explicit ReplyReader(ServerLink& link);
        // A line with its end, made shorter where it is longer than a client has to take. Lines
        // without the room for a code are no part of any reply and are passed over.
        bool Next(std::string_view& line);
        bool Failed() const { return failed_; }

      private:
        ServerLink& link_;
        Deadline deadline_;
        int lines_ = 0;
        bool done_ = false;
        bool failed_ = false;
        std::string shortened_;
    };
    // False also for a reply that asks for more (3yz): the server would take the next command, or a
    // block of a message, for that.
    bool ReadReply(ServerReply& reply) { return ReadAnyReply(reply) && !reply.Is("3"); }
    // DATA, which is answered in that way: 354.
    bool AskForData(ServerReply& reply) { return Send("DATA\r\n") && ReadAnyReply(reply); }

    // A NOOP and its reply, whatever that says; but a server that answers 421 is about to close.
    bool Noop();
    // After an answer of the proxy's own. The first few get a NOOP each; then one goes only to a
    // server that has heard nothing for the interval, for servers count commands that move no mail
    // and hang up on a client with too many of them. False if a NOOP failed.
    bool KeepAliveAfterAnswer();
    // Whether a line of a reply has come since Attach.
    bool HasSpoken() const { return spoken_; }
    bool SilentFor(std::chrono::seconds time) const {
        return platform::LastTick() - lastSent_ >= time;
    }

    const CSocket& Socket() const { return socket_; }
    // Whether the server has offered CHUNKING and PIPELINING in its last reply to a greeting.
    bool takesChunks = false;
    bool takesBatches = false;
    // How it may be told of the client: what it has offered behind the keyword of TellServer.
    std::string tellOffer;
    bool xclientDue = false;  // in front of the client's first command

  private:
    bool ReadAnyReply(ServerReply& reply);
    // The next line, of a reply that is held or from the connection.
    Stream::Line ReadLine(std::string_view& line, const Deadline& whole);

    using Clock = std::chrono::steady_clock;

    const SessionSettings& settings_;
    CSocket socket_;  // a copy: closed by the session
    CSocket client_;  // the same
    Stream stream_;
    Clock::time_point lastSent_;
    int ownAnswers_ = 0;
    bool spoken_ = false;
    std::string held_;
    std::string heldLine_;
};
