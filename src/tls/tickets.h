// Inside tls/: the keys that a server's session tickets are sealed with. A ticket holds the session
// itself, so a server keeps nothing for its clients; and no ticket outlives the keys, which are
// never written anywhere. Any thread.
#pragma once

#include <openssl/ssl.h>

#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>

using TlsClock = std::function<std::chrono::steady_clock::time_point()>;

class TlsTicketKeys {
  public:
    // So long a key seals tickets; it opens them so long again.
    static constexpr std::chrono::hours kLife{1};

    explicit TlsTicketKeys(TlsClock clock) : clock_(std::move(clock)) {}
    TlsTicketKeys(const TlsTicketKeys&) = delete;
    TlsTicketKeys& operator=(const TlsTicketKeys&) = delete;

    // A context's tickets are sealed with these from now on; they have to outlive it.
    void Serve(SSL_CTX* context);

  private:
    using Name = std::array<unsigned char, 16>;
    struct Key {
        ~Key();
        std::chrono::steady_clock::time_point made;
        Name name{};
        std::array<unsigned char, 32> cipher{};
        std::array<unsigned char, 32> mac{};
    };

    static int OnTicket(SSL* ssl, unsigned char* name, unsigned char* start, EVP_CIPHER_CTX* cipher,
                        EVP_MAC_CTX* mac, int seal);
    // Null: the system has no random bytes.
    std::shared_ptr<const Key> ToSeal();
    // Null: not one of ours any more. old: it wants to be replaced by a new ticket.
    std::shared_ptr<const Key> ToOpen(const unsigned char* name, bool& old);
    void Rotate();

    TlsClock clock_;
    std::mutex mutex_;  // of the two below
    std::shared_ptr<const Key> current_;
    std::shared_ptr<const Key> previous_;
};
