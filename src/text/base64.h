// Base64 with the standard alphabet.
#pragma once

#include <string>
#include <string_view>

// With '=' as the filler at the end, without line breaks.
std::string Base64Encode(std::string_view text);
// A digit's value, 0 to 63; -1 for any other character, the filler too.
int Base64Digit(char c);
