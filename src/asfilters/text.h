// Inside asfilters/: texts without regard to case. Case folds ASCII letters only, so that a verdict
// doesn't hang on the locale of the process; all other bytes are compared as they are.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace asfilters {

// In place.
void MakeLowerCase(char* text);

// A 31-bit hash (DEK): from the length, then for each byte a rotation by 5 bits and an exclusive or
// with the byte, sign-extended.
std::uint32_t HashText(const char* text, std::size_t length);

// The configured text of a filter's reply. One that says that more lines follow would have the
// client wait for them: the fallback stands for it.
std::string DenyText(const std::string& configured, const char* fallback);

// A filter's reply: the text, cut to size - 3 bytes, CR, LF and a zero byte. The rest of out (size
// bytes) is zeros; all of it if size is below 6 or `wanted` is false. out may be null with size 0.
void WriteDenyReply(bool wanted, const std::string& text, char* out, unsigned size);

}  // namespace asfilters
