// The end of a message: what guarding leaves must hold no lone dot that a reader takes for the end.
#include <cstdint>
#include <string>
#include <string_view>

#include "session/reception.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    const EndMarker marker = FindEndMarker(text);
    text.remove_suffix(EndMarkerLength(marker));
    const std::string guarded = GuardLoneDots(text, true);
    if (HasLoneDot(guarded, true) || guarded.find("\n.\r\n") != std::string::npos ||
        guarded.find("\n.\n") != std::string::npos)
        __builtin_trap();
    if (!HasLoneDot(text, true) && guarded != text) __builtin_trap();
    return 0;
}
