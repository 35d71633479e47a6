// Inside asfilters/: the plain addresses of the sender blacklist.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace asfilters {

// A multimap from HashText to a lower-case address, kept as one sorted array and one block of text:
// 16 bytes an address beside the text itself, where a tree would take five times that. Filled, then
// sealed, then only asked.
class UserTable {
  public:
    void Add(std::string_view address);
    // Sorts what was added and gives back memory that was kept for more.
    void Seal();
    // One hash and a logarithmic search. After Seal; any thread.
    bool Contains(std::string_view address) const;
    std::size_t Size() const { return entries_.size(); }

  private:
    struct Entry {
        std::uint32_t hash;
        std::uint32_t length;
        std::size_t offset;
    };
    std::vector<Entry> entries_;
    std::string texts_;
};

}  // namespace asfilters
