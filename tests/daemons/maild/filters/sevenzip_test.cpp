// What 7z archives claim to hold, before anybody makes room for it.
#include <lzma.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <random>

#include "daemons/maild/attachments/filter.h"
#include "daemons/maild/forms/sevenzip.h"
#include "daemons/maild/forms/sevenzipheader.h"
#include "daemons/maild/walk/walk.h"
#include "packing.h"
#include "platform/file.h"
#include "text/ascii.h"

namespace {

using namespace std::string_literals;

const std::uint8_t* Octets(const std::string& text) {
    return reinterpret_cast<const std::uint8_t*>(text.data());
}
std::string Little(std::uint64_t number, std::size_t bytes) {
    std::string text;
    for (; bytes > 0; --bytes, number >>= 8U) text += static_cast<char>(number);
    return text;
}
std::string Number(std::uint64_t number) { return '\xFF' + Little(number, 8); }
std::string Checksum(const std::string& text) {
    return Little(lzma_crc32(Octets(text), text.size(), 0), 4);
}

// An archive of these bytes and this header, which begins a gap later by what it says.
std::string Archive(const std::string& data, const std::string& header, std::uint64_t gap = 0) {
    const std::string start =
        Little(data.size() + gap, 8) + Little(header.size(), 8) + Checksum(header);
    return "7z\xBC\xAF\x27\x1C\0\4"s + Checksum(start) + start + data + header;
}

enum class Method { kCopy, kLzma, kLzma2 };
const std::string kCoders[] = {"\1\0"s, "\x23\3\1\1\5\x5D\0\0\x10\0"s, "\x21\x21\1\x10"s};

std::string Squeezed(const std::string& text, Method method) {
    if (method == Method::kCopy) return text;
    lzma_options_lzma options;
    lzma_lzma_preset(&options, 6);
    options.dict_size = 1 << 20;
    const lzma_filter filters[] = {
        {method == Method::kLzma ? LZMA_FILTER_LZMA1 : LZMA_FILTER_LZMA2, &options},
        {LZMA_VLI_UNKNOWN, nullptr}};
    std::string out(text.size() + 1024, '\0');
    std::size_t used = 0;
    EXPECT_EQ(
        lzma_raw_buffer_encode(filters, nullptr, Octets(text), text.size(),
                               reinterpret_cast<std::uint8_t*>(out.data()), &used, out.size()),
        LZMA_OK);
    out.resize(used);
    return out;
}

// The header of one that is packed with this coder, and these bytes unpacked.
std::string PackedHeader(const std::string& packed, const std::string& coder, std::size_t size) {
    return "\x17\6"s + Number(0) + '\1' + '\x09' + Number(packed.size()) + '\0' + "\7\x0B\1\0\1"s +
           coder + '\x0C' + Number(size) + "\0\0"s;
}
std::string ArchivePacked(const std::string& header, Method method = Method::kLzma) {
    const std::string packed = Squeezed(header, method);
    return Archive(packed, PackedHeader(packed, kCoders[static_cast<int>(method)], header.size()));
}

// A header of empty files.
std::string Files(std::uint64_t files) {
    const std::string bits((files + 7) / 8, '\xFF');
    return "\1\5"s + Number(files) + '\x0E' + Number(bits.size()) + bits + "\0\0"s;
}
// Headers that claim other things than files: they stand behind "\1".
std::string Streams(const std::string& streams) { return "\1\4"s + streams; }
std::string OneFolder(const std::string& more) {
    return Streams("\6"s + Number(0) + "\1\x09\1\0"s + "\7\x0B\1\0\1\1\0\x0C\1\0"s + more);
}

platform::File InMemory(const std::string& text) {
    platform::File file(memfd_create("test", MFD_CLOEXEC));
    EXPECT_TRUE(file.Write(text.data(), text.size()));
    lseek(file.Descriptor(), 0, SEEK_SET);
    return file;
}
SevenZipClaims ClaimsOf(const std::string& archive, long long most) {
    return ClaimsOfSevenZip(InMemory(archive).Descriptor(), most);
}

struct Result {
    std::string found;
    std::string tooComplex;
};
Result Filter(const std::string& name, const std::string& data) {
    maild::AttachmentRules rules{{{}}, {}};
    rules.rules[0].name = "exe";
    rules.rules[0].fileName = maild::NamePatterns("*.exe");
    maild::AttachmentFilter filter(rules,
                                   std::chrono::steady_clock::now() + std::chrono::seconds(30));
    maild::PartSink* const sinks[] = {&filter};
    maild::WalkMessage(InMemory(Mail({{name, data}})).Descriptor(), maild::Dots::kPlain, {}, sinks);
    Result result{"", filter.TooComplex()};
    for (const maild::Finding& each : filter.Findings()) result.found += each.reason + "; ";
    return result;
}

long PeakKilobytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

const std::string kProgram = "MZ"s + std::string(0x2C000, '\0');
constexpr std::uint64_t kMany = 30000000;

TEST(SevenZip, RoomIsNotMadeForWhatIsOnlyClaimed) {
    const std::string plain = Archive("", Files(kMany));
    const std::string packed = ArchivePacked(Files(kMany));
    ASSERT_LT(packed.size(), 1000U);
    const struct {
        const char* name;
        std::string data;
        const char* why = "more files in archives than MaxArchiveEntries";
    } cases[] = {
        {"plain", plain},
        {"packed", packed},
        {"packed by LZMA2", ArchivePacked(Files(kMany), Method::kLzma2)},
        {"stored", ArchivePacked(Files(kMany), Method::kCopy)},
        {"few bytes", ArchivePacked("\1\5"s + Number(kMany) + "\0\0"s)},
        {"behind a program", kProgram + packed},
        {"in an archive", Zip({{"a", packed}})},
        {"packed as a whole", Pack("raw", "gzip", {{"a", plain}})},
        {"files in a folder", ArchivePacked(OneFolder("\x08\x0D"s + Number(kMany) + '\x09'))},
        {"folders", ArchivePacked(Streams("\7\x0B"s + Number(kMany) + '\0'))},
        {"packed streams", ArchivePacked(Streams("\6"s + Number(0) + Number(kMany) + '\x09'))},
        {"folders of the header's", Archive("", "\x17\7\x0B"s + Number(kMany) + '\0')},
        {"a large header", Archive("x", PackedHeader("x", kCoders[1], 1ULL << 40U))},
        {"a header behind the file's end", Archive("", Files(1), kMany),
         "an archive can't be read: f.7z"},
        {"a packed header in another one",
         ArchivePacked(PackedHeader(packed, kCoders[1], packed.size())),
         "an archive can't be read: f.7z"},
        {"packed by what packs no header", Archive("x", PackedHeader("x", "\3\4\2\2"s, 1000)),
         "an archive can't be read: f.7z"},
        {"too short a header", Archive("x", PackedHeader("x", kCoders[0], 1000)),
         "an archive can't be read: f.7z"},
    };
    const long before = PeakKilobytes();
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        EXPECT_EQ(Filter("f.7z", each.data).tooComplex, each.why);
        EXPECT_FALSE(SevenZipEncrypted(InMemory(each.data).Descriptor()));
    }
    // Gigabytes, if it were; what sanitizers keep back is less.
    EXPECT_LT(PeakKilobytes() - before, 600 << 10);
}

