// Inside maild/: makes the zip archives of the probes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Files one behind the other.
class ZipWriter {
  public:
    void Add(std::string_view name, std::string_view bytes);  // deflated
    void AddStored(std::string_view name, std::string_view bytes);
    // The archive; the writer is empty then.
    std::string Finish();

  private:
    friend std::string ZipOfHugeZip(std::uint32_t, std::string_view, std::string_view);
    struct Entry {
        std::string_view name;
        std::string_view packed;
        std::uint32_t checksum;
        std::uint32_t size;    // unpacked
        std::uint32_t stored;  // packed, which is more than `packed` holds in the huge one
        std::uint16_t method;
    };
    void Put(const Entry& entry);

    std::string out_;
    std::string directory_;
    std::uint32_t gap_ = 0;  // bytes that out_ does not hold
    std::uint16_t count_ = 0;
};

// A zip with one file: a zip of `megabytes` of zeros and, behind them, the file given. The zeros
// are packed once and repeated, so it costs no more than its own kilobyte for each megabyte.
std::string ZipOfHugeZip(std::uint32_t megabytes, std::string_view name, std::string_view bytes);
