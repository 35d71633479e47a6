// The soak's clients: soak_clients PORT FILE CLIENTS MESSAGES SEED. They send messages 1 to
// MESSAGES, each again until it has a final answer, to the end of them or to SIGTERM, and write
// what they were told. Lines "KIND number": A accepted, R refused for good, B broken off by the
// client in the middle and never sent again, U had no final answer; and of single attempts L (whole
// message sent, no answer), T (put off), O (an answer that nobody should give, with its text).
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "line_socket.h"
#include "message.h"

namespace {

std::atomic<bool> stopped{false};
static_assert(std::atomic<bool>::is_always_lock_free);

enum class Outcome { kFinal, kAgain, kAgainElsewhere };

class Book {
  public:
    explicit Book(const char* path) : file_(path) {}
    void Write(char kind, std::uint64_t number, std::string_view text = {}) {
        const std::lock_guard lock(mutex_);
        file_ << kind << ' ' << number;
        if (!text.empty()) file_ << ' ' << text.substr(0, text.find_last_not_of("\r\n") + 1);
        file_ << '\n';
        if (++lines_ % 1000 == 0) file_.flush();
    }

  private:
    std::mutex mutex_;
    std::ofstream file_;  // guarded by mutex_
    std::uint64_t lines_ = 0;
};

std::string Stuffed(const std::string& message) {
    std::string out;
    out.reserve(message.size() + 64);
    bool start = true;
    for (const char c : message) {
        if (start && c == '.') out += '.';
        out += c;
        start = c == '\n';
    }
    return out += ".\r\n";
}

// One connection and what it does with messages.
class Session {
  public:
    Session(int descriptor, SoakRandom& random, Book& book)
        : socket_(descriptor, 120), random_(random), book_(book) {}

    bool Begin() { return Reply() == '2' && Ask("EHLO soak.client\r\n") == '2'; }
    void End() { Ask("QUIT\r\n"); }

    Outcome Deliver(std::uint64_t number) {
        if (random_.Percent(2) &&
            (Ask("MAIL FROM:<x@example.org>\r\n") != '2' || Ask("RSET\r\n") != '2'))
            return Outcome::kAgainElsewhere;
        char reply = Ask("MAIL FROM:<s" + std::to_string(number % 500) + "@example.org>\r\n");
        for (std::uint64_t i = random_.Below(3) + 1; i > 0 && reply == '2'; --i)
            reply = Ask("RCPT TO:<r" + std::to_string(random_.Below(500)) + "@example.org>\r\n");
        if (reply != '2') return Failed(number, reply, false);
        const std::string message = MakeMessage(number);
        return random_.Percent(30) ? InChunks(number, message) : AsText(number, Stuffed(message));
    }

  private:
    // The first digit of the next reply, whose text is kept; 0 when there is none.
    char Reply() {
        do {
            if (!socket_.ReadLine(line_)) return '\0';
        } while (line_.size() > 3 && line_[3] == '-');
        return line_[0];
    }
    char Ask(std::string_view command) { return socket_.Send(command) ? Reply() : '\0'; }

    Outcome Failed(std::uint64_t number, char reply, bool whole) {
        if (reply == '\0') {
            if (whole) book_.Write('L', number);
            return Outcome::kAgainElsewhere;
        }
        book_.Write(reply == '4' ? 'T' : 'O', number, line_);
        return line_.starts_with("421") || Ask("RSET\r\n") != '2' ? Outcome::kAgainElsewhere
                                                                  : Outcome::kAgain;
    }
    // The answer to a whole message.
    Outcome Answered(std::uint64_t number, char reply) {
        if (reply == '2') {
            book_.Write('A', number);
            return Outcome::kFinal;
        }
        if (line_.starts_with("550 Rejected") && reply != '\0') {
            book_.Write('R', number);
            return Outcome::kFinal;
        }
        return Failed(number, reply, true);
    }
    // Breaks the message off: what was sent of it must never be stored.
    Outcome BreakOff(std::uint64_t number) {
        if (random_.Percent(50)) socket_.CloseHard();
        book_.Write('B', number);
        broken_ = true;
        return Outcome::kFinal;
    }
    bool SendSome(std::string_view bytes) {
        // Some come in pieces that are cut anywhere.
        for (; random_.Percent(20) && bytes.size() > 1;) {
            const std::size_t count = 1 + random_.Below(bytes.size() - 1);
            if (!socket_.Send(bytes.substr(0, count))) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(random_.Below(3)));
            bytes.remove_prefix(count);
        }
        return socket_.Send(bytes);
    }

