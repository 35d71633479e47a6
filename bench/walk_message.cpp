// How fast a message is taken apart: walk_message [MEGABYTES] [ROUNDS]. It has the parts that most
// of the bytes of mail are: attachments in base64, a text, a page in quoted-printable.
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "daemons/maild/walk/walk.h"
#include "platform/file.h"
#include "text/base64.h"

namespace {

// Looks at each byte as little as a sink can.
class Count final : public maild::PartSink {
  public:
    void Data(std::span<const std::byte> bytes) override { bytes_ += bytes.size(); }
    std::size_t Bytes() const { return bytes_; }

  private:
    std::size_t bytes_ = 0;
};

std::string Repeat(const std::string& line, std::size_t bytes) {
    std::string text;
    while (text.size() < bytes) text += line;
    return text;
}

std::string MakeMessage(std::size_t bytes) {
    std::string data;
    for (unsigned i = 0; i < 57; ++i) data += static_cast<char>(i * 37);
    const std::string attachment =
        "--b\r\nContent-Type: application/pdf; name=a.pdf\r\nContent-Transfer-Encoding: "
        "base64\r\nContent-Disposition: attachment; filename=a.pdf\r\n\r\n" +
        Repeat(Base64Encode(data) + "\r\n", bytes * 4 / 10);
    return "Subject: a\r\nMIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n"
           "--b\r\nContent-Type: text/plain; charset=utf-8\r\n\r\n" +
           Repeat("Nothing but text, a line as long as most of them are written.\r\n", bytes / 10) +
           "--b\r\nContent-Type: text/html\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\n" +
           Repeat("<p style=3D\"margin: 0\">caf=C3=A9, and what else a page may have in it=\r\n",
                  bytes / 10) +
           "\r\n" + attachment + attachment + "--b--\r\n";
}

}  // namespace

int main(int argc, char** argv) {
    const std::size_t megabytes = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 20;
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 10;
    const std::string message = MakeMessage(megabytes << 20);
    const platform::File file(memfd_create("bench", MFD_CLOEXEC));
    platform::File out(dup(file.Descriptor()));
    if (!out || !out.Write(message.data(), message.size())) return 2;
    double best = 0;
    for (int i = 0; i < rounds; ++i) {
        Count count;
        maild::PartSink* const sinks[] = {&count};
        const auto begin = std::chrono::steady_clock::now();
        maild::WalkMessage(file.Descriptor(), maild::Dots::kStuffed, {}, sinks);
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
        const double rate = static_cast<double>(message.size()) / 1e6 / took.count();
        best = rate > best ? rate : best;
        if (count.Bytes() == 0) return 2;
    }
    std::printf("walk: %zu bytes, best of %d: %.0f MB/s\n", message.size(), rounds, best);
    return 0;
}
