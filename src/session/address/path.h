// address/: what the address in a command is for whoever reads it.
//
// This header: the path of a sender or recipient command: which address a server will take it for,
// and whether it can lead anywhere but to our own domains.
//
// Servers don't agree on paths: some know comments, routes, bang paths and the percent hack, some
// take quotes and backslashes away first, some read the first '<', some the whole text. So there
// are two operations. ReadPath collects what they may see, for those who judge a sender: one
// reading too many does little harm there. StaysInside is the relay guard, and the other way round:
// a small grammar of paths that every server reads alike, and whatever isn't in it is refused.
//
// A text here is what stands behind the first ':' of the command as it came, line end included. No
// operation keeps anything; all may run on any thread at once.
#pragma once

#include <string>
#include <string_view>
#include <vector>

struct MailPath {
    // What filters, scan request, statistics and redirects get: the mailbox that the server behind
    // will see, without comments, route, blanks and needless quotes. The null sender and a name
    // without domain are as NormalizeAddress gives them ("<>" with the line end, "postmaster>").
    std::string address;
    // Every address that some server may take the path for, `address` first; at most kMaxReadings.
    // More than one: the path is ambiguous.
    std::vector<std::string> readings;
    // What stands behind the path (SIZE=, BODY= ...), without blanks around it and without the line
    // end: a view into the text.
    std::string_view parameters;
};
inline constexpr std::size_t kMaxReadings = 32;

MailPath ReadPath(std::string_view text);

// Whether every server reads the path as a mailbox of one of mailDomains, or as a local name
// without domain, which is the server's own. Parameters are not judged.
bool StaysInside(std::string_view text, const std::vector<std::string>& mailDomains);

// The same for a whole recipient command that has no "TO:" where it belongs: a lenient server may
// find a path in it all the same. True if that stays inside, or if there is none.
bool UnreadStaysInside(std::string_view command, const std::vector<std::string>& mailDomains);
