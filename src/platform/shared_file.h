// A small file of the instance that one process writes in memory and others look into while it
// does. What is written stays there when the writer dies, and who looks can tell that it has.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "platform/file.h"
#include "platform/mapping.h"

namespace platform {

// Owner of a mapped file. Values in it are read and written by atomics alone.
class SharedFile {
  public:
    SharedFile() = default;
    SharedFile(const SharedFile&) = delete;
    SharedFile& operator=(const SharedFile&) = delete;
    SharedFile(SharedFile&&) = default;
    SharedFile& operator=(SharedFile&&) = default;
    ~SharedFile() = default;

    // A new file, all zero, under a name that nobody looks at; with its place on the disk, for a
    // full one would end the process at its first write. It is this process's as long as it lives,
    // or the object. Nothing if there is no room, or with errno.
    static SharedFile Make(const std::string& name, std::size_t size);
    // Gives it its name, in the place of another file, which those who look there keep.
    bool Publish(const std::string& name, const std::string& path);

    // A look into a file. Nothing if there is none, or none that is plain, not empty and below 1
    // MiB.
    static SharedFile View(const std::string& path);
    // Of a view: whether the process that made it lives.
    bool WriterLives() const;

    // Whether the file has still all that is mapped: if not, what has been read may be nothing.
    bool IsWhole() const;

    explicit operator bool() const { return static_cast<bool>(mapping_); }
    // Of a view: read only.
    void* Data() const { return mapping_.Data(); }
    std::size_t Size() const { return mapping_.Size(); }

  private:
    Mapping mapping_;
};

}  // namespace platform
