#include "session/server/server_address.h"

#include <cstdlib>

#include "net/address.h"

namespace {

std::uint16_t ReadPort(const std::string& digits) {
    return static_cast<std::uint16_t>(std::atoi(digits.c_str()));
}

// With or without a zone: fe80::1%eth0.
bool IsV6(const std::string& text) {
    return text.find(':') != std::string::npos &&
           IpAddress::Parse(std::string_view(text).substr(0, text.find('%'))).has_value();
}

}  // namespace

ServerAddress ServerAddress::Parse(std::string text) {
    while (!text.empty() && (text.back() == '\r' || text.back() == '\n')) text.pop_back();
    if (IsV6(text)) return {text, kDefaultServerPort};
    const std::size_t colon = text.find(':');
    if (text.starts_with('[')) {
        const std::size_t close = text.find(']');
        const std::string inside = text.substr(1, close == std::string::npos ? close : close - 1);
        // What can't be read stays whole: cut at a colon, it could be some other host.
        const bool ends = close + 1 == text.size();
        if (close == std::string::npos || !IsV6(inside) || (!ends && text[close + 1] != ':'))
            return {text, kDefaultServerPort};
        return {inside, ends ? kDefaultServerPort : ReadPort(text.substr(close + 2))};
    }
    if (colon == std::string::npos) return {text, kDefaultServerPort};
    return {text.substr(0, colon), ReadPort(text.substr(colon + 1))};
}

std::string ServerAddress::Text() const {
    const std::string shown = host.find(':') == std::string::npos ? host : "[" + host + "]";
    return shown + ":" + std::to_string(port);
}