// A filter of four streams, two of which are held while files are read.
TEST(SevenZip, StreamsThatAreHeldWhole) {
    const struct {
        std::uint64_t calls;
        std::uint64_t jumps;
        SevenZipClaims claims;
    } cases[] = {
        {0, 0, SevenZipClaims::kFit},
        {10 << 20, 10 << 20, SevenZipClaims::kFit},
        {1 << 30, 0, SevenZipClaims::kUnreadable},
        {0, 1 << 30, SevenZipClaims::kUnreadable},
    };
    const std::string lzma = kCoders[1];
    for (const auto& each : cases) {
        const std::string header =
            Streams("\6"s + Number(0) + "\4\x09\1\1\1\1\0\7\x0B\1\0\4"s + lzma + lzma + lzma +
                    "\x14\3\3\1\x1B\4\1\5\0\4\1\3\2\2\6\1\0\x0C"s + Number(each.calls) +
                    Number(each.jumps) + Number(1ULL << 32U) + Number(1ULL << 32U) + "\0\0\0"s);
        EXPECT_EQ(ClaimsOf(Archive("data", header), 100), each.claims)
            << each.calls << " " << each.jumps;
    }
}

// What is encrypted in its header claims nothing that anybody reads.
TEST(SevenZip, EncryptedHeader) {
    const std::string packed = Squeezed(Files(kMany), Method::kLzma);
    const std::string aes = "\x24\6\xF1\7\1\2\x13\0"s;
    const std::string header = "\x17\6"s + Number(0) + "\1\x09"s + Number(packed.size()) + '\0' +
                               "\7\x0B\1\0\2"s + aes + kCoders[1] + "\1\0\x0C"s +
                               Number(packed.size()) + Number(Files(kMany).size()) + "\0\0"s;
    const long before = PeakKilobytes();
    EXPECT_EQ(ClaimsOf(Archive(packed, header), 100), SevenZipClaims::kFit);
    EXPECT_EQ(Filter("f.7z", Archive(packed, header)).tooComplex, "");
    // Gigabytes, if it were; what sanitizers keep back is less.
    EXPECT_LT(PeakKilobytes() - before, 600 << 10);
}

// A folder and three files packed by 7z, through a filter of four streams, with a plain list.
constexpr char kFourStreams[] =
    "377abcaf271c00047bbc90c22c00000000000000c600000000000000b6c2b27b003a194b780f583c6e8985ca"
    "1e0be4632c99b017e7216d439b991d55200000000000000000000000000000000104060004091d0505050007"
    "0b01000423030101055d0010000023030101055d0010000023030101055d00100000140303011b0401050004"
    "010302020601000c0000191900080d0209050a0127daec37cd6032e2000005040e01c00f0140190d00000000"
    "00000000000000000011410066006f006c00640065007200000065006d00700074007900000062002e007400"
    "78007400000066006f006c006400650072002f0061002e006500780065000000151201001080ed412080a481"
    "2080a4812080a4810000";

