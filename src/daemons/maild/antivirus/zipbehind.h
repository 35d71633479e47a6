// Inside antivirus/: a zip that stands behind other bytes of a file. Readers of zips begin at the
// end and find it; the engine goes by the file's first bytes, where it knows them, and doesn't.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "daemons/maild/coding/scratch.h"

namespace maild {

class ZipBehind {
  public:
    // The file's bytes as they come. False if they can't be kept.
    bool Write(std::string_view bytes);
    // Behind the last byte: from the first file's header on; null if there is no such zip. A file
    // that begins as a zip is one for the engine too.
    Scratch* Finish();

  private:
    // Whether there can't be the beginning of a zip in the next bytes, nor in those before them;
    // then that is all there is to do.
    bool HoldsNone(std::string_view bytes);

    std::string joined_;     // the last bytes, in which a mark may have begun
    long long size_ = 0;     // of all that has come
    long long endAt_ = -1;   // of the last mark of a directory's end
    bool beginsSo_ = false;  // as a zip
    std::unique_ptr<Scratch> zip_;
};

}  // namespace maild
