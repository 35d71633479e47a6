#include "daemons/maild/forms/sevenzipparse.h"

#include <algorithm>

namespace {

// What the parts of a header begin with.
enum Mark : unsigned {
    kEnd = 0x00,
    kMainStreams = 0x04,
    kFiles = 0x05,
    kPacked = 0x06,
    kUnpacked = 0x07,
    kInFolders = 0x08,
    kSizes = 0x09,
    kChecksums = 0x0A,
    kFolders = 0x0B,
    kUnpackedSizes = 0x0C,
    kFilesInFolders = 0x0D,
};

// AES, and those of zip and RAR within 7z.
constexpr std::uint64_t kEncrypting[] = {0x06F10701, 0x06F10101, 0x06F10303};
constexpr std::uint64_t kMostCoders = 4;
constexpr std::uint64_t kMostStreams = 32;  // of a coder
constexpr std::uint64_t kStreamsOfAFolder = 4;
// It joins four streams, of which libarchive unpacks the first two coders' to hold them whole: the
// targets of calls and jumps, of programs of some 100 MB.
constexpr std::uint64_t kBcj2 = 0x0303011B;
constexpr std::uint64_t kHeldWhole = 2;
constexpr std::uint64_t kMostHeld = 32 << 20;

}  // namespace

void SevenZipParser::Fail(SevenZipClaims claims) {
    if (Fits()) claims_ = claims;
    left_ = {};
}

std::string_view SevenZipParser::Take(std::uint64_t count) {
    if (count > left_.size()) {
        Fail(SevenZipClaims::kUnreadable);
        return {};
    }
    const std::string_view taken = left_.substr(0, count);
    left_.remove_prefix(count);
    return taken;
}

unsigned SevenZipParser::Byte() {
    const std::string_view taken = Take(1);
    return taken.empty() ? 0U : static_cast<unsigned char>(taken[0]);
}

void SevenZipParser::Expect(unsigned mark) {
    if (Byte() != mark) Fail(SevenZipClaims::kUnreadable);
}

// As many bytes follow the first one as it begins with ones; what is behind these, in it, is on
// top.
std::uint64_t SevenZipParser::Number() {
    const unsigned first = Byte();
    std::uint64_t number = 0;
    unsigned mask = 0x80;
    for (unsigned shift = 0; shift < 64; shift += 8, mask >>= 1U) {
        if ((first & mask) == 0)
            return number + (static_cast<std::uint64_t>(first & (mask - 1)) << shift);
        number |= static_cast<std::uint64_t>(Byte()) << shift;
    }
    return number;
}

std::uint64_t SevenZipParser::Count(std::uint64_t most) {
    const std::uint64_t count = Number();
    if (count <= most) return Fits() ? count : 0;
    Fail(SevenZipClaims::kTooMany);
    return 0;
}

// `count` is bounded.
std::vector<std::optional<std::uint32_t>> SevenZipParser::Checksums(std::uint64_t count) {
    if (count == 0) Fail(SevenZipClaims::kUnreadable);
    const bool all = Byte() != 0;
    const std::string_view given = all ? std::string_view() : Take((count + 7) / 8);
    std::vector<std::optional<std::uint32_t>> checksums;
    for (std::uint64_t i = 0; i < count && Fits(); ++i) {
        checksums.emplace_back();
        if (!all && (static_cast<unsigned char>(given[i / 8]) & 0x80U >> i % 8) == 0) continue;
        std::uint32_t checksum = 0;
        for (unsigned shift = 0; shift < 32; shift += 8) checksum |= Byte() << shift;
        checksums.back() = checksum;
    }
    return checksums;
}

void SevenZipParser::PackedStreams(SevenZipStreams& streams) {
    streams.packedAt = Number();
    streams.packStreams = Count(kStreamsOfAFolder * most_);
    Expect(kSizes);
    for (std::uint64_t i = 0; i < streams.packStreams && Fits(); ++i) {
        const std::uint64_t size = Number();
        if (i == 0) streams.packedSize = size;
    }
    const unsigned mark = Byte();
    if (mark == kEnd) return;
    if (mark != kChecksums) Fail(SevenZipClaims::kUnreadable);
    Checksums(streams.packStreams);
    Expect(kEnd);
}

