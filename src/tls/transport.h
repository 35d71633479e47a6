// Inside tls/: the connection behind a handshake.
#pragma once

#include <memory>
#include <string>

#include "net/stream.h"
#include "tls/context.h"
#include "tls/link.h"

class TlsTransport : public Transport {
  public:
    // Null without memory.
    static std::unique_ptr<TlsTransport> Make(const CSocket& socket, const TlsContext& context);

    SSL* Ssl() { return ssl_.get(); }
    // Whether the peer has sent anything.
    bool Heard() const { return link_.firstByte >= 0; }
    // True once it is done. Else failure says why.
    bool Handshake(const Deadline& deadline, std::string& failure);

    int ReceiveNow(void* buffer, int length) override;
    int SendNow(const void* buffer, int length) override;
    SocketWant Wanted() const override { return wanted_; }
    void SayGoodbye() override;

  private:
    // What a call has come to that did not succeed, as a result of the two above.
    int Judge(int result);
    std::string Failure();

    TlsLink link_;  // ssl_ goes through it
    OwnedSsl ssl_;
    SocketWant wanted_ = SocketWant::kRead;
    bool dead_ = false;  // after a fatal error the library must not be asked again
};
