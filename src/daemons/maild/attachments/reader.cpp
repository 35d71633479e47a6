#include "daemons/maild/attachments/reader.h"

#include <algorithm>
#include <string_view>

namespace maild {

namespace {

using Support = int (*)(archive*);
constexpr Support kFilters[] = {
    archive_read_support_filter_gzip, archive_read_support_filter_bzip2,
    archive_read_support_filter_xz,   archive_read_support_filter_lzma,
    archive_read_support_filter_zstd, archive_read_support_filter_lz4,
    archive_read_support_filter_lzip, archive_read_support_filter_compress};
constexpr Support kFormats[] = {
    archive_read_support_format_zip,  archive_read_support_format_7zip,
    archive_read_support_format_rar,  archive_read_support_format_rar5,
    archive_read_support_format_tar,  archive_read_support_format_iso9660,
    archive_read_support_format_cab,  archive_read_support_format_lha,
    archive_read_support_format_cpio, archive_read_support_format_ar,
    archive_read_support_format_xar};

constexpr int kLittleRoom = 100000;  // files, of some 100 bytes

locale_t Ours() {
    static const locale_t ours = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    return ours;
}

}  // namespace

Reader MakeReader(Formats formats) {
    Reader reader(archive_read_new());
    archive* const made = reader.get();
    if (made == nullptr) return reader;
    if (formats == Formats::kZipAsItStands) {
        archive_read_support_format_zip_streamable(made);
        return reader;
    }
    for (const Support each : kFilters) each(made);
    if (formats == Formats::kAll || formats == Formats::kAllBut7z) {
        for (const Support each : kFormats) {
            if (formats == Formats::kAll || each != archive_read_support_format_7zip) each(made);
        }
    }
    archive_read_support_format_raw(made);
    return reader;
}

SevenZipClaims ClaimsTo(int file, int most) {
    return ClaimsOfSevenZip(file, std::max(most, kLittleRoom));
}

Reader MakeReader(SevenZipClaims claims) {
    return MakeReader(claims == SevenZipClaims::kFit ? Formats::kAll : Formats::kAllBut7z);
}

bool IsZip(archive* reader) {
    return (archive_format(reader) & ARCHIVE_FORMAT_BASE_MASK) == ARCHIVE_FORMAT_ZIP;
}

bool IsOfCommonKind(archive* reader) {
    for (int i = 0; i < archive_filter_count(reader); ++i) {
        const int filter = archive_filter_code(reader, i);
        if (filter != ARCHIVE_FILTER_NONE && filter != ARCHIVE_FILTER_GZIP &&
            filter != ARCHIVE_FILTER_XZ)
            return false;
    }
    const char* const name = archive_format_name(reader);
    const std::string_view method = name == nullptr ? "" : name;
    switch (archive_format(reader) & ARCHIVE_FORMAT_BASE_MASK) {
        case ARCHIVE_FORMAT_ZIP:
            return method.ends_with("(deflation)") || method.ends_with("(uncompressed)");
        case ARCHIVE_FORMAT_RAW:
        case ARCHIVE_FORMAT_TAR:
        case ARCHIVE_FORMAT_CPIO:
        case ARCHIVE_FORMAT_CAB:
        case ARCHIVE_FORMAT_ISO9660:
            return true;
        default:
            return false;
    }
}

Utf8Locale::Utf8Locale() : before_(uselocale(Ours())) {}

Utf8Locale::~Utf8Locale() {
    if (before_ != nullptr) uselocale(before_);
}

}  // namespace maild
