// A client as smtp-source is one, that knows TLS, resumption and batches:
//   smtp_load [-s SESSIONS] [-m MESSAGES] [-l BYTES] [-r RECIPIENTS] [-d] [-T] [-R] [-P] PORT
// -d many messages a connection; -T TLS from the first byte; -R each connection but a session's
// first resumes TLS; -P what belongs to one message goes out as one batch. To 127.0.0.1, a thread
// and a blocking socket a session. Prints the seconds; ends with 1 if a message isn't taken, or a
// connection isn't resumed that should be.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Options {
    int sessions = 10;
    int messages = 1000;
    std::size_t bytes = 4096;
    int recipients = 1;
    bool keep = false;
    bool tls = false;
    bool resume = false;
    bool batches = false;
    std::uint16_t port = 0;
};

struct Free {
    void operator()(SSL* ssl) const { SSL_free(ssl); }
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    void operator()(SSL_SESSION* session) const { SSL_SESSION_free(session); }
};
using OwnedSession = std::unique_ptr<SSL_SESSION, Free>;

void Check(bool good, const char* what) {
    if (!good) throw std::runtime_error(what);
}

// What the library hands over belongs to the session whose connection it came by.
int KeepSession(SSL* ssl, SSL_SESSION* session) {
    static_cast<OwnedSession*>(SSL_get_app_data(ssl))->reset(session);
    return 1;
}

class Connection {
  public:
    // last: what the connection before this one left for resumption; null: full handshakes.
    Connection(const Options& options, SSL_CTX* context, OwnedSession* last)
        : socket_(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(options.port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int on = 1;
        setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        Check(connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0,
              "no connection");
        if (!options.tls) return;
        ssl_.reset(SSL_new(context));
        SSL_set_fd(ssl_.get(), socket_);
        SSL_set_app_data(ssl_.get(), last);
        const bool old = last != nullptr && *last != nullptr;
        if (old) SSL_set_session(ssl_.get(), last->get());
        Check(SSL_connect(ssl_.get()) == 1, "no handshake");
        Check(SSL_session_reused(ssl_.get()) == (old ? 1 : 0), "resumed against expectation");
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() {
        if (ssl_ != nullptr) SSL_shutdown(ssl_.get());
        close(socket_);
    }

    void Send(const std::string& bytes) {
        for (std::size_t at = 0; at < bytes.size();) {
            const std::size_t left = bytes.size() - at;
            const long count =
                ssl_ != nullptr ? SSL_write(ssl_.get(), bytes.data() + at, static_cast<int>(left))
                                : static_cast<long>(write(socket_, bytes.data() + at, left));
            Check(count > 0, "connection broken");
            at += static_cast<std::size_t>(count);
        }
    }

    // A whole reply, which has to begin with that digit.
    void Expect(char digit) {
        for (bool last = false; !last;) {
            const std::string line = Line();
            if (line.size() < 4 || line[0] != digit) throw std::runtime_error(line);
            last = line[3] != '-';
        }
    }

    void Ask(const std::string& line, char digit) {
        Send(line);
        Expect(digit);
    }

  private:
    std::string Line() {
        for (;;) {
            const std::size_t end = ahead_.find('\n');
            if (end != std::string::npos) {
                std::string line = ahead_.substr(0, end);
                ahead_.erase(0, end + 1);
                return line;
            }
            std::array<char, 4096> block;
            const long count = ssl_ != nullptr
                                   ? SSL_read(ssl_.get(), block.data(), block.size())
                                   : static_cast<long>(read(socket_, block.data(), block.size()));
            Check(count > 0, "connection closed");
            ahead_.append(block.data(), static_cast<std::size_t>(count));
        }
    }

    int socket_;
    std::unique_ptr<SSL, Free> ssl_;
    std::string ahead_;
};

std::string Body(std::size_t bytes) {
    std::string body = "Subject: load\r\n\r\n";
    while (body.size() + 5 < bytes)
        body.append(std::min<std::size_t>(76, bytes - body.size() - 4), 'x').append("\r\n");
    return body + ".\r\n";
}

void SendMessage(Connection& connection, const Options& options, const std::string& body) {
    std::vector<std::string> lines{"MAIL FROM:<a@example.org>\r\n"};
    for (int number = 0; number < options.recipients; ++number)
        lines.push_back("RCPT TO:<b" + std::to_string(number) + "@example.org>\r\n");
    std::string batch;
    for (const std::string& line : lines) {
        if (options.batches) {
            batch += line;
        } else {
            connection.Ask(line, '2');
        }
    }
    connection.Send(batch + "DATA\r\n");
    for (std::size_t due = options.batches ? lines.size() : 0; due > 0; --due)
        connection.Expect('2');
    connection.Expect('3');
    connection.Ask(body, '2');
}

void RunSession(const Options& options, SSL_CTX* context, const std::string& body,
                std::atomic<int>& left) {
    OwnedSession last;
    std::unique_ptr<Connection> connection;
    while (left.fetch_sub(1) > 0) {
        if (connection == nullptr) {
            connection =
                std::make_unique<Connection>(options, context, options.resume ? &last : nullptr);
            connection->Expect('2');
            connection->Ask("EHLO load\r\n", '2');
        }
        SendMessage(*connection, options, body);
        if (options.keep) continue;
        connection->Ask("QUIT\r\n", '2');
        connection.reset();
    }
    if (connection != nullptr) connection->Ask("QUIT\r\n", '2');
}

bool Read(int argc, char** argv, Options& options) {
    for (int letter; (letter = getopt(argc, argv, "s:m:l:r:dTRP")) != -1;) {
        switch (letter) {
            case 's':
                options.sessions = std::atoi(optarg);
                break;
            case 'm':
                options.messages = std::atoi(optarg);
                break;
            case 'l':
                options.bytes = static_cast<std::size_t>(std::atol(optarg));
                break;
            case 'r':
                options.recipients = std::atoi(optarg);
                break;
            case 'd':
                options.keep = true;
                break;
            case 'T':
                options.tls = true;
                break;
            case 'R':
                options.resume = true;
                break;
            case 'P':
                options.batches = true;
                break;
            default:
                return false;
        }
    }
    if (optind + 1 != argc) return false;
    options.port = static_cast<std::uint16_t>(std::atoi(argv[optind]));
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!Read(argc, argv, options)) {
        std::fputs("smtp_load [-s N] [-m N] [-l BYTES] [-r N] [-d] [-T] [-R] [-P] PORT\n", stderr);
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);
    const std::unique_ptr<SSL_CTX, Free> context(SSL_CTX_new(TLS_client_method()));
    if (options.resume) {
        SSL_CTX_set_session_cache_mode(context.get(),
                                       SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
        SSL_CTX_sess_set_new_cb(context.get(), KeepSession);
    }
    const std::string body = Body(options.bytes);
    std::atomic<int> left = options.messages;
    std::atomic<bool> failed = false;
    const auto begin = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    for (int number = 0; number < options.sessions; ++number)
        threads.emplace_back([&] {
            try {
                RunSession(options, context.get(), body, left);
            } catch (const std::exception& fault) {
                failed = true;
                std::fprintf(stderr, "smtp_load: %s\n", fault.what());
            }
        });
    for (std::thread& thread : threads) thread.join();
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
    std::printf("%.3f\n", seconds.count());
    return failed ? 1 : 0;
}