void SevenZipParser::Folder(SevenZipStreams& streams) {
    SevenZipStreams::Folder folder;
    const std::uint64_t coders = Number();
    if (coders > kMostCoders) Fail(SevenZipClaims::kUnreadable);
    std::uint64_t inStreams = 0;
    for (std::uint64_t i = 0; i < coders && Fits(); ++i) {
        const unsigned flags = Byte();
        if ((flags & 0x80U) != 0) Fail(SevenZipClaims::kUnreadable);
        SevenZipCoder coder;
        for (const char c : Take(flags & 0x0FU))
            coder.method = coder.method << 8U | static_cast<unsigned char>(c);
        const bool simple = (flags & 0x10U) == 0;
        const std::uint64_t in = simple ? 1 : Number();
        const std::uint64_t out = simple ? 1 : Number();
        if (in > kMostStreams || out > kMostStreams) Fail(SevenZipClaims::kUnreadable);
        inStreams += in;
        folder.outStreams += out;
        if ((flags & 0x20U) != 0) coder.properties = Take(Number());
        streams.encrypted =
            streams.encrypted || std::find(std::begin(kEncrypting), std::end(kEncrypting),
                                           coder.method) != std::end(kEncrypting);
        folder.joined = folder.joined || coder.method == kBcj2;
        if (streams.folders.empty()) streams.coders.push_back(coder);
    }
    if (folder.outStreams == 0 || inStreams + 1 < folder.outStreams) {
        Fail(SevenZipClaims::kUnreadable);
        return;
    }
    const std::uint64_t bound = folder.outStreams - 1;  // each to the next coder's
    folder.packStreams = inStreams - bound;
    // One needs no number.
    const std::uint64_t numbers = 2 * bound + (folder.packStreams == 1 ? 0 : folder.packStreams);
    for (std::uint64_t i = 0; i < numbers && Fits(); ++i) Number();
    streams.folders.push_back(folder);
}

void SevenZipParser::Folders(SevenZipStreams& streams) {
    Expect(kFolders);
    const std::uint64_t folders = Count(most_);
    Expect(0);  // they stand here
    for (std::uint64_t i = 0; i < folders && Fits(); ++i) Folder(streams);
    Expect(kUnpackedSizes);
    std::uint64_t used = 0;
    for (const SevenZipStreams::Folder& folder : streams.folders) {
        used += folder.packStreams;
        for (std::uint64_t i = 0; i < folder.outStreams && Fits(); ++i) {
            const std::uint64_t size = Number();
            if (i == 0 && &folder == &streams.folders.front()) streams.unpackedSize = size;
            if (folder.joined && i < kHeldWhole && size > kMostHeld)
                Fail(SevenZipClaims::kUnreadable);
        }
    }
    if (used > streams.packStreams) Fail(SevenZipClaims::kUnreadable);
    const unsigned mark = Byte();
    if (mark == kEnd) return;
    if (mark != kChecksums) Fail(SevenZipClaims::kUnreadable);
    const auto checksums = Checksums(folders);
    for (std::size_t i = 0; Fits() && i < checksums.size(); ++i)
        streams.folders[i].checksum = checksums[i];
    Expect(kEnd);
}

void SevenZipParser::FilesInFolders(SevenZipStreams& streams) {
    unsigned mark = Byte();
    if (mark == kFilesInFolders) {
        std::uint64_t files = 0;
        for (SevenZipStreams::Folder& folder : streams.folders)
            files += folder.files = Count(most_ - files);
        mark = Byte();
    }
    if (mark == kSizes) {
        // The last one is what is left.
        for (const SevenZipStreams::Folder& folder : streams.folders) {
            for (std::uint64_t i = 1; i < folder.files && Fits(); ++i) Number();
        }
        mark = Byte();
    }
    if (mark == kChecksums) {
        std::uint64_t missing = 0;
        for (const SevenZipStreams::Folder& folder : streams.folders) {
            if (folder.files != 1 || !folder.checksum) missing += folder.files;
        }
        Checksums(missing);
        mark = Byte();
    }
    if (mark != kEnd) Fail(SevenZipClaims::kUnreadable);
}

SevenZipClaims SevenZipParser::Streams(SevenZipStreams& streams) {
    unsigned mark = Byte();
    if (mark == kPacked) {
        PackedStreams(streams);
        mark = Byte();
    }
    if (mark == kUnpacked) {
        Folders(streams);
        mark = Byte();
    }
    if (mark == kInFolders) {
        FilesInFolders(streams);
        mark = Byte();
    }
    if (mark != kEnd) Fail(SevenZipClaims::kUnreadable);
    return claims_;
}

SevenZipClaims SevenZipParser::Header() {
    unsigned mark = Byte();
    if (mark == kMainStreams) {
        SevenZipStreams streams;
        Streams(streams);
        mark = Byte();
    }
    if (mark == kFiles) {
        Count(most_);
    } else if (mark != kEnd) {
        Fail(SevenZipClaims::kUnreadable);
    }
    return claims_;
}
