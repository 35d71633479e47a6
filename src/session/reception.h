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
// A line of one dot in the middle of a message, which a server behind could take for its end: what
// follows would then be commands to it, and a message among them would reach it unscanned. Each of
// its line ends may be CR LF or a bare LF, in any mixture, for servers differ in what they take for
// one. fromStart: the text is the beginning of the message, so that its first line counts too.
bool HasLoneDot(std::string_view text, bool fromStart);
// The text with each lone dot doubled.
std::string GuardLoneDots(std::string_view text, bool fromStart);
