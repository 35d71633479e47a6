#include "tls/identity.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "text/printable.h"
#include "tls/context.h"
#include "tls/tickets.h"

namespace {

// Of a certificate with its chain, or a key: bytes.
constexpr std::uint64_t kMostSize = 1 << 20;

// Nobody is there to be asked for the passphrase of a key.
int RefusePassphrase(char*, int, int, void*) { return -1; }

struct CipherLists {
    std::string older;
    std::string tls13;
};

// The library has two lists and two calls; who writes the setting has one.
CipherLists Split(std::string_view ciphers) {
    CipherLists lists;
    while (!ciphers.empty()) {
        const std::size_t end = std::min(ciphers.find_first_of(":, "), ciphers.size());
        const std::string_view name = ciphers.substr(0, end);
        ciphers.remove_prefix(std::min(end + 1, ciphers.size()));
        if (name.empty()) continue;
        std::string& list = name.starts_with("TLS_") ? lists.tls13 : lists.older;
        if (!list.empty()) list += ':';
        list += name;
    }
    return lists;
}

bool SetCiphers(SSL_CTX* context, const std::string& ciphers) {
    const CipherLists lists = Split(ciphers);
    return (lists.older.empty() || SSL_CTX_set_cipher_list(context, lists.older.c_str()) == 1) &&
           (lists.tls13.empty() || SSL_CTX_set_ciphersuites(context, lists.tls13.c_str()) == 1);
}

// A session that began under other rules is not resumed under these.
bool NameSessions(SSL_CTX* context, const TlsIdentitySettings& settings) {
    const std::string rules = settings.minVersion + '\n' + settings.ciphers;
    std::array<unsigned char, EVP_MAX_MD_SIZE> name{};
    unsigned length = 0;
    static_assert(SSL_MAX_SID_CTX_LENGTH == 32, "of SHA-256's length");
    return EVP_Digest(rules.data(), rules.size(), name.data(), &length, EVP_sha256(), nullptr) ==
               1 &&
           SSL_CTX_set_session_id_context(context, name.data(), length) == 1;
}

const std::string& KeyFile(const TlsIdentitySettings& settings) {
    return settings.key.empty() ? settings.certificate : settings.key;
}

// Null, with the thread's errors, if there is no memory.
OwnedSslContext NewServerContext(const TlsIdentitySettings& settings, TlsTicketKeys& tickets) {
    OwnedSslContext made = NewSslContext(TLS_server_method());
    if (made == nullptr || !NameSessions(made.get(), settings)) return nullptr;
    SSL_CTX* const context = made.get();
    if (settings.minVersion == "1.3") SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION);
    SSL_CTX_set_options(context, SSL_OP_CIPHER_SERVER_PREFERENCE);
    SSL_CTX_set_dh_auto(context, 1);
    SSL_CTX_set_default_passwd_cb(context, RefusePassphrase);
    tickets.Serve(context);
    return made;
}

// What can't be used of the settings and files, or empty.
std::string Fill(SSL_CTX* context, const TlsIdentitySettings& settings) {
    if (!SetCiphers(context, settings.ciphers))
        return CleanText(settings.ciphers) + ": " + TakeOpensslReason();
    if (SSL_CTX_use_certificate_chain_file(context, settings.certificate.c_str()) != 1)
        return CleanText(settings.certificate) + ": " + TakeOpensslReason();
    const std::string& key = KeyFile(settings);
    if (SSL_CTX_use_PrivateKey_file(context, key.c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_check_private_key(context) != 1)
        return CleanText(key) + ": " + TakeOpensslReason();
    return {};
}

bool Expired(const TlsContext& context) {
    const X509* const certificate = SSL_CTX_get0_certificate(context.Get());
    return X509_cmp_current_time(X509_get0_notAfter(certificate)) < 0;
}

// A pipe would hold its reader for ever, and what is that large for long.
std::string NotReadable(const std::string& name, const std::optional<platform::FileState>& state) {
    if (state && !state->plain) return CleanText(name) + ": not a plain file";
    return state && state->size > kMostSize ? CleanText(name) + ": too large" : std::string();
}

}  // namespace

TlsIdentity::TlsIdentity(std::function<std::chrono::steady_clock::time_point()> ticketClock)
    : tickets_(std::make_shared<TlsTicketKeys>(std::move(ticketClock))) {}

void TlsIdentity::Configure(const TlsIdentitySettings& settings) {
    const std::lock_guard lock(mutex_);
    settings_ = settings;
}

std::shared_ptr<const TlsContext> TlsIdentity::Context(std::string& complaint) {
    const std::lock_guard lock(mutex_);
    complaint.clear();
    // Looked at before they are read: a change in between is found by the next look.
    const Attempt now{settings_, platform::LookAtFile(settings_.certificate),
                      platform::LookAtFile(KeyFile(settings_))};
    if (tried_ != now) {
        tried_ = now;
        complaint = NotReadable(settings_.certificate, now.certificate);
        if (complaint.empty()) complaint = NotReadable(KeyFile(settings_), now.key);
        OwnedSslContext fresh;
        if (complaint.empty()) {
            fresh = NewServerContext(settings_, *tickets_);
            complaint = fresh != nullptr ? Fill(fresh.get(), settings_) : TakeOpensslReason();
        }
        if (complaint.empty()) {
            context_ = std::make_shared<TlsContext>(std::move(fresh), tickets_);
            shown_ = settings_.certificate;
            expiryTold_ = false;
        }
        ERR_clear_error();
    }
    if (complaint.empty() && context_ != nullptr && !expiryTold_ && Expired(*context_)) {
        expiryTold_ = true;
        complaint = CleanText(shown_) + ": certificate has expired";
    }
    return context_;
}
