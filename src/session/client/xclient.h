// XCLIENT and XFORWARD: commands with which one mail server tells another whom it speaks for.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "session/client/identity.h"

// What we offer behind the keyword XCLIENT.
inline constexpr std::string_view kXclientAttributes =
    "NAME ADDR PORT PROTO HELO LOGIN DESTADDR DESTPORT";

// Takes what stands behind the verb: attributes that it names change the identity, the others stay.
// False if it can't be read: the identity is as it was, and what follows must not be taken for its
// mail. Names of attributes in any case; values in xtext, at most 255 printable characters without
// blanks and angle brackets; [UNAVAILABLE], [TEMPUNAVAIL] or nothing for what isn't known, which an
// address can't be; IPV6: in front of such an address.
bool ReadXclient(std::string_view arguments, ClientIdentity& identity);

// The commands that tell a server, with their line ends; each is at most 512 bytes long, and names
// nothing but what the server offers. offered: the words behind its keyword, in any case. What is
// offered and not known is said to be unavailable, lest the server keeps what it knows of us. None
// if the address can't be told: the rest alone would be said of ours. Several of XCLIENT are sent
// one by one, with the server's new greeting behind each.
std::vector<std::string> XclientCommands(const ClientIdentity& identity, std::string_view offered);
std::vector<std::string> XforwardCommands(const ClientIdentity& identity, std::string_view offered);