    Outcome AsText(std::uint64_t number, std::string_view text) {
        const char reply = Ask("DATA\r\n");
        if (reply != '3') return Failed(number, reply, false);
        if (random_.Percent(1)) {
            SendSome(text.substr(0, random_.Below(text.size() - 5)));
            return BreakOff(number);
        }
        if (!SendSome(text)) return Failed(number, '\0', true);
        return Answered(number, Reply());
    }

    Outcome InChunks(std::uint64_t number, std::string_view message) {
        const bool breaksOff = random_.Percent(1);
        for (;;) {
            const std::size_t count =
                random_.Percent(40) ? message.size() : random_.Below(message.size() + 1);
            const bool last = count == message.size() && !breaksOff && random_.Percent(80);
            if (!SendSome("BDAT " + std::to_string(count) + (last ? " LAST\r\n" : "\r\n") +
                          std::string(message.substr(0, count))))
                return Failed(number, '\0', last);
            message.remove_prefix(count);
            const char reply = Reply();
            if (last) return Answered(number, reply);
            if (reply != '2') return Failed(number, reply, false);
            if (breaksOff && message.size() < 100) return BreakOff(number);
        }
    }

  public:
    bool Broken() const { return broken_; }

  private:
    LineSocket socket_;
    SoakRandom& random_;
    Book& book_;
    std::string line_;
    bool broken_ = false;
};

int Connect(int port) {
    const int descriptor = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        return descriptor;
    close(descriptor);
    return -1;
}

struct Work {
    int port;
    std::uint64_t messages;
    std::atomic<std::uint64_t> next{1};
};

// One client after another on one thread. A message that had no final answer comes first on the
// next connection.
void Run(Work& work, Book& book, std::uint64_t seed) {
    SoakRandom random(seed);
    std::uint64_t number = 0;  // 0: none in hand
    std::optional<std::chrono::steady_clock::time_point> end;
    const auto haveNumber = [&] {
        if (stopped && !end) end = std::chrono::steady_clock::now() + std::chrono::seconds(120);
        if (number == 0 && !stopped) {
            if (const std::uint64_t next = work.next++; next <= work.messages) number = next;
        }
        return number != 0 && (!end || std::chrono::steady_clock::now() < *end);
    };
    while (haveNumber()) {
        const int descriptor = Connect(work.port);
        Outcome outcome = Outcome::kAgainElsewhere;
        if (descriptor >= 0) {
            Session session(descriptor, random, book);
            if (session.Begin()) {
                for (std::uint64_t count = 1 + random.Below(10); count > 0 && haveNumber();
                     --count) {
                    outcome = session.Deliver(number);
                    if (outcome == Outcome::kFinal) number = 0;
                    if (outcome == Outcome::kAgainElsewhere || session.Broken()) break;
                    if (outcome == Outcome::kAgain)
                        std::this_thread::sleep_for(std::chrono::milliseconds(random.Below(200)));
                }
                if (outcome != Outcome::kAgainElsewhere && !session.Broken() && random.Percent(90))
                    session.End();
            }
        }
        if (outcome == Outcome::kAgainElsewhere)
            std::this_thread::sleep_for(std::chrono::milliseconds(20 + random.Below(200)));
    }
    if (number != 0) book.Write('U', number);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::cerr << "soak_clients PORT FILE CLIENTS MESSAGES SEED\n";
        return 2;
    }
    std::signal(SIGTERM, [](int) { stopped = true; });
    Book book(argv[2]);
    Work work{std::atoi(argv[1]), std::strtoull(argv[4], nullptr, 10)};
    const std::uint64_t seed = std::strtoull(argv[5], nullptr, 10);
    std::vector<std::thread> clients;
    for (int i = 0; i < std::atoi(argv[3]); ++i)
        clients.emplace_back(
            [&, i] { Run(work, book, seed * 1000 + static_cast<std::uint64_t>(i)); });
    for (std::thread& client : clients) client.join();
    return 0;
}
