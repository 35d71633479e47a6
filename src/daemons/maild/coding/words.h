// Inside coding/: coded words of headers ("=?utf-8?Q?caf=C3=A9?=") as lenient readers take them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace maild {

// Bytes of a header's text in which coded words count: the time that they take grows faster than
// they do, and what is behind these nobody is shown.
inline constexpr std::size_t kMostDecoded = 32768;

// In UTF-8. Coded words count wherever they stand, also within other words and quotes, with blanks
// in them, with a language behind the charset, and cut within a character or a group of base64's.
std::string DecodeLoosely(std::string_view text);

}  // namespace maild
