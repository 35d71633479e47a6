// The files of TLS: what clients are shown, and by what a server is judged.
#include <filesystem>

#include "host/check/parts.h"
#include "session/options.h"
#include "text/printable.h"
#include "tls/inspect.h"
#include "tls/trust.h"

namespace {

constexpr long long kSoon = 30;  // days

// Complaints begin with what they are about.
void TellUnusable(const std::string& interface, const TlsIdentitySettings& settings,
                  const std::string& complaint, Findings& findings) {
    const auto about = [&complaint](const std::string& what) {
        return !what.empty() && complaint.starts_with(CleanText(what) + ':');
    };
    if (about(settings.ciphers))
        findings.Error(InterfaceKey("TLS/Ciphers").Path({interface}), complaint,
                       "set names as openssl ciphers prints them, or nothing");
    else if (about(settings.key))
        findings.Error(InterfaceKey("TLS/Key").Path({interface}), complaint,
                       "name the PEM file with the certificate's key, which this user can read");
    else
        findings.Error(InterfaceKey("TLS/Certificate").Path({interface}), complaint,
                       "name a PEM file that this user can read, with the certificate and its "
                       "chain, and the key if no other file has it");
}

// Who reads the key can pass for this server.
void CheckKeyFile(const std::string& interface, const TlsIdentitySettings& settings,
                  Findings& findings) {
    namespace fs = std::filesystem;
    const std::string& file = settings.key.empty() ? settings.certificate : settings.key;
    std::error_code error;
    const fs::perms all = fs::status(file, error).permissions();
    if (error || (all & fs::perms::others_read) == fs::perms::none) return;
    const trelis::Key key =
        settings.key.empty() ? InterfaceKey("TLS/Certificate") : InterfaceKey("TLS/Key");
    findings.Error(key.Path({interface}), file + ": every user may read the private key",
                   "chmod o= " + file);
}

void CheckOwn(const std::string& interface, Findings& findings) {
    constexpr trelis::Key kCertificate = InterfaceKey("TLS/Certificate");
    constexpr trelis::Key kMode = InterfaceKey("TLS/Mode");
    constexpr const char* kVersions[] = {"1.2", "1.3"};
    const bool wanted =
        static_cast<ClientTls>(trelis::ReadChoice(kMode, {interface})) != ClientTls::kOff;
    const std::string path = kCertificate.Path({interface});
    const TlsIdentitySettings settings{
        trelis::ReadText(kCertificate, {interface}),
        trelis::ReadText(InterfaceKey("TLS/Key"), {interface}),
        kVersions[trelis::ReadChoice(InterfaceKey("TLS/MinVersion"), {interface})],
        trelis::ReadText(InterfaceKey("TLS/Ciphers"), {interface})};
    if (settings.certificate.empty()) {
        if (wanted)
            findings.Error(kMode.Path({interface}), "there is no TLS without a certificate",
                           "set " + path + ", or this to off");
        return;
    }
    const TlsInspection found = InspectIdentity(settings);
    if (!found.complaint.empty())
        TellUnusable(interface, settings, found.complaint, findings);
    else if (found.daysLeft && *found.daysLeft < 0)
        findings.Error(path, settings.certificate + ": the certificate has expired", "renew it");
    else if (found.daysLeft && *found.daysLeft < kSoon)
        findings.Warn(path,
                      settings.certificate + ": the certificate expires within " +
                          std::to_string(*found.daysLeft + 1) + " days",
                      "renew it, and see why nothing does it by itself");
    CheckKeyFile(interface, settings, findings);
}

}  // namespace

void CheckCertificates(const std::string& interface, Findings& findings) {
    CheckOwn(interface, findings);
    constexpr trelis::Key kAuthorities = InterfaceKey("ServerTLS/CAFile");
    const std::string file = trelis::ReadText(kAuthorities, {interface});
    std::string complaint;
    if (!file.empty() && TlsClientContext(file, complaint) == nullptr)
        findings.Error(kAuthorities.Path({interface}), complaint,
                       "name a PEM file that this user can read, with the authorities");
}
