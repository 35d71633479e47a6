// Inside maild/: messages with the standard test pattern of scanners in them, each behind one limit
// of an engine. They are made when they are wanted, in memory, and are small there.
//
// In each the pattern is a file of its own, at whose first byte it stands, and outside of the plain
// probe it is packed: no signature finds it in the bytes as they are.
#pragma once

#include "platform/file.h"

// All of them: empty on failure; the descriptor is at the start.

// A short message with the pattern attached.
platform::File MakePatternProbe();
// A message of about so many bytes, the pattern attached at its end. The middle is a hole.
platform::File MakeSizeProbe(long long bytes);
// A zip with one file of two gigabytes, which is a zip itself, whose last file is the pattern. An
// engine that unpacks a part of it and is silent about the rest is shown up too.
platform::File MakeUnpackProbe();
// Deeper than any engine can be told to go.
platform::File MakeNestingProbe();
// A zip of more files than an engine looks at as it comes.
platform::File MakeFilesProbe();
