// The address normalisers: tolerant cutters that find an address in whatever a client wrote behind
// the ':' of a command. Only the proxy's own bookkeeping rests on them; the client's line goes to
// the server unchanged. All work on bytes; case folds ASCII letters only.
#pragma once

#include <string>
#include <vector>

// In place: leading blanks and tabs go; up to the first ':' runs of blanks and tabs become one
// blank.
void NormalizeCommand(char* text);
// In place: all blanks and tabs go; the last byte is not examined.
void StripBlanks(char* text);
// Finds the address in source and stores it with a zero byte behind: target has size + 1 bytes. 0,
// or -1 with target as it was (null source, or an address of fewer than 4 bytes).
int NormalizeAddress(const char* source, char* target, int size);
// Whether every domain that the text (behind the ':' of RCPT TO) names is one of mailDomains. 1, or
// 0.
int IsLocalRecipientOf(const char* text, const std::vector<std::string>& mailDomains);
