// Texts of the configuration that have a form: whether one can be read, for who sets it. What it
// means is its reader's affair.
#pragma once

#include <optional>
#include <string_view>

#include "trelis/keys/table.h"

namespace trelis {

// A decimal number, whole or broken, with nothing around it.
std::optional<double> ParseScore(std::string_view text);

bool IsServiceAddress(std::string_view text);
bool IsSpamAddress(std::string_view text);
bool IsScore(std::string_view text);
bool IsPlaceList(std::string_view text);
bool IsTypeList(std::string_view text);
// A name of a host or domain, without a dot at an end.
bool IsDomainName(std::string_view text);
// Such a name, or an address, with or without the brackets of a literal.
bool IsHostName(std::string_view text);
// One line of a reply that refuses.
bool IsRefusal(std::string_view text);
// Mailboxes as commands can have them, ';' or ',' between two.
bool IsMailboxList(std::string_view text);
// A sender as the list of senders is asked about it: an address without anything around it.
bool IsListedSender(std::string_view text);
// A pattern that such a sender can fit, or the null sender.
bool IsSenderPattern(std::string_view text);
// A domain of recipients: such a name, or an address in brackets.
bool IsMailDomain(std::string_view text);
// A mail server: host, host:port, [IPv6]:port or an IPv6 address.
bool IsMailServer(std::string_view text);
bool IsAddress(std::string_view text);
bool IsListenAddress(std::string_view text);
// An address, or a network with its prefix.
bool IsNetwork(std::string_view text);
bool IsV4Address(std::string_view text);

inline constexpr TextForm kMailDomain{IsMailDomain, "a domain such as example.org"};
inline constexpr TextForm kMailServer{IsMailServer, "host:port, such as mx.example.org:25"};
inline constexpr TextForm kListenAddress{
    IsListenAddress, "an address of this host in numbers, or :: for all of both families"};
inline constexpr TextForm kNetwork{
    IsNetwork, "an address (192.0.2.1) or a network (192.0.2.0/24, 2001:db8::/32)"};
inline constexpr TextForm kV4Address{IsV4Address, "an IPv4 address, such as 127.0.0.1"};
inline constexpr TextForm kMask{IsV4Address, "a mask such as 255.255.255.0"};
inline constexpr TextForm kHostName{IsHostName, "a host's name such as mx.example.org"};
inline constexpr TextForm kRefusal{IsRefusal, "one line of a reply, such as 550 5.7.1 Go away"};
inline constexpr TextForm kMailboxes{IsMailboxList, "a mailbox such as virus@example.org"};
inline constexpr TextForm kListedSender{
    IsListedSender, "an address such as joe@example.org; patterns stand in the wildcards' list"};
inline constexpr TextForm kSenderPattern{IsSenderPattern, "a pattern such as *@example.org"};
inline constexpr TextForm kServiceAddress{IsServiceAddress, "unix:PATH, HOST:PORT or [IPv6]:PORT"};
inline constexpr TextForm kSpamAddress{
    IsSpamAddress, "HOST:PORT or unix:PATH of rspamd, or spamd:HOST:PORT, spamd:unix:PATH"};
inline constexpr TextForm kScore{IsScore, "a number such as 6 or 6.5"};
inline constexpr TextForm kPlaceList{
    IsPlaceList, "sender, recipient, subject, header:NAME, text or html, with ; between two"};
inline constexpr TextForm kTypeList{IsTypeList, "media types such as image/*, with ; between two"};

}  // namespace trelis
