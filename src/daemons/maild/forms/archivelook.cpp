#include "daemons/maild/forms/archivelook.h"

#include <string_view>

namespace {

using namespace std::string_view_literals;

constexpr std::string_view kZip = "PK\3\4";
constexpr std::string_view kSevenZip = "7z\xBC\xAF\x27\x1C";
constexpr std::string_view kRar4 = "Rar!\x1A\x07\x00"sv;
constexpr std::string_view kRar5 = "Rar!\x1A\x07\x01\x00"sv;
constexpr std::string_view kPdf = "%PDF";
constexpr std::size_t kLongestMark = kRar5.size();

constexpr std::uint32_t kZipMark = 0x504B0304;
constexpr std::size_t kZipHeader = 26;            // behind the mark
constexpr std::uint32_t kAesMethod = 0x06F10701;  // 7z's number for it
constexpr std::size_t kSevenZipStart = 32;
constexpr std::uint64_t kPdfMark = 0x2F456E6372797074;  // "/Encrypt"

std::uint64_t Number(std::string_view bytes, std::size_t at, std::size_t count) {
    std::uint64_t number = 0;
    for (std::size_t i = count; i-- > 0;)
        number =
            number << 8 | (at + i < bytes.size() ? static_cast<unsigned char>(bytes[at + i]) : 0U);
    return number;
}

}  // namespace

void ArchiveLook::Take(unsigned char byte) {
    ++count_;
    last_ = last_ << 8 | byte;
    if (head_.size() < kHead) {
        head_ += static_cast<char>(byte);
        if (head_.size() == kLongestMark || (head_.size() == kSevenZipStart)) Recognise();
    }
    switch (type_) {
        case Type::kUnknown:
        case Type::kZip:
            TakeZip(byte);
            break;
        case Type::kSevenZip:
            met_ = met_ ||
                   (count_ > header7z_ && header7z_ != 0 && (last_ & 0xFFFFFFFF) == kAesMethod);
            break;
        case Type::kPdf:
            met_ = met_ || last_ == kPdfMark;
            break;
        case Type::kRar4:
        case Type::kRar5:
            break;
    }
}

void ArchiveLook::Recognise() {
    const std::string_view head = head_;
    if (head.starts_with(kZip)) type_ = Type::kZip;
    if (head.starts_with(kPdf)) type_ = Type::kPdf;
    if (head.starts_with(kRar4)) type_ = Type::kRar4;
    if (head.starts_with(kRar5)) type_ = Type::kRar5;
    if (head.starts_with(kSevenZip)) {
        type_ = Type::kSevenZip;
        if (head.size() >= kSevenZipStart) header7z_ = kSevenZipStart + Number(head, 12, 8);
    }
}

// Wherever a file's header stands: a zip within the zip is met too, as long as it isn't packed.
void ArchiveLook::TakeZip(unsigned char byte) {
    if (inHeader_) {
        header_ += static_cast<char>(byte);
        if (header_.size() < kZipHeader) return;
        inHeader_ = false;
        const std::uint64_t flags = Number(header_, 2, 2);
        const bool empty = Number(header_, 14, 4) == 0 && (flags & 8) == 0;  // as folders are
        if ((flags & 1) != 0) {
            ++encrypted_;
        } else if (!empty) {
            ++plain_;
        }
    } else if ((last_ & 0xFFFFFFFF) == kZipMark && count_ >= kZip.size()) {
        inHeader_ = true;
        header_.clear();
    }
}

bool ArchiveLook::RarHeadersEncrypted() const {
    if (type_ == Type::kRar4) return (Number(head_, kRar4.size() + 3, 2) & 0x80) != 0;
    // A checksum of four bytes, the header's size (seven bits a byte), its type: 4 is encryption.
    std::size_t at = kRar5.size() + 4;
    while (at < head_.size() && (static_cast<unsigned char>(head_[at]) & 0x80) != 0) ++at;
    return Number(head_, at + 1, 1) == 4;
}

bool ArchiveLook::Rar4FileEncrypted() const {
    const std::size_t file = kRar4.size() + Number(head_, kRar4.size() + 5, 2);
    return type_ == Type::kRar4 && file + 7 <= head_.size() && Number(head_, file + 2, 1) == 0x74 &&
           (Number(head_, file + 3, 2) & 4) != 0;
}

std::string ArchiveLook::Kind() const {
    switch (type_) {
        case Type::kZip:
            return encrypted_ > 0 ? "Zip" : "";
        case Type::kSevenZip:
            return met_ ? "7z" : "";
        case Type::kRar4:
        case Type::kRar5:
            return RarHeadersEncrypted() || Rar4FileEncrypted() ? "RAR" : "";
        case Type::kPdf:
            return met_ ? "PDF" : "";
        case Type::kUnknown:
            break;
    }
    return "";
}

bool ArchiveLook::Whole() const {
    switch (type_) {
        case Type::kZip:
            return encrypted_ > 0 && plain_ == 0;
        case Type::kRar4:
        case Type::kRar5:
            return RarHeadersEncrypted();
        case Type::kSevenZip:
        case Type::kPdf:
            return met_;
        case Type::kUnknown:
            break;
    }
    return false;
}
