// The path of a command: what the relay guard lets through stays inside in every reading.
#include <cstdint>
#include <string>
#include <vector>

#include "session/address/normalize.h"
#include "session/address/path.h"
#include "text/ascii.h"

namespace {

const std::vector<std::string> kOurs{"example.org", "", "b"};

bool IsOurs(const std::string& reading) {
    const std::size_t at = reading.rfind('@');
    if (at == std::string::npos) return true;
    for (const std::string& domain : kOurs) {
        if (!domain.empty() && EqualIgnoringCase(reading.substr(at + 1), domain))
            return reading.find_first_of("@%!:") == at;
    }
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > 2048) return 0;
    const std::string text(reinterpret_cast<const char*>(data), size);
    const MailPath path = ReadPath(text);
    if (path.readings.empty() || path.readings.size() > kMaxReadings ||
        path.readings.front() != path.address)
        __builtin_trap();
    if (path.parameters.data() != nullptr &&
        (path.parameters.data() < text.data() ||
         path.parameters.data() + path.parameters.size() > text.data() + text.size()))
        __builtin_trap();
    if (StaysInside(text, kOurs)) {
        for (const std::string& reading : path.readings) {
            if (!IsOurs(reading)) __builtin_trap();
        }
    }
    UnreadStaysInside(text, kOurs);
    return 0;
}
