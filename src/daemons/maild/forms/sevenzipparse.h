// Inside forms/: the header of a 7z archive, unpacked, as far as it says how much it will hold. It
// is read strictly as libarchive reads it; what that one refuses, or reads in its own way, is
// unreadable.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "daemons/maild/forms/sevenzipheader.h"

struct SevenZipCoder {
    std::uint64_t method = 0;
    std::string_view properties;
};

// Streams of bytes in an archive, and the folders that are packed in them.
struct SevenZipStreams {
    struct Folder {
        std::uint64_t outStreams = 0;
        std::uint64_t packStreams = 0;
        std::uint64_t files = 1;
        bool joined = false;  // of four streams
        std::optional<std::uint32_t> checksum;
    };
    std::uint64_t packedAt = 0;
    std::uint64_t packStreams = 0;
    std::uint64_t packedSize = 0;       // of the first stream
    std::uint64_t unpackedSize = 0;     // of the first folder's first coder
    std::vector<SevenZipCoder> coders;  // of the first folder
    std::vector<Folder> folders;
    bool encrypted = false;
};

// Reads what one text says, in one pass. Once it fails, all further numbers are zero.
class SevenZipParser {
  public:
    // `most` as in ClaimsOfSevenZip.
    SevenZipParser(std::string_view text, std::uint64_t most) : left_(text), most_(most) {}

    // Behind the mark of a header: up to the number of files.
    SevenZipClaims Header();
    // Behind the mark of a packed header.
    SevenZipClaims Streams(SevenZipStreams& streams);

  private:
    bool Fits() const { return claims_ == SevenZipClaims::kFit; }
    void Fail(SevenZipClaims claims);
    unsigned Byte();
    void Expect(unsigned mark);
    std::uint64_t Number();
    std::uint64_t Count(std::uint64_t most);
    std::string_view Take(std::uint64_t count);
    std::vector<std::optional<std::uint32_t>> Checksums(std::uint64_t count);
    void PackedStreams(SevenZipStreams& streams);
    void Folders(SevenZipStreams& streams);
    void Folder(SevenZipStreams& streams);
    void FilesInFolders(SevenZipStreams& streams);

    std::string_view left_;
    const std::uint64_t most_;
    SevenZipClaims claims_ = SevenZipClaims::kFit;
};
