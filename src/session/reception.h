// The text handling of message reception, apart from sockets and files.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// How what has arrived ends. The number of bytes is the marker's, to be cut off; for kAlone* the
// marker is all.
enum class EndMarker { kNone, kCrLf, kLf, kAloneCrLf, kAloneLf };

// Looks for the end of the message at the very end of the text.
EndMarker FindEndMarker(std::string_view text);
// The bytes that belong to the marker and not to the message.
std::size_t EndMarkerLength(EndMarker marker);
// Whether the text holds a lone dot on a line ("\r\n.\r\n" or "\n.\n").
bool HasLoneDot(std::string_view text);
// The text with each lone dot doubled, so that no reader takes it for the end.
std::string GuardLoneDots(std::string_view text);
