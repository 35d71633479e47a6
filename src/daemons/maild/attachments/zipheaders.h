// Inside attachments/: what a zip says of its files. It says it twice, before each file and in the
// directory at its end; some readers go by the one, some by the other.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace maild {

struct ZipHeader {
    enum class Kind { kFile, kListed, kEnd };  // before a file, in the directory, behind that
    Kind kind = Kind::kFile;
    long long at = 0;                // where it stands in the file
    long long length = 0;            // bytes, of one in the directory
    long long points = -1;           // to the file's own header, or to the directory's start
    std::vector<std::string> names;  // its own, and in UTF-8 beside it, if that is given
    bool encrypted = false;
    unsigned method = 0;
    unsigned count = 0;  // of the files, by the end of the directory; the low 16 bits
};

// Reads the file from its start and hands over all that stands behind the mark of a header. False
// if it can't be read, or once `use` gives false.
bool ForEachZipHeader(int file, const std::function<bool(ZipHeader header)>& use);

// What becomes known of a zip by its headers.
class ZipHeaders {
  public:
    void Take(const ZipHeader& header);
    // Whether the directory tells of each file that stands there, of so many in all, and of no
    // other. A zip that is stored in a zip shows its files here, too.
    bool Plain(std::size_t files) const;
    // A file is packed or encrypted in one way by the directory and in another one by itself, or
    // the directory's end tells of another number of files than the directory.
    bool Contradicts() const;
    // Where the files' own headers stand.
    std::vector<long long> Files() const;

  private:
    struct Said {
        long long at;
        bool encrypted;
        unsigned method;
    };
    // One that is stored in another one has its directory there, too, which counts from its own
    // start.
    struct Directory {
        long long begin = 0;
        long long end = 0;
        std::vector<Said> listed;        // `at` is where it says that the file is
        std::optional<long long> shift;  // by how much it is wrong, by what stands behind it
        std::optional<unsigned> count;   // of its files, by the same
    };
    long long ShiftOf(const Directory& directory) const;

    std::vector<Said> files_;
    std::vector<Directory> directories_;
};

// Whether it is a zip without the end of its directory, whose files are packed in the ways that all
// readers know.
bool IsBeginningOfZip(int file);

// Whether a directory of a zip may end the file, whatever else it is: readers of zips begin there.
bool EndsAsZip(int file);

// Whether the marks of an archive stand anywhere in the file.
bool HoldsArchiveMark(int file);

}  // namespace maild