std::string Bytes(std::string_view hex) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(HexDigit(hex[i]) << 4 | HexDigit(hex[i + 1]));
    return bytes;
}

std::vector<Packed> Many(std::size_t files, const std::string& data) {
    std::vector<Packed> many;
    for (std::size_t i = 0; i < files; ++i)
        many.push_back({"folder/a file of this name " + std::to_string(i) + ".txt", data});
    many.push_back({"a.exe", data});
    return many;
}

TEST(SevenZip, OrdinaryOnesAreReadAsEver) {
    for (const char* const method : {"store", "deflate", "bzip2", "lzma1", "lzma2", "ppmd"}) {
        for (const std::size_t files : {0U, 1U, 500U, 9000U}) {
            for (const char* const data : {"", "text"}) {
                const std::string archive = Pack("7zip", "none", Many(files, data), nullptr,
                                                 ("7zip:compression="s + method).c_str());
                SCOPED_TRACE(method + (" " + std::to_string(files)) + data);
                EXPECT_EQ(ClaimsOf(archive, static_cast<long long>(files) + 1),
                          SevenZipClaims::kFit);
                EXPECT_EQ(ClaimsOf(archive, static_cast<long long>(files)),
                          SevenZipClaims::kTooMany);
                const Result result = Filter("f.7z", archive);
                EXPECT_EQ(result.found, "a.exe in f.7z; ");
                EXPECT_EQ(result.tooComplex, "");
                EXPECT_EQ(Filter("f.exe.7z", kProgram + archive).found, "a.exe in f.exe.7z; ");
            }
        }
    }
    EXPECT_EQ(ClaimsOf(Bytes(kFourStreams), 4), SevenZipClaims::kFit);
    EXPECT_EQ(Filter("f.7z", Bytes(kFourStreams)).found, "a.exe in f.7z; ");
    const std::string archive = Pack("7zip", "none", Many(1, "text"));
    EXPECT_EQ(Filter("f.gz", Pack("raw", "gzip", {{"a", archive}})).found, "a.exe in f in f.gz; ");
    EXPECT_EQ(Filter("f.7z", Archive("", "")).tooComplex, "");
    EXPECT_EQ(Filter("f.7z", Pack("7zip", "none", Many(20000, ""))).tooComplex,
              "more files in archives than MaxArchiveEntries");
    EXPECT_EQ(ClaimsOf(Zip(Many(1, "text")), 100), SevenZipClaims::kNone);
    EXPECT_EQ(ClaimsOf(kProgram, 100), SevenZipClaims::kNone);
}

int FilesByLibarchive(const std::string& text) {
    archive* const reader = archive_read_new();
    archive_read_support_format_7zip(reader);
    int files = 0;
    archive_entry* entry = nullptr;
    if (archive_read_open_memory(reader, text.data(), text.size()) == ARCHIVE_OK) {
        while (archive_read_next_header(reader, &entry) >= ARCHIVE_WARN && files < 1000) ++files;
    }
    archive_read_free(reader);
    return files;
}

// The part of the archive that its start header points to.
std::string HeaderOf(const std::string& archive) {
    std::size_t at = 32;
    for (int i = 3; i >= 0; --i)
        at += static_cast<std::size_t>(static_cast<unsigned char>(archive[12U + i])) << (8 * i);
    return archive.substr(at);
}

void Damage(std::string& text, std::mt19937& random) {
    for (auto changes = 1 + random() % 3; changes > 0 && !text.empty(); --changes) {
        const std::size_t at = random() % text.size();
        if (random() % 4 == 0) {
            text.erase(at, random() % 3);
        } else {
            text[at] = static_cast<char>(random() % 2 == 0 ? random() : random() % 32);
        }
    }
}

// What is let pass has no more files than were asked for, whatever is wrong with it.
TEST(SevenZip, DamagedHeaders) {
    constexpr int kMost = 20;
    std::mt19937 random(7);
    const std::string stored =
        Pack("7zip", "none", Many(8, "text"), nullptr, "7zip:compression=store");
    const std::string header = HeaderOf(stored);
    const std::string data = stored.substr(32, stored.size() - 32 - header.size());
    ASSERT_EQ(header[0], '\1');
    int fit = 0;
    int read = 0;
    for (int i = 0; i < 6000; ++i) {
        std::string damaged = header;
        std::string archive;
        if (i % 3 < 2) {
            Damage(damaged, random);
            archive = i % 3 == 0 ? Archive(data, damaged) : ArchivePacked(damaged);
        } else {
            std::string packed = Squeezed(header, Method::kLzma);
            std::string outer = PackedHeader(packed, kCoders[1], header.size());
            Damage(i % 2 == 0 ? packed : outer, random);
            archive = Archive(packed, outer);
        }
        if (ClaimsOf(archive, kMost) != SevenZipClaims::kFit) continue;
        ++fit;
        const int files = FilesByLibarchive(archive);
        EXPECT_LE(files, kMost);
        if (files > 0) ++read;
    }
    EXPECT_GT(fit, 1000);
    EXPECT_GT(read, 1000);
}

}  // namespace
