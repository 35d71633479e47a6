// The mail daemon's settings, read from the configuration store.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "daemons/maild/antispam/settings.h"
#include "daemons/maild/attachments/rule.h"
#include "daemons/maild/content/rule.h"

// What is taken where MaxFileSize says nothing, in bytes.
inline constexpr long long kUsualMaxFileSize = 25LL << 20;

// What becomes of a message with a part that can't be looked into without its password.
enum class WhenEncrypted { kPass, kRefuse, kPutOff };

// What becomes of a message whose parts can't all be looked at within the bounds, or can be read in
// different ways.
enum class WhenOdd { kPass, kRefuse, kPutOff };

// An engine that the configuration names.
struct EngineSetting {
    std::string name;
    std::string address;  // as ServiceAddress reads it; empty: where it is found at each connect
    bool operator==(const EngineSetting&) const = default;
};
// More are not asked.
inline constexpr std::size_t kMostEngines = 16;

// One set of settings; a scan keeps the one that it began with.
struct Settings {
    std::vector<EngineSetting> engines{{"clamd", ""}};  // never none
    std::string clamdSocket;                            // of an engine without an address
    std::string clamdConf;                              // named in advice only
    int connectSeconds = 5;
    int scanSeconds = 120;      // for one message, all its forms together
    long long maxFileSize = 0;  // bytes, at most 2 GB
    std::string virusAction;
    std::string redirectAddress;
    std::string antivirusAction;  // empty: VirusAction decides
    int quarantineDays = 30;      // 0: for ever
    long long quarantineSize = 1LL << 30;
    WhenEncrypted whenEncrypted = WhenEncrypted::kPass;
    int maxDepth = 40;
    int maxParts = 1000;
    long long maxHeaderBytes = 256 << 10;  // of one message's or part's headers
    WhenOdd tooComplex = WhenOdd::kPutOff;
    WhenOdd whenAmbiguous = WhenOdd::kPass;
    maild::AttachmentRules attachments;
    maild::ContentRules content;
    maild::SpamSettings antispam;
    bool passWhenDown = false;
    bool passWhenBusy = false;
    bool passWhenTimedOut = false;
    bool passWhenTooBig = false;

    bool Redirects() const { return virusAction == "redirect" && !redirectAddress.empty(); }
};

// A value that says nothing sensible gives the default; an unknown word for WhenEncrypted,
// TooComplex or WhenAmbiguous puts off, so that a slip of the pen lets nothing through. Any thread.
std::shared_ptr<const Settings> LoadSettings();
// Scans at a time, 1 to 200; read at the start.
int LoadThreads();
// Where clamd listens: the path given, or else the instance's own socket if it is there at this
// moment, or else the system's.
std::string FindClamdSocket(const std::string& configured);
