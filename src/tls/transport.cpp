#include "tls/transport.h"

#include <openssl/err.h>
#include <openssl/x509_vfy.h>

namespace {

// Whether a peer's first byte can begin what a TLS connection begins with: a handshake, or the
// alert of one that wants none.
bool BeginsTls(int byte) { return byte == SSL3_RT_HANDSHAKE || byte == SSL3_RT_ALERT; }

}  // namespace

std::unique_ptr<TlsTransport> TlsTransport::Make(const CSocket& socket, const TlsContext& context) {
    auto made = std::make_unique<TlsTransport>();
    made->link_.socket = socket.Handle();
    made->ssl_.reset(SSL_new(context.Get()));
    if (made->ssl_ == nullptr || !ConnectLink(made->ssl_.get(), made->link_)) return nullptr;
    return made;
}

int TlsTransport::Judge(int result) {
    switch (SSL_get_error(ssl_.get(), result)) {
        case SSL_ERROR_WANT_READ:
            wanted_ = SocketWant::kRead;
            return SOCKET_WOULD_BLOCK;
        case SSL_ERROR_WANT_WRITE:
            wanted_ = SocketWant::kWrite;
            return SOCKET_WOULD_BLOCK;
        case SSL_ERROR_ZERO_RETURN:
            return 0;
        default:
            dead_ = true;
            return SOCKET_BROKEN;
    }
}

std::string TlsTransport::Failure() {
    const long verdict = SSL_get_verify_result(ssl_.get());
    const bool judged = SSL_get_verify_mode(ssl_.get()) != SSL_VERIFY_NONE;
    // The library's reason first: a peer also closes because of what was wrong.
    std::string reason;
    if (judged && verdict != X509_V_OK) {
        reason = X509_verify_cert_error_string(verdict);
    } else if (ERR_peek_error() != 0) {
        reason = TakeOpensslReason();
    } else {
        reason = link_.closed ? "peer closed" : "connection broken";
    }
    if (link_.firstByte >= 0 && !BeginsTls(link_.firstByte)) reason += ": plain text?";
    return reason;
}

bool TlsTransport::Handshake(const Deadline& deadline, std::string& failure) {
    for (;;) {
        ERR_clear_error();
        link_.receives = kMostReceives;
        const int result = SSL_do_handshake(ssl_.get());
        if (result == 1) break;
        if (Judge(result) != SOCKET_WOULD_BLOCK) {
            dead_ = true;
            failure = Failure();
            ERR_clear_error();
            return false;
        }
        SocketWatch watch{link_.socket, wanted_, {}};
        // Looked at here: for a peer that sends without a pause nobody ever waits.
        if (deadline.Over() || !SocketWaitAny(&watch, 1, deadline.Left())) {
            failure = "time over";
            return false;
        }
        if (watch.found.exception) {
            failure = "connection broken";
            return false;
        }
    }
    // A ticket that could not be opened, for example.
    ERR_clear_error();
    return true;
}

// Each thread has one list of errors, for all that it does: it is empty before a call, whose result
// is judged by it, and after.
int TlsTransport::ReceiveNow(void* buffer, int length) {
    if (dead_) return SOCKET_BROKEN;
    if (length <= 0) return 0;
    ERR_clear_error();
    link_.receives = kMostReceives;
    std::size_t count = 0;
    const int result = SSL_read_ex(ssl_.get(), buffer, static_cast<std::size_t>(length), &count);
    const int outcome = result == 1 ? static_cast<int>(count) : Judge(result);
    // By itself the library would keep the one to write with when a ticket has come, 16 KiB, as
    // much as all the rest of an idle connection. With something in them they stay.
    if (outcome == SOCKET_WOULD_BLOCK) SSL_free_buffers(ssl_.get());
    ERR_clear_error();
    return outcome;
}

int TlsTransport::SendNow(const void* buffer, int length) {
    if (dead_) return SOCKET_BROKEN;
    if (length <= 0) return 0;
    ERR_clear_error();
    link_.receives = kMostReceives;
    std::size_t count = 0;
    const int result = SSL_write_ex(ssl_.get(), buffer, static_cast<std::size_t>(length), &count);
    int outcome = result == 1 ? static_cast<int>(count) : Judge(result);
    // The peer's last word says nothing of ours.
    if (outcome == 0) outcome = SOCKET_BROKEN;
    ERR_clear_error();
    return outcome;
}

void TlsTransport::SayGoodbye() {
    if (dead_) return;
    ERR_clear_error();
    // Once: the peer's answer is nothing that anybody waits for.
    if (SSL_shutdown(ssl_.get()) < 0) Judge(-1);
    ERR_clear_error();
}
