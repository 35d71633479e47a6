#include "tls/peers.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "tls/context.h"

Wire::Wire(Mode mode, int buffer) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    ends_[1] = socket(AF_INET, SOCK_STREAM, 0);
    if (buffer > 0) {
        for (const int each : {listener, ends_[1]}) {
            setsockopt(each, SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
            setsockopt(each, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
        }
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t length = sizeof address;
    EXPECT_EQ(bind(listener, generic, length), 0);
    EXPECT_EQ(listen(listener, 1), 0);
    EXPECT_EQ(getsockname(listener, generic, &length), 0);
    EXPECT_EQ(connect(ends_[1], generic, length), 0);
    ends_[0] = accept(listener, nullptr, nullptr);
    EXPECT_GE(ends_[0], 0);
    close(listener);
    if (mode == Mode::kNonBlocking) {
        for (const int each : ends_) fcntl(each, F_SETFL, O_NONBLOCK);
    }
}

Wire::~Wire() {
    Close(true);
    Close(false);
}

void Wire::Close(bool server, bool reset) {
    int& end = ends_[server ? 0 : 1];
    if (end < 0) return;
    const linger hard{1, 0};
    if (reset) setsockopt(end, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    close(end);
    end = -1;
}

Outcomes Shake(const Wire& wire, const TlsContext& server, const TlsContext& client,
               const Call& call) {
    Outcomes both;
    const Deadline deadline(call.limit);
    std::thread other([&] { both.server = TlsAccept(wire.Server(), server, deadline); });
    both.client = TlsConnect(wire.Client(), client, call.host, call.judgeBy, deadline);
    other.join();
    return both;
}

std::shared_ptr<const TlsContext> Serve(TlsIdentity& identity, TlsIdentitySettings settings) {
    identity.Configure(settings);
    std::string complaint;
    auto context = identity.Context(complaint);
    EXPECT_EQ(complaint, "");
    return context;
}

AnyServer::AnyServer(const Wish& wish)
    : context(Serve(identity, {files.Put("pem", authority.Issue(wish).Both()), "", "1.2", ""})) {}

std::shared_ptr<const TlsContext> ClientOf(int version, const char* ciphers) {
    OwnedSslContext context = NewSslContext(TLS_client_method());
    SSL_CTX_set_max_proto_version(context.get(), version);
    if (ciphers != nullptr) {
        EXPECT_EQ(SSL_CTX_set_cipher_list(context.get(), ciphers), 1);
    }
    return std::make_shared<TlsContext>(std::move(context));
}

Secured::Secured(int version, Wire::Mode mode, int buffer) : wire(mode, buffer) {
    Outcomes both = Shake(wire, *server_.context, *ClientOf(version));
    EXPECT_EQ(both.server.failure, "");
    EXPECT_EQ(both.client.failure, "");
    server.Attach(wire.Server());
    client.Attach(wire.Client());
    for (Stream* each : {&server, &client}) each->SetLimit(10);
    server.Secure(std::move(both.server.transport));
    client.Secure(std::move(both.client.transport));
}
