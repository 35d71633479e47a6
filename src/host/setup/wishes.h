// setup/: `vtsmtpproxy setup` writes the first configuration, of a mail server on the Internet,
// from a few words. This header: what a person says of it, on the command line or when asked.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct RelayWish {
    std::string address;  // or network, as the key has it
    std::string mask;     // of an IPv4 address; empty: none is needed
};

struct SetupWishes {
    std::string server;  // host:port
    std::vector<std::string> domains;
    std::vector<RelayWish> relays;
    std::optional<std::string> listenAddress;  // none: all of them
    std::uint16_t port = 25;                   // host order
    std::string certificate;                   // full path; empty: no TLS
    std::string key;                           // full path; empty: in the certificate's file
    bool force = false;                        // an interface that is there is written anew
};

// One of the options that have a value.
struct WishOption {
    const char* word;
    const char* question;  // to a person
    bool several;          // may be given several times
    // Puts the value in; what is wrong with it, or empty.
    std::string (*read)(SetupWishes& wishes, const std::string& value);
};
// In the order in which they are asked for.
std::span<const WishOption> WishOptions();

// Reads the words behind `setup`; what is wrong with them, or empty.
std::string ReadWishes(const std::vector<std::string>& words, SetupWishes& wishes);
// Asks the person at the terminal, again where an answer is of no use. False: there is no terminal,
// or no answer.
bool AskForWishes(SetupWishes& wishes);
