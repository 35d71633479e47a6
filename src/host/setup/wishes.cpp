#include "host/setup/wishes.h"

#include <algorithm>
#include <filesystem>

#include "net/address.h"
#include "net/service_address.h"
#include "platform/console.h"
#include "session/relay_network.h"
#include "session/server/server_address.h"
#include "text/ascii.h"
#include "trelis/keys/forms.h"

namespace {

constexpr char kBlanks[] = " \t,";

// host:port; nothing otherwise.
std::optional<ServerAddress> ReadPlace(const std::string& text) {
    const std::optional<ServiceAddress> place = ServiceAddress::Parse(text);
    if (!place || !trelis::IsMailServer(text)) return std::nullopt;
    return ServerAddress{place->host, place->port};
}

std::string ReadServer(SetupWishes& wishes, const std::string& value) {
    const std::optional<ServerAddress> server = ReadPlace(value);
    if (!server) return "no HOST:PORT: " + value;
    wishes.server = server->Text();
    return {};
}

std::string ReadDomain(SetupWishes& wishes, const std::string& value) {
    if (!trelis::IsMailDomain(value)) return "no domain: " + value;
    wishes.domains.push_back(LowerCase(value));
    return {};
}

std::string ReadRelay(SetupWishes& wishes, const std::string& value) {
    RelayWish wish{value, ""};
    const std::size_t slash = value.find('/');
    if (slash != std::string::npos && value.find('.', slash) != std::string::npos) {
        wish = {value.substr(0, slash), value.substr(slash + 1)};
        const auto address = IpAddress::Parse(wish.address);
        const auto mask = IpAddress::Parse(wish.mask);
        if (!address || !mask || !address->IsV4() || !mask->IsV4()) return "no network: " + value;
        if ((address->V4() & ~mask->V4()) != 0)
            return "the address has bits behind its mask: " + value;
    } else if (!IpNetwork::Parse(value)) {
        return "no network: " + value;
    }
    if (RelayNetwork(wish.address, wish.mask).IsEverybody())
        return "everybody could relay: " + value;
    wishes.relays.push_back(wish);
    return {};
}

std::string ReadListen(SetupWishes& wishes, const std::string& value) {
    const std::optional<ServerAddress> place = ReadPlace(value);
    if (!place || !ListenAddress(place->host)) return "no ADDRESS:PORT: " + value;
    wishes.listenAddress = place->host;
    wishes.port = place->port;
    return {};
}

// The programs have another current directory than the person.
std::string ReadFile(std::string& path, const std::string& value) {
    std::error_code error;
    const std::filesystem::path full = std::filesystem::absolute(value, error);
    if (error || !std::filesystem::exists(full, error)) return "no such file: " + value;
    path = full.string();
    return {};
}
std::string ReadCertificate(SetupWishes& wishes, const std::string& value) {
    return ReadFile(wishes.certificate, value);
}
std::string ReadKey(SetupWishes& wishes, const std::string& value) {
    return ReadFile(wishes.key, value);
}

constexpr WishOption kOptions[] = {
    {"--server", "The mail server behind the proxy, HOST:PORT: ", false, ReadServer},
    {"--domain", "The domains that you receive mail for: ", true, ReadDomain},
    {"--relay", "The networks that may send anywhere, such as 192.0.2.0/24: ", true, ReadRelay},
    {"--listen", "Where to listen, ADDRESS:PORT (nothing: port 25 of all addresses): ", false,
     ReadListen},
    {"--certificate", "PEM file with the certificate and its chain (nothing: no TLS): ", false,
     ReadCertificate},
    {"--key", "PEM file with its key (nothing: the certificate's): ", false, ReadKey},
};

std::vector<std::string> Split(const std::string& answer) {
    std::vector<std::string> values;
    for (std::size_t at = 0;;) {
        at = answer.find_first_not_of(kBlanks, at);
        if (at == std::string::npos) return values;
        const std::size_t end = std::min(answer.find_first_of(kBlanks, at), answer.size());
        values.push_back(answer.substr(at, end - at));
        at = end;
    }
}

std::string Missing(const SetupWishes& wishes) {
    if (wishes.server.empty()) return "--server is missing";
    if (wishes.domains.empty() && wishes.relays.empty()) return "--domain is missing";
    if (wishes.certificate.empty() && !wishes.key.empty()) return "--certificate is missing";
    return {};
}

// An answer that is of use, or none: then the old wishes stand. False: there is no answer.
bool Ask(const WishOption& option, SetupWishes& wishes) {
    for (std::string prompt = option.question;;) {
        const auto answer = platform::AskAtTerminal(prompt.c_str(), platform::Echo::kOn);
        if (!answer) return false;
        SetupWishes tried = wishes;
        std::vector<std::string> values = Split(*answer);
        if (!option.several && values.size() > 1) values = {*answer};
        std::string complaint;
        for (const std::string& each : values) {
            if (complaint.empty()) complaint = option.read(tried, each);
        }
        if (complaint.empty()) {
            wishes = tried;
            return true;
        }
        prompt = complaint + '\n' + option.question;
    }
}

}  // namespace

std::span<const WishOption> WishOptions() { return kOptions; }

std::string ReadWishes(const std::vector<std::string>& words, SetupWishes& wishes) {
    std::vector<const WishOption*> given;
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (words[i] == "--force") {
            wishes.force = true;
            continue;
        }
        const auto option =
            std::find_if(std::begin(kOptions), std::end(kOptions),
                         [&](const WishOption& each) { return words[i] == each.word; });
        if (option == std::end(kOptions)) return "unknown option: " + words[i];
        if (!option->several && std::find(given.begin(), given.end(), option) != given.end())
            return "given twice: " + words[i];
        given.push_back(option);
        if (i + 1 == words.size() || words[i + 1].empty())
            return "its value is missing: " + words[i];
        if (std::string complaint = option->read(wishes, words[++i]); !complaint.empty())
            return complaint;
    }
    return Missing(wishes);
}

bool AskForWishes(SetupWishes& wishes) {
    for (const WishOption& option : kOptions) {
        // A key is of no use without a certificate.
        if (option.read == ReadKey && wishes.certificate.empty()) continue;
        if (!Ask(option, wishes)) return false;
    }
    return Missing(wishes).empty();
}
