// Inside maild/: what a 7z archive claims to hold, before libarchive believes it: that one makes
// room for all the files that the header at the archive's end claims, up to 10^8 of them in a few
// hundred bytes, before it hands over the first one.
#pragma once

enum class SevenZipClaims {
    kNone,        // nothing that libarchive would take for a 7z archive
    kFit,         // also of one whose header is encrypted: libarchive reads nothing of it
    kTooMany,     // or a header that is too large for them
    kUnreadable,  // by its header, how that is packed, or what libarchive would hold to unpack it
};

// Looks at the file from its start: at an archive, or at a program with one behind it. `most`:
// files; the streams and folders that they lie in go by it too. Needs some MB at most, whatever is
// claimed. Any thread.
SevenZipClaims ClaimsOfSevenZip(int file, long long most);
