// What a client writes in a command: normalised, cut to an address, judged against mail domains.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "session/address/normalize.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > 1023) return 0;
    std::string line(reinterpret_cast<const char*>(data), size);
    std::string copy = line.c_str();
    NormalizeCommand(copy.data());
    std::string stripped = line.c_str();
    StripBlanks(stripped.data());
    for (const int room : {1, 4, 511}) {
        std::vector<char> target(static_cast<std::size_t>(room) + 1, 'x');
        if (NormalizeAddress(copy.c_str(), target.data(), room) == 0 &&
            std::memchr(target.data(), '\0', target.size()) == nullptr)
            __builtin_trap();
    }
    IsLocalRecipientOf(copy.c_str(), {"example.org", "", "b"});
    IsLocalRecipientOf(copy.c_str(), {});
    return 0;
}
