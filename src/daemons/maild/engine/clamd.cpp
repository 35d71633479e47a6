#include "daemons/maild/engine/clamd.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <string>

#include "daemons/maild/engine/answer.h"

namespace {

using Clock = Connection::Clock;
constexpr std::size_t kStreamBlock = 65536;
ScanResult Lost(const Connection& connection) {
    return {connection.TimedOut() ? ScanOutcome::kTimedOut : ScanOutcome::kDown, "no reply"};
}

// The time for a connect, within what is left for all.
Clock::time_point ConnectEnd(const EngineId& engine, Clock::time_point end) {
    return std::min(end, Clock::now() + std::chrono::seconds(engine.connectSeconds));
}

ClamdAnswer NotOpened(ScanOutcome outcome) {
    return {{outcome, outcome == ScanOutcome::kNoMeans ? "no descriptor for a connection"
                                                       : "can't connect"}};
}

ClamdAnswer ScanAsStream(const EngineId& engine, int file, Clock::time_point end) {
    Connection connection;
    connection.SetEnd(ConnectEnd(engine, end), engine.cancel);
    if (const ScanOutcome outcome = connection.Open(engine.targets); outcome != ScanOutcome::kClean)
        return NotOpened(outcome);
    if (!engine.isSame(connection)) return {{}, true};
    connection.SetEnd(end, engine.cancel);
    static constexpr char kCommand[] = "zINSTREAM";
    bool sent = connection.Send(kCommand, sizeof kCommand);
    std::array<char, kStreamBlock> block;
    for (off_t at = 0; sent;) {
        const ssize_t count = pread(file, block.data(), block.size(), at);
        if (count < 0) return {{ScanOutcome::kFailed, "can't read the file"}};
        const std::uint32_t length = htonl(static_cast<std::uint32_t>(count));
        sent = connection.Send(&length, sizeof length) &&
               connection.Send(block.data(), static_cast<std::size_t>(count));
        if (count == 0) break;
        at += count;
    }
    // Over its limit it answers and hangs up in the middle of the stream: its reply tells.
    std::string reply;
    if (!connection.Receive(reply)) return {Lost(connection)};
    // Of a process on another host nothing tells for sure whether it was the one that has shown
    // what it does; the end of its sentry comes at the latest with what it has answered.
    if (!engine.IsLocal() && !engine.isSame(connection)) return {{}, true};
    return {ReadAnswer(reply)};
}

// A session that a thread keeps open from one scan to the next: a connection for each would cost
// the engine a fifth of what a small message does. It answers each command with the command's
// number in front.
class Session {
  public:
    // Whether there is one with this engine that has not been idle for long.
    bool Usable(const EngineId& engine) const {
        return connection_.IsOpen() && engine.generation == generation_ &&
               Clock::now() - lastUse_ < kLongestIdle;
    }
    ScanOutcome Open(const EngineId& engine, Clock::time_point end) {
        connection_.Close();
        connection_.SetEnd(ConnectEnd(engine, end), engine.cancel);
        const ScanOutcome outcome = connection_.Open(engine.targets);
        if (outcome != ScanOutcome::kClean) return outcome;
        static constexpr char kCommand[] = "zIDSESSION";
        generation_ = engine.generation;
        commands_ = 0;
        return connection_.Send(kCommand, sizeof kCommand) ? outcome : ScanOutcome::kDown;
    }
    // False if there was no answer to this command: the session is over.
    bool Scan(const EngineId& engine, int file, Clock::time_point end, std::string& reply) {
        connection_.SetEnd(end, engine.cancel);
        static constexpr char kCommand[] = "zFILDES";
        const std::string number = std::to_string(++commands_) + ": ";
        const bool answered = connection_.SendFile(kCommand, sizeof kCommand, file) &&
                              connection_.Receive(reply) && reply.starts_with(number);
        lastUse_ = Clock::now();
        if (!answered) {
            connection_.Close();
            return false;
        }
        reply.erase(0, number.size());
        return true;
    }
    void Close() { connection_.Close(); }
    Clock::time_point LastUse() const { return lastUse_; }
    const Connection& GetConnection() const { return connection_; }

  private:
    // Shorter than the engine's own limit on idle sessions.
    static constexpr std::chrono::seconds kLongestIdle{10};

    Connection connection_;
    std::uint64_t generation_ = 0;
    int commands_ = 0;
    Clock::time_point lastUse_;
};

// The calling thread's session with the engine, or the one that it has not used for the longest.
Session& SessionFor(const EngineId& engine) {
    constexpr std::size_t kMost = 4;  // engines that a thread stays in touch with
    thread_local std::array<Session, kMost> sessions;
    const auto found = std::find_if(sessions.begin(), sessions.end(),
                                    [&](const Session& each) { return each.Usable(engine); });
    if (found != sessions.end()) return *found;
    return *std::min_element(
        sessions.begin(), sessions.end(),
        [](const Session& a, const Session& b) { return a.LastUse() < b.LastUse(); });
}

ClamdAnswer ScanAsDescriptor(const EngineId& engine, int file, Clock::time_point end) {
    Session& session = SessionFor(engine);
    std::string reply;
    // One that was kept may have been ended by the engine meanwhile, as when it was started anew;
    // but one that takes too long to answer is not asked again.
    if (session.Usable(engine)) {
        if (session.Scan(engine, file, end, reply)) return {ReadAnswer(reply)};
        if (session.GetConnection().TimedOut()) return {Lost(session.GetConnection())};
    }
    if (const ScanOutcome outcome = session.Open(engine, end); outcome != ScanOutcome::kClean)
        return NotOpened(outcome);
    if (!engine.isSame(session.GetConnection())) {
        session.Close();
        return {{}, true};
    }
    return {session.Scan(engine, file, end, reply) ? ReadAnswer(reply)
                                                   : Lost(session.GetConnection())};
}

}  // namespace

ClamdAnswer ScanWithClamd(const EngineId& engine, int file, Clock::time_point end) {
    if (!engine.IsLocal()) return ScanAsStream(engine, file, end);
    ClamdAnswer answer = ScanAsDescriptor(engine, file, end);
    // A build without descriptor passing, or one that may not read it: the bytes are streamed
    // instead.
    if (!answer.otherEngine && answer.result.outcome == ScanOutcome::kFailed)
        answer = ScanAsStream(engine, file, end);
    return answer;
}
