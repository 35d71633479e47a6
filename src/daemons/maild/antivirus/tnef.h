// Inside antivirus/: the files in a TNEF part ("winmail.dat"), read as it streams.
//
// The format, all numbers little-endian: a mark of four bytes and a key of two, then attributes:
//   level 1 byte, 2 of an attachment | id 4 | length 4 | that many bytes | checksum 2
// The bytes of id 0x0006800F are an attachment's file. Id 0x00069005 has an attachment's MAPI
// properties, where a message in the message is: it goes as a whole, and what begins in it with the
// mark, too. An attachment begins with id 0x00069002; its name is id 0x00018010, and stands among
// its properties as well, in any order with its file. Checksums are not looked at, lengths are
// believed up to the part's end: some readers do so.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "daemons/maild/antivirus/questions.h"

namespace maild {

class TnefReader {
  public:
    TnefReader(Questions& questions, std::string place)
        : questions_(questions), place_(std::move(place)), told_(own_) {}
    TnefReader(const TnefReader&) = delete;
    TnefReader& operator=(const TnefReader&) = delete;

    static constexpr std::string_view kMark{"\x78\x9F\x3E\x22", 4};

    void Write(std::string_view bytes);
    void Finish();

    // Of the attachment of which a file is put as a question at this moment.
    const std::vector<std::string>& Names() const { return told_.now; }
    // Of all attachments so far, up to a bound.
    const std::vector<std::string>& AllNames() const { return told_.all; }

  private:
    struct Told {
        std::vector<std::string> now;
        std::vector<std::string> all;
    };
    // Of a message in the properties of an attachment.
    TnefReader(Questions& questions, std::string place, int nesting, Told& told)
        : questions_(questions), place_(std::move(place)), nesting_(nesting), told_(told) {}

    enum class State { kStart, kHead, kContent, kChecksum };

    void BeginAttribute();
    void TakeContent(std::string_view bytes);
    void EndAttribute();
    void PutFiles();
    void AddName(std::string_view bytes, bool wide);
    void FindNames(Scratch& properties);

    Questions& questions_;
    const std::string place_;
    const int nesting_ = 0;
    Told own_;
    Told& told_;
    std::vector<std::string> names_;               // of the attachment that goes on
    std::vector<std::unique_ptr<Scratch>> files_;  // of the same, that were not put yet
    bool message_ = false;                         // it is one, by its properties
    bool hasBytes_ = false;                        // of a file
    std::string title_;                            // bytes of a name
    State state_ = State::kStart;
    std::string head_;  // of an attribute, as far as it has come
    std::uint32_t id_ = 0;
    std::uint64_t left_ = 0;  // bytes of the attribute, or of the checksum
    std::unique_ptr<Scratch> file_;
    std::string window_;                 // of properties: where the mark may be cut
    std::unique_ptr<TnefReader> inner_;  // of a message in the properties
};

}  // namespace maild
