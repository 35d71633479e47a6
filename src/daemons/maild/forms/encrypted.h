// Inside maild/: finds encrypted archives among the base64 parts of a message, whatever the engine
// is configured to tell of.
//
// Recognised is a part whose first line begins with the archive's first bytes:
//   zip    any file in it with bit 0 of its flags, also in a zip that lies in it uncompressed
//   7z     a header that names the AES method, or is packed with it; a packed one is unpacked
//   rar    up to version 4: headers or first file encrypted; version 5: headers encrypted
// Not recognised: archives within compressed archives, office documents with a password, messages
// coded otherwise. PDF files with an /Encrypt entry are noted, but do not count: most of them open
// without a password, and only the engine tries.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// Whether a line that starts so may be the start of such a part. A line cut short counts.
bool MayBeginArchive(std::string_view line);

// One part with something encrypted.
struct EncryptedPart {
    long long begin = 0;  // offset of its base64 text
    long long end = 0;
    std::string kind;    // "Zip", "7z", "RAR"; "PDF" only noted
    bool counts = true;  // surely encrypted
    // All that it holds is encrypted: nothing in it could be unpacked.
    bool whole = false;
};
// Looks from an offset on. Dots and blanks in front of the lines don't disturb it. False if the
// file can't be read. Any thread.
bool FindEncrypted(int file, long long from, std::vector<EncryptedPart>& parts);
