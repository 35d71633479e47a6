// Inside content/: the names that HTML has for characters.
#pragma once

#include <cstdint>
#include <string_view>

namespace maild {

// The character that a name stands for; 0: the name isn't known.
std::uint32_t CharacterOf(std::string_view name);

// The longest known name with which a word begins that has no semicolon behind it: a few names need
// none. Empty: there is none.
std::string_view OpenNameIn(std::string_view word);

}  // namespace maild
