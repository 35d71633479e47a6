#include "session/client/xclient.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <span>
#include <utility>

#include "text/ascii.h"

namespace {

// Of a command with its line end, as of every command of SMTP.
constexpr std::size_t kMostCommand = 512;
// Of a value, decoded.
constexpr std::size_t kMostValue = 255;
constexpr std::string_view kUnavailable = "[UNAVAILABLE]";
constexpr std::string_view kUnavailableNow = "[TEMPUNAVAIL]";
constexpr std::string_view kV6 = "IPV6:";
constexpr std::string_view kBlanks = " \t";

// What may stand in a header or a log of whoever is told, and in a command.
bool IsPlain(std::string_view value) {
    return value.size() <= kMostValue && std::all_of(value.begin(), value.end(), [](char c) {
               return c > ' ' && c < '\x7F' && c != '<' && c != '>';
           });
}

// An "=" that is not encoded has one reading only, and is let through.
std::optional<std::string> DecodeXtext(std::string_view text) {
    std::string value;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '+') {
            value += text[i];
            continue;
        }
        if (text.size() - i < 3) return std::nullopt;
        const int high = HexDigit(text[i + 1]);
        const int low = HexDigit(text[i + 2]);
        if (high < 0 || low < 0) return std::nullopt;
        value += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return value;
}

std::string EncodeXtext(std::string_view value) {
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    std::string text;
    for (const char c : value) {
        if (c > ' ' && c < '\x7F' && c != '+' && c != '=') {
            text += c;
            continue;
        }
        const auto byte = static_cast<unsigned char>(c);
        text += '+';
        text += kDigits[byte / 16];
        text += kDigits[byte % 16];
    }
    return text;
}

// Each takes a plain value; an empty one: not known.
bool TakeAddress(std::string_view value, IpAddress& address) {
    const bool named = EqualIgnoringCase(value.substr(0, kV6.size()), kV6);
    if (named) value.remove_prefix(kV6.size());
    const auto parsed = IpAddress::Parse(value);
    if (!parsed || (named && value.find(':') == std::string_view::npos)) return false;
    address = *parsed;
    return true;
}

bool TakePort(std::string_view value, std::uint16_t& port) {
    port = 0;
    if (value.empty()) return true;
    const char* const end = value.data() + value.size();
    const auto [rest, error] = std::from_chars(value.data(), end, port);
    return error == std::errc() && rest == end;
}

std::string TellAddress(const IpAddress& address) {
    if (address == IpAddress()) return "";
    return address.IsV4() ? address.Text() : std::string(kV6) + address.Text();
}

std::string TellPort(std::uint16_t port) { return port == 0 ? "" : std::to_string(port); }

// What is known, and how it is taken and told. An empty text: not known. take gives false for a
// value that makes no sense.
struct Attribute {
    std::string_view name;
    bool (*take)(std::string_view value, ClientIdentity& identity);
    std::string (*tell)(const ClientIdentity& identity);
    // Receivers refuse [UNAVAILABLE] here: not known is not said.
    bool unsaidIfUnknown = false;
};

constexpr Attribute kName{"NAME",
                          [](std::string_view value, ClientIdentity& identity) {
                              identity.name = value;
                              return true;
                          },
                          [](const ClientIdentity& identity) { return identity.name; }};
// A client of an unknown address must have none of the rights of the peer that speaks for it, nor
// those that somebody gave to "any address": so there is no such client.
constexpr Attribute kAddress{
    "ADDR",
    [](std::string_view value, ClientIdentity& identity) {
        return TakeAddress(value, identity.address) && identity.address != IpAddress() &&
               identity.address != IpAddress::OfV4(0);
    },
    [](const ClientIdentity& identity) { return TellAddress(identity.address); }};
constexpr Attribute kPort{
    "PORT",
    [](std::string_view value, ClientIdentity& identity) { return TakePort(value, identity.port); },
    [](const ClientIdentity& identity) { return TellPort(identity.port); }};
constexpr Attribute kProto{"PROTO",
                           [](std::string_view value, ClientIdentity& identity) {
                               const bool extended = EqualIgnoringCase(value, "ESMTP");
                               if (!value.empty() && !extended && !EqualIgnoringCase(value, "SMTP"))
                                   return false;
                               identity.proto = value.empty() ? "" : extended ? "ESMTP" : "SMTP";
                               return true;
                           },
                           [](const ClientIdentity& identity) { return identity.proto; }, true};
constexpr Attribute kHelo{"HELO",
                          [](std::string_view value, ClientIdentity& identity) {
                              identity.helo = value;
                              return true;
                          },
                          [](const ClientIdentity& identity) { return identity.helo; }};
