// Inside tls/: what is behind a TlsContext, the owners of the library's objects, and its reasons.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>
#include <utility>

#include "tls/tickets.h"

template <auto Free>
struct OpensslFree {
    template <typename Type>
    void operator()(Type* object) const {
        Free(object);
    }
};
using OwnedSslContext = std::unique_ptr<SSL_CTX, OpensslFree<SSL_CTX_free>>;
using OwnedSsl = std::unique_ptr<SSL, OpensslFree<SSL_free>>;

class TlsContext {
  public:
    // tickets: what a server's tickets are sealed with; null for a client.
    explicit TlsContext(OwnedSslContext context, std::shared_ptr<TlsTicketKeys> tickets = nullptr)
        : tickets_(std::move(tickets)), context_(std::move(context)) {}

    // The library counts whose it is by itself, and so wants no const one.
    SSL_CTX* Get() const { return context_.get(); }

  private:
    // The library has a pointer to them, which it goes by in handshakes alone: connections that
    // outlive this object have theirs behind them.
    std::shared_ptr<TlsTicketKeys> tickets_;
    OwnedSslContext context_;
};

// With all that both sides have in common; TLS 1.2 or newer. Null without memory.
OwnedSslContext NewSslContext(const SSL_METHOD* method);

// Why the thread's last call failed: printable, one line, never empty. The thread's errors are gone
// then.
std::string TakeOpensslReason();
