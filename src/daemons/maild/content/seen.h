// Inside content/: which characters a reader sees.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace maild {

// Of one character: blanks of any kind, and what has no width.
enum class Look { kSeen, kBlank, kUnseen };
Look LookOf(std::string_view character);

// Bytes of the character of UTF-8 that begins so.
std::size_t LengthOf(char first);

// U+FFFD for what is no character.
std::string Utf8(std::uint32_t character);

// Without characters that don't show, and with plain blanks for others of one line. The blanks and
// line ends of ASCII stay.
std::string SeenText(std::string_view text);

}  // namespace maild
