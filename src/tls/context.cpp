#include "tls/context.h"

#include <openssl/err.h>

#include <system_error>

#include "text/printable.h"

OwnedSslContext NewSslContext(const SSL_METHOD* method) {
    ERR_clear_error();
    OwnedSslContext made(SSL_CTX_new(method));
    if (made == nullptr) return made;
    SSL_CTX* const context = made.get();
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    // No renegotiation: its cost is the server's, and nobody has a use for it.
    SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
    // An idle session needs no buffers. A write that goes on later does so from another buffer,
    // with the same bytes, and what went out so far is told.
    SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ENABLE_PARTIAL_WRITE |
                                  SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    // One receive a record instead of two.
    SSL_CTX_set_read_ahead(context, 1);
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    return made;
}

std::string TakeOpensslReason() {
    // The oldest is the cause, what stands behind it was told on the way up.
    const unsigned long error = ERR_get_error();
    ERR_clear_error();
    if (ERR_SYSTEM_ERROR(error))
        return CleanText(std::generic_category().message(ERR_GET_REASON(error)));
    const char* const reason = ERR_reason_error_string(error);
    return reason != nullptr ? CleanText(reason) : "TLS error " + std::to_string(error);
}
