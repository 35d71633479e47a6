#include "daemons/maild/forms/sevenzipheader.h"

#include <lzma.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

#include "daemons/maild/forms/sevenzipparse.h"

namespace {

using namespace std::string_view_literals;

constexpr std::string_view kSignature = "7z\xBC\xAF\x27\x1C"sv;
constexpr std::uint64_t kStart = 32;
constexpr char kHeader = 0x01;
constexpr char kPackedHeader = 0x17;

// Where libarchive looks for an archive behind a program; to the latter not quite. The first one
// counts.
constexpr off_t kBehindProgram = 0x27000;
constexpr off_t kEndBehindProgram = 0x70000;

// Bytes of a header.
constexpr std::uint64_t kOfAFile = 512;
constexpr std::uint64_t kOfNoFile = 64 << 10;
constexpr std::uint64_t kMostBytes = 16 << 20;

constexpr std::uint64_t kCopy = 0;
constexpr std::uint64_t kLzma2 = 0x21;
constexpr std::uint64_t kLzma = 0x030101;

// What the file has there, `count` bytes or as many as it can give.
std::string ReadAt(int file, std::uint64_t at, std::uint64_t count) {
    std::string bytes(count, '\0');
    std::size_t read = 0;
    while (read < count) {
        const ssize_t more = pread(file, bytes.data() + read, count - read,
                                   static_cast<off_t>(at) + static_cast<off_t>(read));
        if (more <= 0) break;
        read += static_cast<std::size_t>(more);
    }
    bytes.resize(read);
    return bytes;
}

std::uint32_t Checksum(std::string_view bytes) {
    return lzma_crc32(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size(), 0);
}

std::uint64_t Little(std::string_view bytes, std::size_t at, std::size_t count) {
    std::uint64_t number = 0;
    for (std::size_t i = count; i-- > 0;)
        number = number << 8U | static_cast<unsigned char>(bytes[at + i]);
    return number;
}

bool IsStart(std::string_view bytes) {
    return bytes.size() >= kStart && bytes.starts_with(kSignature) &&
           Checksum(bytes.substr(12, 20)) == Little(bytes, 8, 4);
}

std::optional<std::uint64_t> StartBehindProgram(int file) {
    const std::string bytes = ReadAt(
        file, kBehindProgram, static_cast<std::uint64_t>(kEndBehindProgram - kBehindProgram));
    for (std::size_t at = bytes.find(kSignature); at != std::string::npos;
         at = bytes.find(kSignature, at + 1)) {
        if (IsStart(std::string_view(bytes).substr(at))) return kBehindProgram + at;
    }
    return {};
}

// To exactly `size` bytes, which is bounded; nothing if there are fewer. A dictionary needs no more
// than these, whatever is claimed for it.
std::optional<std::string> Unpack(std::string_view packed, const SevenZipCoder& coder,
                                  std::uint64_t size) {
    if (coder.method == kCopy) {
        if (packed.size() < size) return {};
        return std::string(packed.substr(0, size));
    }
    lzma_filter filters[2] = {{coder.method == kLzma ? LZMA_FILTER_LZMA1 : LZMA_FILTER_LZMA2, {}},
                              {LZMA_VLI_UNKNOWN, {}}};
    if ((coder.method != kLzma && coder.method != kLzma2) ||
        lzma_properties_decode(filters, nullptr,
                               reinterpret_cast<const std::uint8_t*>(coder.properties.data()),
                               coder.properties.size()) != LZMA_OK)
        return {};
    const std::unique_ptr<void, decltype(&std::free)> freed(filters[0].options, &std::free);
    auto& options = *static_cast<lzma_options_lzma*>(filters[0].options);
    options.dict_size =
        std::min(options.dict_size,
                 std::max<std::uint32_t>(LZMA_DICT_SIZE_MIN, static_cast<std::uint32_t>(size)));
    lzma_stream stream = LZMA_STREAM_INIT;
    if (lzma_raw_decoder(&stream, filters) != LZMA_OK) return {};
    const std::unique_ptr<lzma_stream, decltype(&lzma_end)> ended(&stream, &lzma_end);
    std::string unpacked(size, '\0');
    stream.next_in = reinterpret_cast<const std::uint8_t*>(packed.data());
    stream.avail_in = packed.size();
    stream.next_out = reinterpret_cast<std::uint8_t*>(unpacked.data());
    stream.avail_out = unpacked.size();
    while (stream.avail_out > 0 && lzma_code(&stream, LZMA_FINISH) == LZMA_OK) {
    }
    if (stream.avail_out > 0) return {};
    return unpacked;
}

class SevenZipFile {
  public:
    // `at`: where its start header is.
    SevenZipFile(int file, std::uint64_t at, std::uint64_t size, std::uint64_t most)
        : file_(file),
          behindStart_(at + kStart),
          size_(size),
          most_(most),
          mostBytes_(std::min(kMostBytes, kOfNoFile + kOfAFile * most)) {}

