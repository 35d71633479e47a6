// Inside attachments/: libarchive, made ready.
#pragma once

#include <archive.h>
#include <locale.h>

#include <memory>

namespace maild {

struct ReaderFreed {
    void operator()(archive* reader) const { archive_read_free(reader); }
};
using Reader = std::unique_ptr<archive, ReaderFreed>;

enum class Formats {
    kAll,
    kPackedAlone,  // what is packed as a whole is one file, archive or not
    kZipAsItStands
};

// Null: no memory.
Reader MakeReader(Formats formats);

// Of a reader that has met a file.
bool IsZip(archive* reader);

// libarchive turns names into the charset of the thread's locale, and loses those that don't fit.
class Utf8Locale {
  public:
    Utf8Locale();
    Utf8Locale(const Utf8Locale&) = delete;
    Utf8Locale& operator=(const Utf8Locale&) = delete;
    ~Utf8Locale();

  private:
    const locale_t before_;
};

}  // namespace maild
