// A sender against a pattern: the first zero byte divides the two.
#include <cstdint>
#include <string>

#include "asfilters/text.h"
#include "asfilters/wildcard.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string both(reinterpret_cast<const char*>(data), size);
    const std::string text = both.c_str();
    const std::string pattern = text.size() < both.size() ? both.substr(text.size() + 1) : "";
    const int result = MatchWildcard(text.c_str(), pattern.c_str());
    // A star in front can only make more match.
    if (result == 1 && MatchWildcard(text.c_str(), ("*" + pattern).c_str()) == 0 &&
        pattern.size() < 200)
        __builtin_trap();
    asfilters::HashText(text.c_str(), text.size());
    return 0;
}
