#include "daemons/registryd/any_bytes.h"

#include <string_view>

#include "text/ascii.h"

namespace {

constexpr char kHex[] = "hex";
constexpr std::string_view kHexKey = "hex:";

bool IsUtf8(const std::string& text) {
    try {
        static_cast<void>(nlohmann::json(text).dump());
        return true;
    } catch (const nlohmann::json::type_error&) {
        return false;
    }
}

std::optional<std::string> FromHex(std::string_view hex) {
    if (hex.size() % 2 != 0) return std::nullopt;
    std::string bytes;
    for (std::size_t at = 0; at < hex.size(); at += 2) {
        const int high = HexDigit(hex[at]);
        const int low = HexDigit(hex[at + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        bytes += static_cast<char>(high << 4 | low);
    }
    return bytes;
}

}  // namespace

nlohmann::json AsJson(const std::string& value) {
    if (IsUtf8(value)) return value;
    return {{kHex, ToHex(value)}};
}

std::optional<std::string> FromJson(const nlohmann::json& json) {
    if (json.is_string()) return json.get<std::string>();
    if (!json.is_object() || json.size() != 1 || !json.contains(kHex) || !json[kHex].is_string())
        return std::nullopt;
    return FromHex(json[kHex].get<std::string>());
}

std::string AsJsonKey(const std::string& path) {
    return IsUtf8(path) ? path : std::string(kHexKey) + ToHex(path);
}

std::optional<std::string> FromJsonKey(const std::string& key) {
    if (!key.starts_with(kHexKey)) return key;
    return FromHex(std::string_view(key).substr(kHexKey.size()));
}
