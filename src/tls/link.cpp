#include "tls/link.h"

namespace {

TlsLink& LinkOf(BIO* bio) { return *static_cast<TlsLink*>(BIO_get_data(bio)); }

int Receive(BIO* bio, char* buffer, int length) {
    TlsLink& link = LinkOf(bio);
    BIO_clear_retry_flags(bio);
    const int count = link.receives-- > 0 ? SocketReceiveNow(link.socket, buffer, length, false)
                                          : SOCKET_WOULD_BLOCK;
    if (count == SOCKET_WOULD_BLOCK) {
        BIO_set_retry_read(bio);
        return -1;
    }
    link.closed = link.closed || count == 0;
    link.broken = link.broken || count < 0;
    if (count > 0 && link.firstByte < 0) link.firstByte = static_cast<unsigned char>(buffer[0]);
    return count;
}

int Send(BIO* bio, const char* bytes, int length) {
    TlsLink& link = LinkOf(bio);
    BIO_clear_retry_flags(bio);
    const int count = SocketSendNow(link.socket, bytes, length);
    if (count == SOCKET_WOULD_BLOCK) {
        BIO_set_retry_write(bio);
        return -1;
    }
    link.broken = link.broken || count < 0;
    return count;
}

// Nothing is held back here, so there is nothing else to be asked.
long Control(BIO*, int what, long, void*) { return what == BIO_CTRL_FLUSH ? 1 : 0; }

BIO_METHOD* MakeMethod() {
    BIO_METHOD* const method =
        BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "connection");
    if (method == nullptr) return nullptr;
    BIO_meth_set_read(method, Receive);
    BIO_meth_set_write(method, Send);
    BIO_meth_set_ctrl(method, Control);
    return method;
}

}  // namespace

bool ConnectLink(SSL* ssl, TlsLink& link) {
    // To the end of the process: a late thread may still speak through it.
    static const BIO_METHOD* const method = MakeMethod();
    BIO* const bio = method != nullptr ? BIO_new(method) : nullptr;
    if (bio == nullptr) return false;
    BIO_set_data(bio, &link);
    BIO_set_init(bio, 1);
    SSL_set_bio(ssl, bio, bio);
    return true;
}
