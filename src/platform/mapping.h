// Memory that is mapped to a file, for as long as its owner lives, whatever becomes of the file: if
// somebody cuts it, the process that looks into it is not ended, as the system would have it. The
// file gets its length back where that can be; else what has been cut is the process's own from
// there on, and zero.
#pragma once

#include <cstddef>

#include "platform/file.h"

namespace platform {

class Mapping {
  public:
    Mapping() = default;
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;
    Mapping(Mapping&& other) noexcept { *this = static_cast<Mapping&&>(other); }
    Mapping& operator=(Mapping&& other) noexcept;
    ~Mapping() { Unmap(); }

    // The first bytes of the file, which has as many, for all that map it. Nothing if that can't be
    // had, or if this process has too many.
    static Mapping Map(File file, std::size_t size, bool writing);

    explicit operator bool() const { return data_ != nullptr; }
    void* Data() const { return data_; }
    std::size_t Size() const { return size_; }
    const platform::File& File() const { return file_; }

  private:
    void Unmap();

    platform::File file_;
    void* data_ = nullptr;
    std::size_t size_ = 0;
    int place_ = -1;  // among those that are guarded
};

}  // namespace platform
