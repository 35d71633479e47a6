#include "daemons/maild/attachments/zipheaders.h"

#include <sys/stat.h>

#include <algorithm>
#include <optional>
#include <string_view>

#include "daemons/maild/forms/blocks.h"

namespace maild {

namespace {

using namespace std::string_view_literals;

// Where the fields of both kinds of headers stand, from their marks on.
struct Layout {
    std::string_view mark;
    std::size_t version;  // that is needed; flags and method stand behind it
    std::size_t lengths;  // of the name, and of what is behind it
    std::size_t name;
};
constexpr Layout kFile{"PK\3\4"sv, 4, 26, 30};
constexpr Layout kListed{"PK\1\2"sv, 6, 28, 46};
constexpr std::size_t kPointsAt = 42;
constexpr std::string_view kEnd = "PK\5\6"sv;
constexpr std::size_t kEndSize = 22;
constexpr std::size_t kCountAt = 10;  // in it: of the files that are listed
constexpr std::size_t kDirectoryAt = 16;
constexpr long long kEndForLargeFiles = 76;
constexpr long long kSaidThere = 0xFFFFFFFF;
constexpr unsigned kCountedThere = 0xFFFF;
constexpr std::size_t kMarkSize = 4;
constexpr std::size_t kLongestName = 0xFFFF;
constexpr std::size_t kMostExtra = 4096;  // that is looked at
constexpr std::size_t kWindow = 46 + kLongestName + kMostExtra;
constexpr unsigned kUtf8Name = 0x7075;  // a field of what is behind the name
constexpr std::size_t kUtf8NameAt = 5;  // in it

constexpr std::string_view kMarks[] = {"PK\3\4"sv, "PK\1\2"sv, "7z\xBC\xAF\x27\x1C"sv,
                                       "Rar!\x1A\7"sv, "MSCF\0\0\0\0"sv};

unsigned Number(std::string_view bytes, std::size_t at) {
    return static_cast<unsigned char>(bytes[at]) |
           static_cast<unsigned>(static_cast<unsigned char>(bytes[at + 1])) << 8U;
}

// Within what is packed the mark comes by chance, and hardly ever with a method that there is.
bool IsHeader(std::string_view header, const Layout& layout) {
    const unsigned method = Number(header, layout.version + 4);
    // Of the version the low byte counts, to nearly all.
    return (Number(header, layout.version) & 0xFFU) < 100 &&
           (method <= 20 || (method >= 93 && method <= 99));
}

void AddNames(std::string_view header, const Layout& layout, std::vector<std::string>& names) {
    const std::size_t length = Number(header, layout.lengths);
    if (length > 0) names.emplace_back(header.substr(layout.name, length));
    if (header.size() < layout.name + length) return;
    std::string_view extra = header.substr(layout.name + length);
    extra = extra.substr(0, Number(header, layout.lengths + 2));
    while (extra.size() >= 4) {
        const std::string_view field = extra.substr(4, Number(extra, 2));
        if (Number(extra, 0) == kUtf8Name && field.size() > kUtf8NameAt)
            names.emplace_back(field.substr(kUtf8NameAt));
        extra.remove_prefix(4 + field.size());
    }
}

long long LongNumber(std::string_view bytes, std::size_t at) {
    return Number(bytes, at) | static_cast<long long>(Number(bytes, at + 2)) << 16;
}

// Nothing, if it is none.
std::optional<ZipHeader> Read(std::string_view header, long long at) {
    ZipHeader read;
    read.at = at;
    if (header.starts_with(kEnd)) {
        if (header.size() < kEndSize) return {};
        read.kind = ZipHeader::Kind::kEnd;
        read.points = LongNumber(header, kDirectoryAt);
        read.count = Number(header, kCountAt);
        return read;
    }
    const Layout& layout = header.starts_with(kFile.mark) ? kFile : kListed;
    if (header.size() < layout.name || !IsHeader(header, layout)) return {};
    if (layout.mark == kListed.mark) {
        read.kind = ZipHeader::Kind::kListed;
        read.points = LongNumber(header, kPointsAt);
        read.length = static_cast<long long>(layout.name) + Number(header, layout.lengths) +
                      Number(header, layout.lengths + 2) + Number(header, layout.lengths + 4);
    }
    read.encrypted = (Number(header, layout.version + 2) & 1U) != 0;
    read.method = Number(header, layout.version + 4);
    AddNames(header, layout, read.names);
    return read;
}

std::size_t NextMark(std::string_view text, std::size_t from) {
    for (std::size_t at = text.find("PK"sv, from); at != std::string_view::npos;
         at = text.find("PK"sv, at + 1)) {
        const std::string_view mark = text.substr(at, kMarkSize);
        if (mark == kFile.mark || mark == kListed.mark || mark == kEnd) return at;
    }
    return std::string_view::npos;
}

}  // namespace

bool ForEachZipHeader(int file, const std::function<bool(ZipHeader header)>& use) {
    if (file < 0) return false;
    std::string held;  // a block, behind what a header may have begun in
    long long heldAt = 0;
    const auto headers = [&](bool last) {
        std::size_t at = NextMark(held, 0);
        while (at != std::string::npos) {
            const std::string_view header = std::string_view(held).substr(at, kWindow);
            if (header.size() < kWindow && !last) break;
            const auto read = Read(header, heldAt + static_cast<long long>(at));
            if (read && !use(*read)) return false;
            at = NextMark(held, at + kMarkSize);
        }
        const std::size_t gone = at != std::string::npos   ? at
                                 : held.size() > kMarkSize ? held.size() - kMarkSize + 1
                                                           : 0;
        held.erase(0, gone);
        heldAt += static_cast<long long>(gone);
        return true;
    };
    return ReadBlocks(file, 0,
                      [&](std::string_view text, off_t) {
                          held += text;
                          return headers(false);
                      }) &&
           headers(true);
}

void ZipHeaders::Take(const ZipHeader& header) {
    using Kind = ZipHeader::Kind;
    if (header.kind == Kind::kFile) {
        files_.push_back({header.at, header.encrypted, header.method});
        return;
    }
    Directory* last = directories_.empty() ? nullptr : &directories_.back();
    if (header.kind == Kind::kEnd) {
        // In front of it stands its like for large files, in some.
        const bool behind = last != nullptr &&
                            (header.at == last->end || header.at == last->end + kEndForLargeFiles);
        if (behind && header.points != kSaidThere) last->shift = last->begin - header.points;
        if (behind && header.count != kCountedThere) last->count = header.count;
        return;
    }
    if (last == nullptr || header.at != last->end) {
        last = &directories_.emplace_back();
        last->begin = header.at;
    }
    last->end = header.at + header.length;
    last->listed.push_back({header.points, header.encrypted, header.method});
}

long long ZipHeaders::ShiftOf(const Directory& directory) const {
    if (directory.shift || files_.empty()) return directory.shift.value_or(0);
    const auto first = std::min_element(directory.listed.begin(), directory.listed.end(),
                                        [](const Said& a, const Said& b) { return a.at < b.at; });
    return files_.front().at - first->at;
}

bool ZipHeaders::Plain(std::size_t files) const {
    if (files_.size() != files || directories_.size() > 1) return false;
    std::vector<long long> pointed;
    for (const Directory& each : directories_) {
        for (const Said& listed : each.listed) pointed.push_back(listed.at + ShiftOf(each));
    }
    std::sort(pointed.begin(), pointed.end());
    return pointed == Files();
}

bool ZipHeaders::Contradicts() const {
    const auto contradicts = [&](const Directory& directory) {
        const long long shift = ShiftOf(directory);
        return std::any_of(
            directory.listed.begin(), directory.listed.end(), [&](const Said& listed) {
                const auto file =
                    std::lower_bound(files_.begin(), files_.end(), listed.at + shift,
                                     [](const Said& each, long long at) { return each.at < at; });
                return file != files_.end() && file->at == listed.at + shift &&
                       (file->encrypted != listed.encrypted || file->method != listed.method);
            });
    };
    const auto hides = [](const Directory& directory) {
        return directory.count && *directory.count != (directory.listed.size() & 0xFFFFU);
    };
    return std::any_of(directories_.begin(), directories_.end(), contradicts) ||
           std::any_of(directories_.begin(), directories_.end(), hides);
}

std::vector<long long> ZipHeaders::Files() const {
    std::vector<long long> places;
    for (const Said& each : files_) places.push_back(each.at);
    return places;
}

bool IsBeginningOfZip(int file) {
    constexpr unsigned kDeflated = 8;
    return ForEachZipHeader(file, [](const ZipHeader& header) {
        return header.kind != ZipHeader::Kind::kEnd &&
               (header.method == 0 || header.method == kDeflated);
    });
}

bool EndsAsZip(int file) {
    constexpr long long kMostBehind = kEndSize + 0xFFFF;  // with its comment
    struct stat info {};
    if (file < 0 || fstat(file, &info) != 0) return false;
    std::string held;
    return ReadBlocks(file, std::max<long long>(info.st_size - kMostBehind, 0),
                      [&](std::string_view text, off_t) {
                          held += text;
                          return true;
                      }) &&
           held.find(kEnd) != std::string::npos;
}

bool HoldsArchiveMark(int file) {
    std::string held;
    bool found = false;
    const bool read = file >= 0 && ReadBlocks(file, 0, [&](std::string_view text, off_t) {
                          held += text;
                          for (const std::string_view mark : kMarks)
                              found = found || held.find(mark) != std::string::npos;
                          if (held.size() > 8) held.erase(0, held.size() - 8);
                          return !found;
                      });
    return found || !read;
}

}  // namespace maild
