#include "daemons/maild/forms/sevenzip.h"

#include <archive.h>
#include <archive_entry.h>

#include <memory>

#include "daemons/maild/forms/sevenzipheader.h"

namespace {

constexpr std::size_t kBlock = 65536;
constexpr int kMostFiles = 100000;

struct Freed {
    void operator()(archive* reader) const { archive_read_free(reader); }
};

}  // namespace

bool SevenZipEncrypted(int file) {
    if (ClaimsOfSevenZip(file, kMostFiles) != SevenZipClaims::kFit) return false;
    const std::unique_ptr<archive, Freed> reader(archive_read_new());
    archive* const from = reader.get();
    if (from == nullptr || archive_read_support_format_7zip(from) != ARCHIVE_OK ||
        archive_read_open_fd(from, file, kBlock) != ARCHIVE_OK)
        return false;
    bool any = false;
    archive_entry* entry = nullptr;
    for (int files = 0; files < kMostFiles; ++files) {
        const int result = archive_read_next_header(from, &entry);
        if (result == ARCHIVE_EOF) return any;
        if (result < ARCHIVE_WARN) return false;
        if (archive_entry_size(entry) <= 0) continue;
        if (archive_entry_is_data_encrypted(entry) <= 0) return false;
        any = true;
    }
    return false;
}
