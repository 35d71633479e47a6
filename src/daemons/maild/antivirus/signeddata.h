// Inside antivirus/: the message in an S/MIME part whose signature lies around it ("smime.p7m"),
// read as it streams.
//
// The format is BER: tag | length | content, where a constructed content (bit 0x20 of the tag) is
// such elements again, so that all can be read one behind the other. The signed message is the
// first octet string, or the first several, if it was cut into pieces. Certificates and signature
// stand behind it, and are written behind it here: the engine passes over what follows a message.
#pragma once

#include <cstdint>
#include <string_view>

#include "daemons/maild/coding/scratch.h"
#include "daemons/maild/walk/part.h"

namespace maild {

class SignedData {
  public:
    // Whether a part may be one, by its type and names.
    static bool MayBe(const Part& part);

    // Writes what is signed behind what the file has.
    explicit SignedData(Scratch& file) : file_(file) {}
    // False once it can't be written.
    bool Write(std::string_view bytes);

  private:
    enum class State { kTag, kMoreTag, kLength, kMoreLength, kContent };

    void BeginContent();

    Scratch& file_;
    State state_ = State::kTag;
    unsigned tag_ = 0;
    int lengthBytes_ = 0;     // that are to come
    std::uint64_t left_ = 0;  // of the content
};

}  // namespace maild
