#include "tls/handshake.h"

#include <openssl/err.h>
#include <openssl/x509v3.h>

#include "net/address.h"
#include "tls/context.h"
#include "tls/transport.h"

namespace {

constexpr char kNoMemory[] = "out of memory";

TlsOutcome Failed(std::string why) {
    TlsOutcome outcome;
    outcome.failure = std::move(why);
    ERR_clear_error();
    return outcome;
}

TlsOutcome Finish(std::unique_ptr<TlsTransport> transport, const Deadline& deadline) {
    TlsOutcome outcome;
    const bool done = transport->Handshake(deadline, outcome.failure);
    outcome.heard = transport->Heard();
    if (!done) return outcome;
    SSL* const ssl = transport->Ssl();
    outcome.protocol = SSL_get_version(ssl);
    outcome.cipher = SSL_get_cipher_name(ssl);
    outcome.resumed = SSL_session_reused(ssl) == 1;
    outcome.transport = std::move(transport);
    return outcome;
}

// A name may end with the root's dot, in certificates it never does.
std::string WithoutRoot(const std::string& name) {
    return name.ends_with('.') ? name.substr(0, name.size() - 1) : name;
}

// From now on the server's certificate has to be good and to bear the name.
bool JudgeBy(SSL* ssl, const std::string& name) {
    X509_VERIFY_PARAM* const wanted = SSL_get0_param(ssl);
    SSL_set_verify(ssl, SSL_VERIFY_PEER, nullptr);
    X509_VERIFY_PARAM_set_hostflags(wanted, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    if (const auto address = IpAddress::Parse(name)) {
        const auto& bytes = address->Bytes();
        const std::size_t length = address->IsV4() ? 4 : bytes.size();
        return X509_VERIFY_PARAM_set1_ip(wanted, bytes.data() + bytes.size() - length, length) == 1;
    }
    const std::string host = WithoutRoot(name);
    // With a zero byte inside the library refuses it; empty it would take any name.
    return !host.empty() && X509_VERIFY_PARAM_set1_host(wanted, host.data(), host.size()) == 1;
}

}  // namespace

TlsOutcome TlsAccept(const CSocket& socket, const TlsContext& context, const Deadline& deadline) {
    auto transport = TlsTransport::Make(socket, context);
    if (transport == nullptr) return Failed(kNoMemory);
    SSL_set_accept_state(transport->Ssl());
    return Finish(std::move(transport), deadline);
}

TlsOutcome TlsConnect(const CSocket& socket, const TlsContext& context, const std::string& host,
                      const std::string& judgeBy, const Deadline& deadline) {
    auto transport = TlsTransport::Make(socket, context);
    if (transport == nullptr) return Failed(kNoMemory);
    SSL* const ssl = transport->Ssl();
    SSL_set_connect_state(ssl);
    const std::string name = WithoutRoot(host);
    if (!name.empty() && !IpAddress::Parse(name) &&
        SSL_set_tlsext_host_name(ssl, name.c_str()) != 1)
        return Failed("no name of a host");
    if (!judgeBy.empty() && !JudgeBy(ssl, judgeBy)) return Failed("no name to judge by");
    return Finish(std::move(transport), deadline);
}
