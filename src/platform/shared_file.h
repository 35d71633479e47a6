// A small file of the instance that one process writes in memory and others look into while it
// does. What is written stays there when the writer dies, and who looks can tell that it has.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "platform/file.h"

namespace platform {

// Owner of a mapped file. Values in it are read and written by atomics alone.
class SharedFile {
  public:
    SharedFile() = default;
    SharedFile(const SharedFile&) = delete;
    SharedFile& operator=(const SharedFile&) = delete;
    SharedFile(SharedFile&& other) noexcept { *this = std::move(other); }
    SharedFile& operator=(SharedFile&& other) noexcept;
    ~SharedFile() { Unmap(); }

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

    explicit operator bool() const { return data_ != nullptr; }
    // Of a view: read only.
    void* Data() const { return data_; }
    std::size_t Size() const { return size_; }

  private:
    bool Map(bool writing);
    void Unmap();

    File file_;
    void* data_ = nullptr;
    std::size_t size_ = 0;
};

}  // namespace platform
