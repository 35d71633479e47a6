// Inside attachments/: libarchive, made ready.
#pragma once

#include <archive.h>
#include <locale.h>

#include <memory>

#include "daemons/maild/forms/sevenzipheader.h"

namespace maild {

struct ReaderFreed {
    void operator()(archive* reader) const { archive_read_free(reader); }
};
using Reader = std::unique_ptr<archive, ReaderFreed>;

enum class Formats {
    kAll,
    kAllBut7z,
    kPackedAlone,  // what is packed as a whole is one file, archive or not
    kZipAsItStands
};

// Null: no memory.
Reader MakeReader(Formats formats);

// What the file claims if it is a 7z, for one who looks at `most` files of it. A few more than
// these may be claimed: what libarchive makes room for costs little, and the first ones are read.
SevenZipClaims ClaimsTo(int file, int most);
// For all formats, 7z only if what is claimed fits: one that is packed as a whole is a file in what
// packs it, and to be looked at as such.
Reader MakeReader(SevenZipClaims claims);

// Of a reader that has met a file.
bool IsZip(archive* reader);
// Whether any engine unpacks it: what is packed in other ways many take for bytes, or don't unpack
// for their licence.
bool IsOfCommonKind(archive* reader);

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
