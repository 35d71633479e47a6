// The soak's mail server: soak_server PORT FILE. It answers for a message when the line about it is
// on the disk: "S number changed infected" or "X" for what is none of ours. Messages of many
// connections share one sync.
#include <fcntl.h>

#include <algorithm>
#include <cctype>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>
#include <thread>

#include "line_socket.h"
#include "message.h"

namespace {

class Ledger {
  public:
    explicit Ledger(const char* path) : file_(open(path, O_WRONLY | O_APPEND | O_CREAT, 0600)) {
        if (file_ < 0) std::exit(1);
        pending_ = "\n";  // ends a line that the last process left torn
        std::thread([this] { Commit(); }).detach();
    }
    // Returns when the line is on the disk.
    void Store(const std::string& line) {
        std::unique_lock lock(mutex_);
        pending_ += line;
        const std::uint64_t mine = taken_ + 1;
        wake_.notify_one();
        stored_.wait(lock, [&] { return done_ >= mine; });
    }

  private:
    void Commit() {
        std::unique_lock lock(mutex_);
        for (;;) {
            wake_.wait(lock, [this] { return !pending_.empty(); });
            const std::string batch = std::exchange(pending_, {});
            const std::uint64_t number = ++taken_;
            lock.unlock();
            if (write(file_, batch.data(), batch.size()) != static_cast<ssize_t>(batch.size()) ||
                fdatasync(file_) != 0)
                std::exit(1);
            lock.lock();
            done_ = number;
            stored_.notify_all();
        }
    }
    int file_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable stored_;
    std::string pending_;      // guarded by mutex_, as the two below
    std::uint64_t taken_ = 0;  // batches taken to be written, and written
    std::uint64_t done_ = 0;
};

bool StoreMessage(Ledger& ledger, const LineSocket& client, const std::string& message) {
    const auto found = ReadMessage(message);
    if (!found) {
        ledger.Store("X\n");
        return client.Send("250 2.0.0 what is that\r\n");
    }
    const std::string number = std::to_string(found->number);
    ledger.Store("S " + number + (found->changed ? " 1" : " 0") +
                 (found->infected ? " 1\n" : " 0\n"));
    return client.Send("250 2.0.0 stored\r\n");
}

bool ReadText(LineSocket& client, std::string& message) {
    std::string line;
    while (client.ReadLine(line)) {
        if (line == ".\r\n") return true;
        message.append(line, line[0] == '.' ? 1 : 0);
    }
    return false;
}

void Serve(Ledger& ledger, LineSocket client) {
    if (!client.Send("220 soak.example ESMTP\r\n")) return;
    std::string message;
    for (std::string line; client.ReadLine(line);) {
        std::transform(line.begin(), line.end(), line.begin(),
                       [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
        const std::string verb = line.substr(0, 4);
        bool going = true;
        if (verb == "EHLO") {
            going = client.Send(
                "250-soak.example\r\n250-SIZE 50000000\r\n250-8BITMIME\r\n"
                "250-ENHANCEDSTATUSCODES\r\n250 CHUNKING\r\n");
        } else if (verb == "DATA") {
            message.clear();
            going = client.Send("354 go on\r\n") && ReadText(client, message) &&
                    StoreMessage(ledger, client, message);
        } else if (verb == "BDAT") {
            const bool last = line.find("LAST") != std::string::npos;
            going =
                client.ReadCount(message, std::strtoul(line.c_str() + 4, nullptr, 10)) &&
                (last ? StoreMessage(ledger, client, message) : client.Send("250 2.0.0 more\r\n"));
            if (last) message.clear();
        } else {
            if (verb == "MAIL" || verb == "RSET") message.clear();
            going = client.Send(verb == "QUIT" ? "221 2.0.0 bye\r\n" : "250 2.0.0 ok\r\n");
        }
        if (!going || verb == "QUIT") return;
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "soak_server PORT FILE\n";
        return 2;
    }
    Ledger ledger(argv[2]);
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    const int yes = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(std::atoi(argv[1])));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 1000) != 0) {
        std::cerr << "port " << argv[1] << ": " << std::strerror(errno) << "\n";
        return 1;
    }
    for (;;) {
        const int client = accept(listener, nullptr, nullptr);
        if (client < 0) continue;
        std::thread([&ledger, client] { Serve(ledger, LineSocket(client, 300)); }).detach();
    }
}
