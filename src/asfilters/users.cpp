#include "asfilters/users.h"

#include <algorithm>

#include "asfilters/text.h"

namespace asfilters {

void UserTable::Add(std::string_view address) {
    entries_.push_back({HashText(address.data(), address.size()),
                        static_cast<std::uint32_t>(address.size()), texts_.size()});
    texts_.append(address);
}

void UserTable::Seal() {
    std::sort(entries_.begin(), entries_.end(), [](const Entry& a, const Entry& b) {
        return a.hash != b.hash ? a.hash < b.hash : a.offset < b.offset;
    });
    entries_.shrink_to_fit();
    texts_.shrink_to_fit();
}

bool UserTable::Contains(std::string_view address) const {
    const std::uint32_t hash = HashText(address.data(), address.size());
    auto at = std::lower_bound(entries_.begin(), entries_.end(), hash,
                               [](const Entry& entry, std::uint32_t h) { return entry.hash < h; });
    for (; at != entries_.end() && at->hash == hash; ++at) {
        if (std::string_view(texts_).substr(at->offset, at->length) == address) return true;
    }
    return false;
}

}  // namespace asfilters
