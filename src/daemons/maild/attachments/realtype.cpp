#include "daemons/maild/attachments/realtype.h"

#include <algorithm>
#include <cstdint>

#include "text/ascii.h"
#include "text/printable.h"

namespace maild {

namespace {

using namespace std::string_view_literals;

using Sure = RealType::Sure;

struct Mark {
    std::size_t at;
    std::string_view bytes;
    const char* type;
    Sure archive = Sure::kNo;
};
// What begins, or goes on, with these bytes.
constexpr Mark kMarks[] = {
    {0, "MZ"sv, "application/x-dosexec"},
    {0,
     "\x7F"
     "ELF"sv,
     "application/x-executable"},
    {0, "\xFE\xED\xFA\xCE"sv, "application/x-executable"},
    {0, "\xFE\xED\xFA\xCF"sv, "application/x-executable"},
    {0, "\xCE\xFA\xED\xFE"sv, "application/x-executable"},
    {0, "\xCF\xFA\xED\xFE"sv, "application/x-executable"},
    {0, "\xCA\xFE\xBA\xBE"sv, "application/x-executable"},  // Mach-O of several systems, and Java
    {0, "L\0\0\0\x01\x14\x02\0\0\0\0\0\xC0\0\0\0\0\0\0\x46"sv, "application/x-ms-shortcut"},
    {0, "#!"sv, "text/x-script"},
    {0, "\xEF\xBB\xBF#!"sv, "text/x-script"},
    {0, "\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1"sv, "application/x-ole-storage"},
    {0, "%PDF-"sv, "application/pdf"},
    {0, "{\\rt"sv, "text/rtf"},
    {0, "PK\3\4"sv, "application/zip", Sure::kYes},
    {0, "PK\5\6"sv, "application/zip", Sure::kYes},
    {0, "PK00PK\3\4"sv, "application/zip", Sure::kYes},
    {0, "PK\7\x08"sv, "application/zip", Sure::kYes},
    {0, "7z\xBC\xAF\x27\x1C"sv, "application/x-7z-compressed", Sure::kYes},
    {0, "Rar!\x1A\7"sv, "application/x-rar", Sure::kYes},
    {0, "\x1F\x8B"sv, "application/gzip", Sure::kYes},
    {0, "\x1F\x9D"sv, "application/x-compress", Sure::kMaybe},
    {0, "BZh"sv, "application/x-bzip2", Sure::kYes},
    {0,
     "\xFD"
     "7zXZ\0"sv,
     "application/x-xz", Sure::kYes},
    {0, "\x5D\0\0"sv, "application/x-lzma", Sure::kMaybe},
    {0, "\x28\xB5\x2F\xFD"sv, "application/zstd", Sure::kYes},
    {0, "\x04\x22\x4D\x18"sv, "application/x-lz4", Sure::kYes},
    {0, "LZIP\1"sv, "application/x-lzip", Sure::kYes},
    {0, "MSCF\0\0\0\0"sv, "application/vnd.ms-cab-compressed", Sure::kYes},
    {0, "!<arch>\n"sv, "application/x-ar", Sure::kMaybe},
    {0, "070701"sv, "application/x-cpio", Sure::kMaybe},
    {0, "070702"sv, "application/x-cpio", Sure::kMaybe},
    {0, "070707"sv, "application/x-cpio", Sure::kMaybe},
    {0, "xar!\0"sv, "application/x-xar", Sure::kYes},
    {2, "-lh"sv, "application/x-lha", Sure::kMaybe},
    {257, "ustar"sv, "application/x-tar", Sure::kYes},
    {0x8001, "CD001"sv, "application/x-iso9660-image", Sure::kYes},
    {0x8801, "CD001"sv, "application/x-iso9660-image", Sure::kYes},
};
static_assert(RealType::kHead > 0x8801 + 5);

struct SearchedWord {
    std::string_view text;  // in small letters
    bool wide;              // in UTF-16
};
// In the order of Word.
constexpr SearchedWord kSearched[] = {
    {"encryptedpackage", true}, {"_vba_project", true}, {"<script", false},
    {"javascript:", false},     {"<html", false},       {"<svg", false},
};
constexpr std::size_t kLongestWord = 32;

// tar of old, which has no mark: by the checksum of its first header.
bool IsOldTar(std::string_view head) {
    if (head.size() < 512) return false;
    std::uint32_t told = 0;
    for (std::size_t i = 148; i < 156; ++i) {
        if (head[i] >= '0' && head[i] <= '7')
            told = told << 3 | static_cast<unsigned>(head[i] - '0');
    }
    std::uint32_t sum = 8 * ' ';
    for (std::size_t i = 0; i < 512; ++i) {
        if (i < 148 || i >= 156) sum += static_cast<unsigned char>(head[i]);
    }
    return told != 0 && told == sum;
}

bool Fits(std::string_view head, const Mark& mark) {
    if (head.size() < mark.at || head.substr(mark.at, mark.bytes.size()) != mark.bytes)
        return false;
    // A text may begin so, but has no zero byte, which each program's header has.
    if (mark.bytes == "MZ"sv) return head.substr(0, 64).find('\0') != std::string_view::npos;
    if (mark.bytes == "BZh"sv)
        return head.size() > 5 && head[3] >= '1' && head[3] <= '9' &&
               (head.substr(4, 2) == "1A" || head.substr(4, 2) == "\x17r");
    if (mark.bytes == "\x5D\0\0"sv) return head.size() > 13 && (head[4] == '\0' || head[4] == 1);
    if (mark.bytes == "\x1F\x8B"sv) return head.size() > 2 && head[2] == 8;
    if (mark.bytes == "-lh"sv) return head.size() > 6 && head[6] == '-';
    return true;
}

std::string_view WithoutBlanks(std::string_view head) {
    if (head.starts_with("\xEF\xBB\xBF")) head.remove_prefix(3);
    const std::size_t from = head.find_first_not_of(" \t\r\n");
    return from == std::string_view::npos ? std::string_view() : head.substr(from);
}

bool BeginsBatch(std::string_view head) {
    head = WithoutBlanks(head);
    return EqualIgnoringCase(head.substr(0, 9), "@echo off") ||
           EqualIgnoringCase(head.substr(0, 8), "echo off");
}

// A letter of UTF-16 takes two bytes, the second one of which is zero.
bool FindWord(std::string_view small, const SearchedWord& word) {
    if (!word.wide) return small.find(word.text) != std::string_view::npos;
    for (std::size_t at = small.find(word.text[0]); at != std::string_view::npos;
         at = small.find(word.text[0], at + 1)) {
        std::size_t i = 0;
        while (i < word.text.size() && at + 2 * i + 1 < small.size() &&
               small[at + 2 * i] == word.text[i] && small[at + 2 * i + 1] == '\0')
            ++i;
        if (i == word.text.size()) return true;
    }
    return false;
}

// An attribute that runs script: `onload=` and the like, behind a blank.
bool HasHandler(std::string_view small) {
    for (std::size_t at = small.find("on"); at != std::string_view::npos;
         at = small.find("on", at + 2)) {
        if (at == 0 ||
            std::string_view(" \t\r\n/\"'").find(small[at - 1]) == std::string_view::npos)
            continue;
        std::size_t end = at + 2;
        while (end < small.size() && end < at + 24 && IsLetter(small[end])) ++end;
        while (end < small.size() && (small[end] == ' ' || small[end] == '\t')) ++end;
        if (end > at + 4 && end < small.size() && small[end] == '=') return true;
    }
    return false;
}

// As programs without a header do early on, that do anything.
bool CallsDos(std::string_view head) {
    return head.substr(0, 1024).find("\xCD\x21"sv) != std::string_view::npos;
}

// No control characters, and UTF-8: no program begins so.
bool BeginsAsText(std::string_view head) {
    constexpr std::size_t kLooked = 1024;
    const bool cut = head.size() > kLooked;
    head = head.substr(0, kLooked);
    while (!head.empty()) {
        const auto c = static_cast<unsigned char>(head[0]);
        const bool white = c == '\t' || c == '\r' || c == '\n' || c == '\f';
        const std::size_t length = white ? 1 : PrintableLength(head);
        if (length == 0) return cut && head.size() < 4 && c >= 0xC2;
        head.remove_prefix(length);
    }
    return true;
}

void AddOnce(std::vector<std::string>& list, std::string text) {
    if (!text.empty() && std::find(list.begin(), list.end(), text) == list.end())
        list.push_back(std::move(text));
}

}  // namespace

void RealType::Write(std::string_view bytes) {
    if (head_.size() < kHead) head_ += bytes.substr(0, kHead - head_.size());
    if (size_ == 0 || head_.size() <= 8) ole_ = head_.starts_with("\xD0\xCF\x11\xE0");
    size_ += static_cast<long long>(bytes.size());
    while (!bytes.empty()) {
        Search(bytes.substr(0, kHead));
        bytes.remove_prefix(std::min(bytes.size(), kHead));
    }
}

void RealType::Search(std::string_view bytes) {
    tail_ += LowerCase(bytes);
    for (std::size_t i = 0; i < kWords; ++i) {
        // Within OLE its own names, in text the others.
        if (met_[i] || kSearched[i].wide != ole_) continue;
        met_[i] = FindWord(tail_, kSearched[i]);
    }
    if (!ole_) met_[kScriptLink] = met_[kScriptLink] || HasHandler(tail_);
    if (tail_.size() > kLongestWord) tail_.erase(0, tail_.size() - kLongestWord);
}

RealType::Sure RealType::BeginsArchive() const {
    Sure sure = IsOldTar(head_) ? Sure::kMaybe : Sure::kNo;
    for (const Mark& mark : kMarks) {
        if (mark.archive > sure && Fits(head_, mark)) sure = mark.archive;
    }
    return sure;
}

bool RealType::IsProgram() const {
    return Fits(head_, {0, "MZ"sv, ""}) || Fits(head_, {0,
                                                        "\x7F"
                                                        "ELF"sv,
                                                        ""});
}

bool RealType::Asks(MagicUse magic) const {
    if (magic != MagicUse::kNoTexts) return magic == MagicUse::kAll;
    if (met_[kScript] || met_[kScriptLink]) return true;  // if it is shown as HTML
    const bool archive = std::any_of(std::begin(kMarks), std::end(kMarks), [&](const Mark& mark) {
        return mark.at == 0 && mark.archive == Sure::kYes && Fits(head_, mark);
    });
    return !archive && !BeginsAsText(head_);
}

std::vector<std::string> RealType::Types(MagicUse magic) const {
    std::vector<std::string> types;
    for (const Mark& mark : kMarks) {
        if (Fits(head_, mark)) AddOnce(types, mark.type);
    }
    if (IsOldTar(head_)) AddOnce(types, "application/x-tar");
    if (BeginsArchive() != Sure::kNo) AddOnce(types, "application/x-archive");
    if (BeginsBatch(head_)) AddOnce(types, "text/x-script");
    if (OfficeEncrypted()) AddOnce(types, "application/x-office-encrypted");
    if (ole_ && met_[kVbaProject]) AddOnce(types, "application/x-office-macros");
    std::string magics = Asks(magic) ? MagicType(head_) : std::string();
    // To libmagic what begins with a jump is a program of DOS: of bytes by chance each hundredth,
    // and texts in older charsets.
    if (magics == "application/x-dosexec" && !IsProgram() && !CallsDos(head_))
        magics = "application/octet-stream";
    const std::string_view begin = WithoutBlanks(head_);
    const bool markup = begin.starts_with('<');
    const bool html = magics == "text/html" || (markup && met_[kHtml]) ||
                      EqualIgnoringCase(begin.substr(0, 9), "<!doctype");
    const bool svg = magics == "image/svg+xml" || (markup && met_[kSvg]);
    if (html) AddOnce(types, "text/html");
    if (svg) AddOnce(types, "image/svg+xml");
    // What begins as markup is shown as such by its name alone.
    if ((html || svg || markup) && (met_[kScript] || met_[kScriptLink]))
        AddOnce(types, "application/x-html-script");
    AddOnce(types, LowerCase(magics));
    if (types.empty() && size_ == 0) AddOnce(types, "inode/x-empty");
    return types;
}

}  // namespace maild
