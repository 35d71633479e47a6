#include "daemons/clamd.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::size_t kStreamBlock = 65536;
constexpr std::size_t kMaxReply = 4096;

// A connection to the engine. What is done on it has a limit of time, set by Extend.
class Connection {
  public:
    Connection() = default;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() { Close(); }
    void Close() {
        if (socket_ >= 0) close(socket_);
        socket_ = -1;
    }
    bool IsOpen() const { return socket_ >= 0; }

    ScanOutcome Open(const std::string& path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (path.size() >= sizeof address.sun_path) return ScanOutcome::kDown;
        std::memcpy(address.sun_path, path.c_str(), path.size());
        socket_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        while (socket_ >= 0) {
            if (connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
                return ScanOutcome::kClean;
            if (errno != EAGAIN && errno != EINTR) return ScanOutcome::kDown;
            // Its queue is full: it is alive, and there may be room in a moment.
            if (Clock::now() >= end_) return ScanOutcome::kBusy;
            usleep(10000);
        }
        return ScanOutcome::kDown;
    }
    void Extend(int seconds) {
        end_ = Clock::now() + std::chrono::seconds(seconds);
        timedOut_ = false;
    }
    bool TimedOut() const { return timedOut_; }

    bool Send(const void* data, std::size_t length) {
        const char* at = static_cast<const char*>(data);
        while (length > 0) {
            const ssize_t count = send(socket_, at, length, MSG_NOSIGNAL);
            if (count < 0 && !Again(POLLOUT)) return false;
            if (count <= 0) continue;
            at += count;
            length -= static_cast<std::size_t>(count);
        }
        return true;
    }
    // The command and the open file behind it.
    bool SendFile(const char* command, std::size_t length, int file) {
        // The descriptor travels with one byte of its own, behind the command.
        char byte = 0;
        iovec data{&byte, 1};
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
        msghdr message{};
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(header), &file, sizeof file);
        if (!Send(command, length)) return false;
        while (sendmsg(socket_, &message, MSG_NOSIGNAL) < 0) {
            if (!Again(POLLOUT)) return false;
        }
        return true;
    }
    // One reply, up to its zero byte or the end of the connection.
    bool Receive(std::string& reply) {
        reply.clear();
        for (std::array<char, 512> buffer; reply.size() < kMaxReply;) {
            const ssize_t count = recv(socket_, buffer.data(), buffer.size(), 0);
            if (count < 0) {
                if (!Again(POLLIN)) return false;
                continue;
            }
            if (count == 0) break;
            reply.append(buffer.data(), static_cast<std::size_t>(count));
            if (reply.back() == '\0') break;
        }
        while (!reply.empty() && (reply.back() == '\0' || reply.back() == '\n')) reply.pop_back();
        return !reply.empty();
    }

  private:
    // After a failed call: waits if it only would have blocked.
    bool Again(short events) {
        if (errno == EINTR) return true;
        if (errno != EAGAIN && errno != EWOULDBLOCK) return false;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - Clock::now()).count();
        pollfd entry{socket_, events, 0};
        const int ready = left <= 0 ? 0 : poll(&entry, 1, static_cast<int>(left));
        timedOut_ = ready == 0;
        return ready > 0 || (ready < 0 && errno == EINTR);
    }

    int socket_ = -1;
    Clock::time_point end_;
    bool timedOut_ = false;
};

bool EndsWith(const std::string& text, const char* end) {
    const std::size_t length = std::strlen(end);
    return text.size() >= length && text.compare(text.size() - length, length, end) == 0;
}

ScanResult Judge(const std::string& reply) {
    if (EndsWith(reply, ": OK")) return {ScanOutcome::kClean, ""};
    if (EndsWith(reply, " FOUND")) {
        const std::size_t start = reply.find(": ");
        std::string name = reply.substr(start == std::string::npos ? 0 : start + 2);
        name.resize(name.size() - std::strlen(" FOUND"));
        if (name.rfind("Heuristics.Limits.Exceeded", 0) == 0) return {ScanOutcome::kTooBig, name};
        return {ScanOutcome::kInfected, name};
    }
    if (reply.find("size limit exceeded") != std::string::npos)
        return {ScanOutcome::kTooBig, reply};
    return {ScanOutcome::kFailed, reply};
}

