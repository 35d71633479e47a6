// Inside outward/: what a message says, for a terminal or a page: nothing of it can steer one.
#pragma once

#include <string>

#include "platform/file.h"

// Its headers, decoded, a list of its parts, and its texts. Controls are shown as '?', long texts
// are cut.
std::string MessageAsText(const platform::File& message);
// The decoded bytes of one part. False if there is none of that number.
bool PartOf(const platform::File& message, const std::string& place, std::string& bytes);
// Lines for a terminal.
std::string CleanLines(std::string_view text);
