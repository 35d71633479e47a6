// Texts of the configuration in JSON, which knows Unicode only: what is no UTF-8 is written in hex,
// so that a dump carries every byte and a load brings it back.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

// A JSON text, or {"hex": "..."} for a value that is no UTF-8.
nlohmann::json AsJson(const std::string& value);
// Nothing if it is neither.
std::optional<std::string> FromJson(const nlohmann::json& json);
// The path itself, which begins with '/', or "hex:..." for one that is no UTF-8.
std::string AsJsonKey(const std::string& path);
std::optional<std::string> FromJsonKey(const std::string& key);