constexpr Attribute kLogin{"LOGIN",
                           [](std::string_view value, ClientIdentity& identity) {
                               identity.login = value;
                               return true;
                           },
                           [](const ClientIdentity& identity) { return identity.login; }};
constexpr Attribute kDestination{
    "DESTADDR",
    [](std::string_view value, ClientIdentity& identity) {
        if (!value.empty()) return TakeAddress(value, identity.destination);
        identity.destination = IpAddress();
        identity.destinationPort = 0;
        return true;
    },
    [](const ClientIdentity& identity) { return TellAddress(identity.destination); }};
constexpr Attribute kDestinationPort{
    "DESTPORT",
    [](std::string_view value, ClientIdentity& identity) {
        return TakePort(value, identity.destinationPort);
    },
    [](const ClientIdentity& identity) { return TellPort(identity.destinationPort); }};
// Nobody comes to us but by the network; as a local client the server would complete and rewrite
// what a stranger has written. IDENT, the message's name in a queue of ours, there is none.
constexpr Attribute kSource{"SOURCE", nullptr,
                            [](const ClientIdentity&) { return std::string("REMOTE"); }};

// Where there are several commands, servers ask before each of them whether whom they now take us
// for may say it: the address comes last. With each they forget a login: it comes with the address.
constexpr std::array kXclient{kPort, kProto, kHelo,   kDestination, kDestinationPort,
                              kName, kLogin, kAddress};
constexpr std::array kXforward{kName, kAddress, kPort, kProto, kHelo, kSource};

// Cuts the next word off the text; empty at its end.
std::string_view NextWord(std::string_view& text) {
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    const std::string_view word = text.substr(0, text.find_first_of(kBlanks));
    text.remove_prefix(word.size());
    return word;
}

bool TakeWord(std::string_view word, ClientIdentity& identity) {
    const std::size_t equals = word.find('=');
    if (equals == std::string_view::npos) return false;
    const auto attribute =
        std::find_if(kXclient.begin(), kXclient.end(), [&](const Attribute& each) {
            return EqualIgnoringCase(each.name, word.substr(0, equals));
        });
    std::optional<std::string> value = DecodeXtext(word.substr(equals + 1));
    if (attribute == kXclient.end() || !value || !IsPlain(*value)) return false;
    if (EqualIgnoringCase(*value, kUnavailable) || EqualIgnoringCase(*value, kUnavailableNow))
        value->clear();
    return attribute->take(*value, identity);
}

bool IsOffered(std::string_view name, std::string_view offered) {
    const std::size_t end = offered.find_last_not_of("\r\n");
    offered = offered.substr(0, end == std::string_view::npos ? 0 : end + 1);
    for (std::string_view word = NextWord(offered); !word.empty(); word = NextWord(offered)) {
        if (EqualIgnoringCase(word, name)) return true;
    }
    return false;
}

std::vector<std::string> Commands(std::string_view verb, std::span<const Attribute> attributes,
                                  const ClientIdentity& identity, std::string_view offered) {
    if (!IsOffered(kAddress.name, offered) || kAddress.tell(identity).empty()) return {};
    std::vector<std::string> commands;
    const std::size_t most = kMostCommand - verb.size() - 2;
    for (const Attribute& each : attributes) {
        const std::string value = each.tell(identity);
        if (!IsOffered(each.name, offered) || (each.unsaidIfUnknown && value.empty())) continue;
        const std::string name = " " + std::string(each.name) + "=";
        std::string piece = name + EncodeXtext(value);
        // What can't be said is not known to the server; what is wrong could be taken for somebody.
        if (value.empty() || !IsPlain(value) || piece.size() > most)
            piece = name + std::string(kUnavailable);
        if (commands.empty() || commands.back().size() + piece.size() + 2 > kMostCommand)
            commands.emplace_back(verb);
        commands.back() += piece;
    }
    for (std::string& command : commands) command += "\r\n";
    return commands;
}

}  // namespace

bool ReadXclient(std::string_view arguments, ClientIdentity& identity) {
    ClientIdentity told = identity;
    if (arguments.ends_with('\n')) arguments.remove_suffix(1);
    if (arguments.ends_with('\r')) arguments.remove_suffix(1);
    std::string_view word = NextWord(arguments);
    if (word.empty()) return false;
    for (; !word.empty(); word = NextWord(arguments)) {
        if (!TakeWord(word, told)) return false;
    }
    identity = std::move(told);
    return true;
}

std::vector<std::string> XclientCommands(const ClientIdentity& identity, std::string_view offered) {
    return Commands("XCLIENT", kXclient, identity, offered);
}

std::vector<std::string> XforwardCommands(const ClientIdentity& identity,
                                          std::string_view offered) {
    return Commands("XFORWARD", kXforward, identity, offered);
}