ScanResult Lost(const Connection& connection) {
    return {connection.TimedOut() ? ScanOutcome::kTimedOut : ScanOutcome::kDown, "no reply"};
}

ScanResult ScanAsStream(const ClamdSettings& settings, int file) {
    Connection connection;
    connection.Extend(settings.connectSeconds);
    if (const ScanOutcome outcome = connection.Open(settings.socketPath);
        outcome != ScanOutcome::kClean)
        return {outcome, "can't connect"};
    connection.Extend(settings.scanSeconds);
    static constexpr char kCommand[] = "zINSTREAM";
    bool sent = connection.Send(kCommand, sizeof kCommand);
    std::array<char, kStreamBlock> block;
    for (off_t at = 0; sent;) {
        const ssize_t count = pread(file, block.data(), block.size(), at);
        if (count < 0) return {ScanOutcome::kFailed, "can't read the file"};
        const std::uint32_t length = htonl(static_cast<std::uint32_t>(count));
        sent = connection.Send(&length, sizeof length) &&
               connection.Send(block.data(), static_cast<std::size_t>(count));
        if (count == 0) break;
        at += count;
    }
    // Over its limit it answers and hangs up in the middle of the stream: its reply tells.
    std::string reply;
    return connection.Receive(reply) ? Judge(reply) : Lost(connection);
}

// A session that a thread keeps open from one scan to the next: a connection for each would cost
// the engine a fifth of what a small message does. It answers each command with the command's
// number in front.
class Session {
  public:
    // Whether there is one for this engine that has not been idle for long: then it closes it.
    bool Usable(const std::string& path) const {
        return connection_.IsOpen() && path == path_ && Clock::now() - lastUse_ < kLongestIdle;
    }
    ScanOutcome Open(const ClamdSettings& settings) {
        connection_.Close();
        connection_.Extend(settings.connectSeconds);
        const ScanOutcome outcome = connection_.Open(settings.socketPath);
        static constexpr char kCommand[] = "zIDSESSION";
        if (outcome != ScanOutcome::kClean) return outcome;
        path_ = settings.socketPath;
        commands_ = 0;
        return connection_.Send(kCommand, sizeof kCommand) ? outcome : ScanOutcome::kDown;
    }
    // False if there was no answer to this command: the session is over.
    bool Scan(int seconds, int file, std::string& reply) {
        connection_.Extend(seconds);
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
    const Connection& GetConnection() const { return connection_; }

  private:
    static constexpr std::chrono::seconds kLongestIdle{10};

    Connection connection_;
    std::string path_;
    int commands_ = 0;
    Clock::time_point lastUse_;
};

ScanResult ScanAsDescriptor(const ClamdSettings& settings, int file) {
    thread_local Session session;
    std::string reply;
    // One that was kept may have been ended by the engine meanwhile, as when it was started anew;
    // but one that takes too long to answer is not asked again.
    if (session.Usable(settings.socketPath)) {
        if (session.Scan(settings.scanSeconds, file, reply)) return Judge(reply);
        if (session.GetConnection().TimedOut()) return Lost(session.GetConnection());
    }
    if (const ScanOutcome outcome = session.Open(settings); outcome != ScanOutcome::kClean)
        return {outcome, "can't connect"};
    return session.Scan(settings.scanSeconds, file, reply) ? Judge(reply)
                                                           : Lost(session.GetConnection());
}

}  // namespace

ScanResult ScanWithClamd(const ClamdSettings& settings, int file) {
    const ScanResult result = ScanAsDescriptor(settings, file);
    // A build without descriptor passing, or one that may not read it: the bytes are streamed
    // instead.
    return result.outcome == ScanOutcome::kFailed ? ScanAsStream(settings, file) : result;
}