    SevenZipClaims Claims() const {
        const std::string start = ReadAt(file_, behindStart_ - kStart, kStart);
        if (!IsStart(start)) return SevenZipClaims::kUnreadable;
        const std::uint64_t length = Little(start, 20, 8);
        if (length == 0) return SevenZipClaims::kFit;  // an empty archive
        std::string header;
        const SevenZipClaims read = Read(Little(start, 12, 8), length, header);
        if (read != SevenZipClaims::kFit) return read;
        if (Checksum(header) != Little(start, 28, 4)) return SevenZipClaims::kUnreadable;
        if (header[0] == kPackedHeader) return ClaimsOfPacked(header);
        return ClaimsOf(header);
    }

  private:
    // `at` counts from behind the start header.
    SevenZipClaims Read(std::uint64_t at, std::uint64_t length, std::string& bytes) const {
        const std::uint64_t there = size_ - std::min(size_, behindStart_);
        if (at > there || length > there - at) return SevenZipClaims::kUnreadable;
        if (length > mostBytes_) return SevenZipClaims::kTooMany;
        bytes = ReadAt(file_, behindStart_ + at, length);
        return bytes.size() == length ? SevenZipClaims::kFit : SevenZipClaims::kUnreadable;
    }

    SevenZipClaims ClaimsOf(std::string_view header) const {
        if (header.empty() || header[0] != kHeader) return SevenZipClaims::kUnreadable;
        return SevenZipParser(header.substr(1), most_).Header();
    }

    SevenZipClaims ClaimsOfPacked(std::string_view header) const {
        SevenZipStreams streams;
        SevenZipClaims claims = SevenZipParser(header.substr(1), most_).Streams(streams);
        if (claims != SevenZipClaims::kFit) return claims;
        if (streams.folders.size() != 1) return SevenZipClaims::kUnreadable;
        if (streams.encrypted) return SevenZipClaims::kFit;
        const SevenZipStreams::Folder& folder = streams.folders[0];
        if (streams.packStreams != 1 || streams.coders.size() != 1 || folder.outStreams != 1)
            return SevenZipClaims::kUnreadable;
        if (streams.unpackedSize > mostBytes_) return SevenZipClaims::kTooMany;
        std::string packed;
        claims = Read(streams.packedAt, streams.packedSize, packed);
        if (claims != SevenZipClaims::kFit) return claims;
        const std::optional<std::string> unpacked =
            Unpack(packed, streams.coders[0], streams.unpackedSize);
        if (!unpacked || (folder.checksum && *folder.checksum != Checksum(*unpacked)))
            return SevenZipClaims::kUnreadable;
        return ClaimsOf(*unpacked);
    }

    const int file_;
    const std::uint64_t behindStart_;
    const std::uint64_t size_;
    const std::uint64_t most_;
    const std::uint64_t mostBytes_;
};

}  // namespace

SevenZipClaims ClaimsOfSevenZip(int file, long long most) {
    struct stat status {};
    if (fstat(file, &status) != 0) return SevenZipClaims::kUnreadable;
    const auto claims = [&](std::uint64_t at) {
        return SevenZipFile(file, at, static_cast<std::uint64_t>(status.st_size),
                            static_cast<std::uint64_t>(most))
            .Claims();
    };
    const std::string begin = ReadAt(file, 0, kSignature.size());
    if (begin == kSignature) return claims(0);
    if (!begin.starts_with("MZ"sv) && !begin.starts_with("\x7F"
                                                         "ELF"sv))
        return SevenZipClaims::kNone;
    const std::optional<std::uint64_t> behind = StartBehindProgram(file);
    if (!behind) return SevenZipClaims::kNone;
    const SevenZipClaims found = claims(*behind);
    // A program that holds what looks like one.
    return found == SevenZipClaims::kUnreadable ? SevenZipClaims::kNone : found;
}
