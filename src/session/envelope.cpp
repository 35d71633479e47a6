#include "session/envelope.h"

#include <string_view>

#include "session/address/path.h"

std::string SenderOf(const Envelope& envelope) {
    if (!envelope.savedMailLine.has_value()) return {};
    const std::string& line = *envelope.savedMailLine;
    const std::size_t colon = line.find(':');
    return ReadPath(std::string_view(line).substr(colon == std::string::npos ? 0 : colon + 1))
        .address;
}
