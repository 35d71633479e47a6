#include "tls/tickets.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>

namespace {

template <std::size_t Size>
bool FillAtRandom(std::array<unsigned char, Size>& bytes) {
    return RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) == 1;
}

// What OpenSSL wants to hear of a ticket.
constexpr int kFailed = -1;
constexpr int kUnknown = 0;
constexpr int kGood = 1;
constexpr int kGoodButOld = 2;

}  // namespace

TlsTicketKeys::Key::~Key() {
    OPENSSL_cleanse(cipher.data(), cipher.size());
    OPENSSL_cleanse(mac.data(), mac.size());
}

void TlsTicketKeys::Serve(SSL_CTX* context) {
    SSL_CTX_set_app_data(context, this);
    SSL_CTX_set_tlsext_ticket_key_evp_cb(context, OnTicket);
    // Clients are told no longer life than a ticket surely has.
    SSL_CTX_set_timeout(context, std::chrono::duration_cast<std::chrono::seconds>(kLife).count());
}

// Under the lock. Looks at the time only when a key is wanted: one that nobody asks for harms
// nobody.
void TlsTicketKeys::Rotate() {
    const auto now = clock_();
    const auto over = [now](const std::shared_ptr<const Key>& key, int lives) {
        return key != nullptr && now - key->made >= kLife * lives;
    };
    if (over(current_, 1)) previous_ = std::move(current_);
    if (over(previous_, 2)) previous_.reset();
}

std::shared_ptr<const TlsTicketKeys::Key> TlsTicketKeys::ToSeal() {
    const std::lock_guard lock(mutex_);
    Rotate();
    if (current_ == nullptr) {
        const auto made = std::make_shared<Key>();
        made->made = clock_();
        if (FillAtRandom(made->name) && FillAtRandom(made->cipher) && FillAtRandom(made->mac))
            current_ = made;
    }
    return current_;
}

std::shared_ptr<const TlsTicketKeys::Key> TlsTicketKeys::ToOpen(const unsigned char* name,
                                                                bool& old) {
    const std::lock_guard lock(mutex_);
    Rotate();
    for (const auto& key : {current_, previous_}) {
        if (key == nullptr || !std::equal(key->name.begin(), key->name.end(), name)) continue;
        old = key == previous_;
        return key;
    }
    return nullptr;
}

int TlsTicketKeys::OnTicket(SSL* ssl, unsigned char* name, unsigned char* start,
                            EVP_CIPHER_CTX* cipher, EVP_MAC_CTX* mac, int seal) {
    auto* const keys = static_cast<TlsTicketKeys*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl)));
    bool old = false;
    const auto key = seal != 0 ? keys->ToSeal() : keys->ToOpen(name, old);
    if (key == nullptr) return seal != 0 ? kFailed : kUnknown;

    const EVP_CIPHER* const method = EVP_aes_256_cbc();
    static_assert(std::tuple_size_v<decltype(Key::cipher)> == 32);
    if (seal != 0) {
        std::copy(key->name.begin(), key->name.end(), name);
        if (RAND_bytes(start, EVP_CIPHER_get_iv_length(method)) != 1) return kFailed;
    }
    // The library takes what it reads for changeable, and only reads it.
    char digest[] = "SHA256";
    OSSL_PARAM settings[] = {
        OSSL_PARAM_construct_octet_string(
            OSSL_MAC_PARAM_KEY, const_cast<unsigned char*>(key->mac.data()), key->mac.size()),
        OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
        OSSL_PARAM_construct_end()};
    if (EVP_MAC_CTX_set_params(mac, settings) != 1 ||
        EVP_CipherInit_ex(cipher, method, nullptr, key->cipher.data(), start, seal) != 1)
        return kFailed;
    // By TLS 1.3 a client uses each ticket once: without another one behind it, only every second
    // connection would be resumed.
    const bool again = old || SSL_version(ssl) >= TLS1_3_VERSION;
    return again ? kGoodButOld : kGood;
}
