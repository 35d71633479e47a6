#include "session/secure.h"

#include <algorithm>

#include "logclient/logclient.h"

namespace {

constexpr std::uint32_t kLongestHandshake = 30;  // seconds

}  // namespace

Deadline HandshakeLimit(const SessionSettings& settings) {
    return Deadline(std::min(kLongestHandshake, settings.connectionTimeout));
}

std::shared_ptr<const TlsContext> ClientContext(const ConnectionOptions& options) {
    if (options.identity == nullptr) return nullptr;
    std::string complaint;
    std::shared_ptr<const TlsContext> context = options.identity->Context(complaint);
    if (!complaint.empty())
        LogClientPost(kEventWarning, nullptr, nullptr, nullptr, nullptr, nullptr,
                      complaint.c_str());
    return context;
}

bool SecureClient(Peers& peers, const TlsContext& context) {
    TlsOutcome outcome = TlsAccept(peers.client.Socket(), context, HandshakeLimit(peers.settings));
    if (outcome.transport == nullptr) {
        // Strangers cause it at will: nothing that an administrator has to look at.
        const std::string text = "TLS with " + peers.address + " failed: " + outcome.failure;
        LogClientPost(kEventInfo, nullptr, nullptr, nullptr, peers.address.c_str(), nullptr,
                      text.c_str());
        return false;
    }
    peers.client.Secure(std::move(outcome.transport));
    return true;
}
