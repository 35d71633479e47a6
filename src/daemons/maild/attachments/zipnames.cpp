#include "daemons/maild/attachments/zipnames.h"

#include <string_view>

#include "daemons/maild/forms/blocks.h"

namespace maild {

namespace {

// The mark, 22 bytes of the header, the lengths of the name and of what is behind it, the name.
constexpr std::string_view kMark{"PK\3\4", 4};
constexpr std::size_t kLengthAt = 26;
constexpr std::size_t kNameAt = 30;
constexpr std::size_t kLongestName = 4096;
constexpr std::size_t kMethodAt = 8;

unsigned Number(std::string_view bytes, std::size_t at) {
    return static_cast<unsigned char>(bytes[at]) |
           static_cast<unsigned>(static_cast<unsigned char>(bytes[at + 1])) << 8U;
}

// Within what is packed the mark comes by chance, and hardly ever with a method that there is.
bool IsHeader(std::string_view header) {
    const unsigned method = Number(header, kMethodAt);
    return Number(header, 4) < 100 && (method <= 20 || (method >= 93 && method <= 99));
}

}  // namespace

bool ForEachLocalName(int file, const std::function<bool(const std::string& name)>& use) {
    if (file < 0) return false;
    std::string held;  // a block, behind what a header may have begun in
    const auto names = [&](bool last) {
        std::size_t at = held.find(kMark);
        while (at != std::string::npos) {
            const std::string_view header = std::string_view(held).substr(at);
            if (header.size() < kNameAt + kLongestName && !last) break;
            if (header.size() >= kNameAt && IsHeader(header)) {
                const std::size_t length = Number(header, kLengthAt);
                if (length > 0 && length <= kLongestName &&
                    !use(std::string(header.substr(kNameAt, length))))
                    return false;
            }
            at = held.find(kMark, at + kMark.size());
        }
        held.erase(0, at != std::string::npos      ? at
                      : held.size() > kMark.size() ? held.size() - kMark.size() + 1
                                                   : 0);
        return true;
    };
    return ReadBlocks(file, 0,
                      [&](std::string_view text, off_t) {
                          held += text;
                          return names(false);
                      }) &&
           names(true);
}

}  // namespace maild
