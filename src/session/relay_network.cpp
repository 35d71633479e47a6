#include "session/relay_network.h"

RelayNetwork::RelayNetwork(const std::string& address, const std::string& mask)
    : masked_(address.find_first_of("/:") == std::string::npos) {
    if (masked_) {
        address_ = inet_addr(address.c_str());
        mask_ = inet_addr(mask.c_str());
    } else if (mask.empty()) {
        // With a mask besides it would say two things.
        network_ = IpNetwork::Parse(address);
    }
}

bool RelayNetwork::Contains(const IpAddress& client) const {
    if (masked_) return client.IsV4() && address_ == (mask_ & client.V4());
    return network_ && network_->Contains(client);
}

bool RelayNetwork::IsEverybody() const {
    return masked_ ? address_ == 0 && mask_ == 0 : network_ && network_->IsEverybody();
}
